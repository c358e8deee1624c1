// The NT calls that concern handles as such, and what callers need around them.
#include "ntposix/ChangeMonitor.h"
#include "ntposix/Create.h"
#include "ntposix/Creator.h"
#include "ntposix/Deletion.h"
#include "ntposix/DirectoryScan.h"
#include "ntposix/FileObject.h"
#include "ntposix/HandleTable.h"
#include "ntposix/Lookup.h"
#include "ntposix/NamedStream.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"
#include "platform/NtRecords.h"

#include <fcntl.h>

#include <algorithm>
#include <string_view>

namespace fodr::ntposix {

// The descriptor outlives the object's reference: while it is open the inode can't become another file.
OpenFile::~OpenFile()
{
    if (object)
        FileObjectTable::Instance().Release(object);
}

int OpenFile::Stat(FileMetadata *facts) const
{
    int error = StatDescriptor(File().fd.Get(), facts);
    ResolveId(File().RootDevice(), facts);
    if (error == 0 && stream) {
        FileMetadata bytes;
        error = StatDescriptor(fd.Get(), &bytes);
        facts->endOfFile = bytes.endOfFile;
        facts->allocation = bytes.allocation;
        facts->attributes &= ~nt::FILE_ATTRIBUTE_DIRECTORY;
    }
    return error;
}

HandleServices::HandleServices() = default;
HandleServices::~HandleServices() = default;

void HandleServices::Close()
{
    blockedCalls.Close();
    std::unique_ptr<ChangeSubscription> ended; // taken out under the lock, ended outside
    {
        const MutexLock guard(changesLock);
        ended = std::move(changes);
    }
}

} // namespace fodr::ntposix

