// How RedirectedDevice sees to it that a file gets no name outside the share.
#include "fileservice/PacketText.h"
#include "fileservice/RedirectedDevice.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

namespace fodr {

using namespace nt;

namespace {

constexpr size_t kNameOffset = offsetof(FILE_RENAME_INFORMATION_EX, FileName);

// Classes that move clusters, set a short name, or link or rename without a look at access rights (MS-FSCC
// 2.4): they give a file a further name, or one by a path that could lead anywhere. And
// classes whose record holds a handle of another object: a completion port, the file that a move is tracked
// to, a memory partition. A number from the wire must not become one.
bool NamesAnotherPlace(uint32_t infoClass)
{
    constexpr uint32_t kOthers[] = {30, 31, 36, 40, 56, 57, 61, 66, 69, 72, 73};
    return std::find(std::begin(kOthers), std::end(kOthers), infoClass) != std::end(kOthers);
}

bool TakesName(uint32_t infoClass)
{
    return infoClass == FileRenameInformation || infoClass == FileRenameInformationEx ||
           infoClass == FileLinkInformation || infoClass == FileDispositionInformation ||
           infoClass == FileDispositionInformationEx;
}

// Controls whose input holds a handle of another object: MOVE_FILE, MARK_HANDLE, DUPLICATE_EXTENTS_TO_FILE
// and its Ex.
bool CarriesHandle(uint32_t code)
{
    constexpr uint32_t kCodes[] = {0x90074, 0x900FC, 0x98344, 0x983E8};
    return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

bool IsOneComponent(std::u16string_view name)
{
    constexpr std::u16string_view kImproper(u"\\/:\0", 4);
    return name != u"." && name != u".." && name.find_first_of(kImproper) == std::u16string_view::npos;
}

// A record that says one component below a directory of the share. Its length is cut to what it says, and
// what nobody has defined is taken out of it.
NTSTATUS ReadNewName(uint32_t infoClass, uint8_t *buffer, uint32_t *length, uint32_t *directoryId)
{
    static_assert(sizeof(FILE_LINK_INFORMATION) == sizeof(FILE_RENAME_INFORMATION_EX) &&
                  offsetof(FILE_LINK_INFORMATION, FileName) == kNameOffset);
    if (*length < kNameOffset)
        return STATUS_INFO_LENGTH_MISMATCH;
    FILE_RENAME_INFORMATION_EX record{};
    memcpy(&record, buffer, kNameOffset);
    if (record.FileNameLength == 0 || record.FileNameLength % sizeof(char16_t) != 0 ||
        record.FileNameLength > *length - kNameOffset || record.RootDirectory == 0 ||
        record.RootDirectory > UINT32_MAX)
        return STATUS_INVALID_PARAMETER;
    std::u16string name(record.FileNameLength / sizeof(char16_t), u'\0');
    memcpy(name.data(), buffer + kNameOffset, record.FileNameLength);
    if (!IsOneComponent(name))
        return STATUS_OBJECT_NAME_INVALID;
    if (infoClass == FileLinkInformation && buffer[0] != 0) // a link replaces nothing
        return STATUS_INVALID_PARAMETER;
    constexpr uint32_t kFlags = FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_POSIX_SEMANTICS |
                                FILE_RENAME_IGNORE_READONLY_ATTRIBUTE | FODR_RENAME_EXCHANGE;
    const uint64_t flags =
        infoClass == FileLinkInformation ? 0 : record.Flags & kFlags; // and the padding behind them
    memcpy(buffer, &flags, sizeof(flags));
    *directoryId = static_cast<uint32_t>(record.RootDirectory);
    // Systems want the whole record, also for a name of one unit.
    *length = std::max<uint32_t>(kNameOffset + record.FileNameLength, sizeof(FILE_RENAME_INFORMATION_EX));
    return STATUS_SUCCESS;
}

} // namespace

bool RedirectedDevice::IsRoot(uint32_t fileId)
{
    OVMutexLock held(filesLock);
    const auto found = files.find(fileId);
    return found != files.end() && found->second->isRoot;
}

NTSTATUS RedirectedDevice::SetInformation(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                          uint32_t length, uint32_t infoClass)
{
    if (NamesAnotherPlace(infoClass))
        return STATUS_INVALID_INFO_CLASS;
    if (TakesName(infoClass) && IsRoot(fileId))
        return STATUS_ACCESS_DENIED;
    if (infoClass == FileRenameInformationEx || infoClass == FileLinkInformation)
        return NameWithinShare(fileId, ioStatus, buffer, length, infoClass);
    return fileSystem->RedirectedSetInformationFile(fileId, ioStatus, buffer, length, infoClass);
}

// The directory stays open until the name is made: its number can't become another file's meanwhile.
NTSTATUS RedirectedDevice::NameWithinShare(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                           uint32_t length, uint32_t infoClass)
{
    uint32_t directoryId = 0;
    NTSTATUS status = ReadNewName(infoClass, buffer, &length, &directoryId);
    if (status != STATUS_SUCCESS)
        return status;
    const RCPtr<RdpFileHandle> directory = BeginIo(directoryId);
    if (!directory)
        return STATUS_INVALID_HANDLE;
    status = IsDirectory(directoryId)
                 ? fileSystem->RedirectedSetInformationFile(fileId, ioStatus, buffer, length, infoClass)
                 : STATUS_NOT_A_DIRECTORY;
    directory->EndIo();
    return status;
}

// The source stays open until its bytes are copied, as the directory above does.
NTSTATUS RedirectedDevice::Control(uint32_t fileId, IO_STATUS_BLOCK *ioStatus, uint32_t code,
                                   MallocBuffer &input, MallocBuffer &output)
{
    if (CarriesHandle(code))
        return STATUS_INVALID_DEVICE_REQUEST;
    const auto control = [&] {
        return fileSystem->RedirectedDeviceIoControlFile(fileId, ioStatus, code, input.Data(),
                                                         static_cast<uint32_t>(input.Size()), output.Data(),
                                                         static_cast<uint32_t>(output.Size()));
    };
    if (code != FSCTL_FODR_COPY_RANGE)
        return control();
    if (input.Size() < sizeof(FODR_RANGE_COPY))
        return STATUS_INVALID_PARAMETER;
    const auto sourceId = LoadLittle<uint64_t>(input.Data() + offsetof(FODR_RANGE_COPY, Source));
    const RCPtr<RdpFileHandle> source =
        sourceId <= UINT32_MAX ? BeginIo(static_cast<uint32_t>(sourceId)) : nullptr;
    if (!source)
        return STATUS_INVALID_HANDLE;
    const NTSTATUS status = control();
    source->EndIo();
    return status;
}

bool RedirectedDevice::IsDirectory(uint32_t fileId)
{
    IO_STATUS_BLOCK ioStatus{};
    uint8_t *block = nullptr;
    const NTSTATUS status =
        fileSystem->RedirectedQueryInformationFile(fileId, &ioStatus, &block, FileStandardInformation);
    const MallocBuffer facts(block, block ? static_cast<size_t>(ioStatus.Information) : 0);
    constexpr size_t kDirectory = offsetof(FILE_STANDARD_INFORMATION, Directory);
    return status == STATUS_SUCCESS && facts.Size() > kDirectory && facts.Data()[kDirectory] != 0;
}

} // namespace fodr