namespace fodr::nt {

using namespace ntposix;

namespace {

std::u16string_view TextOf(const UNICODE_STRING &text)
{
    return {text.Buffer, text.Length / sizeof(char16_t)};
}

bool HasStreamOf(const NtName &name, const LookupResult &place)
{
    std::string attribute;
    Fd file;
    return name.Stream().empty() || (OpenPlace(place, O_PATH, &file) == 0 &&
                                     FindStream(file.Get(), name.Stream(), false, &attribute) == 0);
}

template <typename Creator>
NTSTATUS Create(const NtName &name, const CreateRequest &request, std::unique_ptr<OpenFile> *file,
                uint32_t *information)
{
    Creator creator(name, request);
    const NTSTATUS status = creator.Run(file);
    *information = creator.Information();
    return status;
}

NTSTATUS OpenHandle(const OBJECT_ATTRIBUTES &object, const CreateRequest &request, HANDLE *handle,
                    uint32_t *information)
{
    NtName name;
    if (const NTSTATUS status = NtName::Parse(TextOf(*object.ObjectName), &name); status != STATUS_SUCCESS)
        return status;
    if (!HasDescriptorRoom())
        return STATUS_TOO_MANY_OPENED_FILES;
    std::unique_ptr<OpenFile> file;
    const NTSTATUS status = name.Stream().empty() ? Create<FileCreator>(name, request, &file, information)
                                                  : Create<StreamCreator>(name, request, &file, information);
    if (status != STATUS_SUCCESS)
        return status;
    *handle = MayKeepDescriptor(file->fd.Get()) ? HandleTable::Instance().Add(file) : nullptr;
    if (*handle)
        return STATUS_SUCCESS;
    // Others were faster. A refused create leaves nothing behind.
    file->deleteOnClose = *information == FILE_CREATED;
    Cleanup(*file);
    return STATUS_TOO_MANY_OPENED_FILES;
}

} // namespace

NTSTATUS NtCreateFile(HANDLE *fileHandle, uint32_t desiredAccess, OBJECT_ATTRIBUTES *objectAttributes,
                      IO_STATUS_BLOCK *ioStatus, LARGE_INTEGER *allocationSize, uint32_t fileAttributes,
                      uint32_t shareAccess, uint32_t createDisposition, uint32_t createOptions, void *,
                      uint32_t eaLength)
{
    *fileHandle = nullptr;
    CreateRequest request{.access = desiredAccess,
                          .share = shareAccess,
                          .disposition = createDisposition,
                          .options = createOptions,
                          .attributes = fileAttributes,
                          .allocation = allocationSize ? allocationSize->QuadPart : 0};
    if (static_cast<uint64_t>(request.allocation) & FODR_CREATE_WITH_MODE) {
        request.mode = static_cast<mode_t>(request.allocation & FODR_MODE_BITS);
        request.allocation = 0;
    }
    uint32_t information = 0;
    const NTSTATUS status = WithoutThrowing([&]() -> NTSTATUS {
        if (const NTSTATUS improper = CheckCreateParameters(request); improper != STATUS_SUCCESS)
            return improper;
        if (eaLength != 0)
            return STATUS_EAS_NOT_SUPPORTED;
        if (!objectAttributes || !objectAttributes->ObjectName)
            return STATUS_INVALID_PARAMETER;
        if (objectAttributes->RootDirectory)
            return STATUS_NOT_SUPPORTED;
        request.access = ResolveGenericRights(desiredAccess);
        request.exactName = (objectAttributes->Attributes & OBJ_CASE_INSENSITIVE) == 0;
        return OpenHandle(*objectAttributes, request, fileHandle, &information);
    });
    return Complete(ioStatus, status, information);
}

NTSTATUS NtClose(HANDLE handle)
{
    return WithoutThrowing([handle]() -> NTSTATUS {
        const OpenFileRef file = HandleTable::Instance().Remove(handle);
        if (!file)
            return STATUS_INVALID_HANDLE;
        Cleanup(*file);
        return STATUS_SUCCESS;
    });
}

uint32_t CancelIoEx(HANDLE file)
{
    constexpr uint32_t ERROR_INVALID_HANDLE = 6;
    constexpr uint32_t ERROR_NOT_FOUND = 1168;
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (!open)
        return ERROR_INVALID_HANDLE;
    return open->services.blockedCalls.Cancel() ? 0 : ERROR_NOT_FOUND;
}

// Every call has finished when it returns.
NTSTATUS NtWaitForSingleObject(HANDLE, bool, LARGE_INTEGER *)
{
    return STATUS_SUCCESS;
}

NtCallEvent::~NtCallEvent() = default;

uint32_t NtCallEvent::Create()
{
    return 0;
}

void RtlInitUnicodeString(UNICODE_STRING *destination, const char16_t *text)
{
    constexpr size_t kMostUnits = 32766;
    const size_t units = text ? std::min(std::char_traits<char16_t>::length(text), kMostUnits) : 0;
    destination->Length = static_cast<uint16_t>(units * sizeof(char16_t));
    destination->MaximumLength = text ? static_cast<uint16_t>(destination->Length + sizeof(char16_t)) : 0;
    destination->Buffer = const_cast<char16_t *>(text); // never written through
}

// A link has the attribute of one; a link to a directory has a directory's as well.
bool GetFileAttributes(const char16_t *ntPath, uint32_t *attributes)
{
    return WithoutThrowing([&]() -> NTSTATUS {
               NtName name;
               LookupResult place;
               NTSTATUS status = NtName::Parse(ntPath, &name);
               if (status == STATUS_SUCCESS)
                   status = Locate(name, {.links = Links::kDontFollow}, &place);
               if (status != STATUS_SUCCESS || !place.exists || !HasStreamOf(name, place))
                   return STATUS_OBJECT_NAME_NOT_FOUND;
               uint32_t found = place.facts.attributes | HiddenByName(LeafOf(place.path));
               Fd target;
               if (place.facts.kind == FileKind::kLink &&
                   OpenPlace(place, O_PATH | O_DIRECTORY, &target) == 0)
                   found |= FILE_ATTRIBUTE_DIRECTORY;
               if (name.HasTrailingSeparator() && (found & FILE_ATTRIBUTE_DIRECTORY) == 0)
                   return STATUS_OBJECT_NAME_INVALID;
               *attributes = CompleteAttributes(found);
               return STATUS_SUCCESS;
           }) == STATUS_SUCCESS;
}

bool PathFileExists(const char16_t *ntPath)
{
    uint32_t attributes;
    return GetFileAttributes(ntPath, &attributes);
}

} // namespace fodr::nt
