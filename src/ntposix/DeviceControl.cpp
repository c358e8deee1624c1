// NtDeviceIoControlFile: the controls of MS-FSCC 2.3 that mean something for POSIX files.

#include "ntposix/DeviceControl.h"

#include "ntposix/FileMetadata.h"
#include "ntposix/HandleTable.h"
#include "ntposix/Lookup.h"
#include "ntposix/NameSteps.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"
#include "platform/NtRecords.h"
#include "platform/NtReparse.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <sys/stat.h>

namespace fodr::ntposix {

namespace {

using namespace nt;

// Every POSIX file can have holes, so there is nothing to switch on or off.
NTSTATUS SetSparse(Control &control)
{
    if (!control.file.HasAccess(FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES))
        return STATUS_ACCESS_DENIED;
    return control.file.kind == FileKind::kFile ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// For file systems without holes. Doesn't lengthen the file.
int WriteZeros(int fd, int64_t offset, int64_t end)
{
    static constexpr uint8_t kZeros[64 * 1024] = {};
    while (offset < end) {
        const size_t part = static_cast<size_t>(std::min<int64_t>(end - offset, sizeof(kZeros)));
        const ssize_t done = pwrite(fd, kZeros, part, offset);
        if (done < 0)
            return errno;
        offset += done;
    }
    return 0;
}

NTSTATUS SetZeroData(Control &control)
{
    FILE_ZERO_DATA_INFORMATION range;
    if (!control.Read(&range) || range.FileOffset < 0 || range.BeyondFinalZero < range.FileOffset ||
        control.file.kind != FileKind::kFile)
        return STATUS_INVALID_PARAMETER;
    const int fd = control.file.fd.Get();
    FileMetadata facts;
    if (const int error = StatDescriptor(fd, &facts))
        return StatusOfErrno(error);
    const int64_t end = std::min(range.BeyondFinalZero, facts.endOfFile);
    if (range.FileOffset >= end)
        return STATUS_SUCCESS;
    const int64_t length = end - range.FileOffset;
    if (control.file.object->locks.ForbidsWrite(&control.file, 0, static_cast<uint64_t>(range.FileOffset),
                                                static_cast<uint64_t>(length)))
        return STATUS_FILE_LOCK_CONFLICT;
    int error = 0;
    if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.FileOffset, length) != 0)
        error = errno == EOPNOTSUPP ? WriteZeros(fd, range.FileOffset, end) : errno;
    return error ? StatusOfErrno(error) : STATUS_SUCCESS;
}

NTSTATUS QueryAllocatedRanges(Control &control)
{
    FILE_ALLOCATED_RANGE_BUFFER wanted;
    if (!control.Read(&wanted) || wanted.FileOffset < 0 || wanted.Length < 0 ||
        wanted.Length > INT64_MAX - wanted.FileOffset || control.file.kind != FileKind::kFile)
        return STATUS_INVALID_PARAMETER;
    const int fd = control.file.fd.Get();
    const int64_t end = wanted.FileOffset + wanted.Length;
    for (int64_t at = wanted.FileOffset; at < end;) {
        const int64_t data = lseek(fd, at, SEEK_DATA);
        if (data < 0 && errno != ENXIO)
            return StatusOfErrno(errno);
        if (data < 0 || data >= end) // only a hole, or nothing, follows
            break;
        const int64_t hole = lseek(fd, data, SEEK_HOLE);
        if (hole < 0) // cut short meanwhile
            break;
        at = std::min(hole, end);
        const FILE_ALLOCATED_RANGE_BUFFER found{data, at - data};
        if (control.output.size() - control.written < sizeof(found))
            return control.written ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
        (void)control.Write(&found, sizeof(found));
    }
    return STATUS_SUCCESS;
}

NTSTATUS GetCompression(Control &control)
{
    if (control.output.size() < sizeof(COMPRESSION_FORMAT_NONE))
        return STATUS_INVALID_PARAMETER;
    (void)control.Write(&COMPRESSION_FORMAT_NONE, sizeof(COMPRESSION_FORMAT_NONE));
    return STATUS_SUCCESS;
}

NTSTATUS SetCompression(Control &control)
{
    uint16_t format;
    if (!control.Read(&format))
        return STATUS_INVALID_PARAMETER;
    // What a volume without compression answers.
    return format == COMPRESSION_FORMAT_NONE ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST;
}

// What agents may count on here. The bits that hold for one share only are those of the handle's.
uint32_t FeaturesOf(const OpenFile &file)
{
    return FODR_HOST_FILE_IDS | FODR_HOST_POSIX_NAMES | FODR_HOST_NOTICES_FIRST | FODR_HOST_MODES |
           FODR_HOST_LX_FILES | FODR_HOST_EXCHANGE | FODR_HOST_RANGES | FODR_HOST_ADVISORY_LOCKS |
           (file.IsCaseSensitive() ? FODR_HOST_CASE_SENSITIVE : 0);
}

NTSTATUS QueryHost(Control &control)
{
    const FODR_HOST_INFORMATION host{.Version = FODR_HOST_VERSION,
                                     .Features = FeaturesOf(control.file.File())};
    if (control.output.size() < sizeof(host))
        return STATUS_BUFFER_TOO_SMALL;
    (void)control.Write(&host, sizeof(host));
    return STATUS_SUCCESS;
}

NTSTATUS SetModeOf(Control &control)
{
    FODR_MODE_CHANGE change;
    if (!control.Read(&change))
        return STATUS_INVALID_PARAMETER;
    if ((control.file.access & FILE_WRITE_ATTRIBUTES) == 0)
        return STATUS_ACCESS_DENIED;
    const int error = ChangeMode(control.file.fd.Get(), change);
    if (error == 0)
        return STATUS_SUCCESS;
    return error == EPERM ? STATUS_PRIVILEGE_NOT_HELD : StatusOfErrno(error);
}

NTSTATUS QueryLock(Control &control)
{
    FODR_LOCK asked;
    if (!control.Read(&asked) || control.file.kind != FileKind::kFile || !control.file.dataFd)
        return STATUS_INVALID_PARAMETER;
    if (control.output.size() < sizeof(asked))
        return STATUS_BUFFER_TOO_SMALL;
    const NTSTATUS status = AdvisoryLocks::Query(control.file.fd.Get(), &asked);
    if (!IsError(status))
        (void)control.Write(&asked, sizeof(asked));
    return status;
}

struct ControlRow {
    uint32_t code;
    NTSTATUS (*serve)(Control &control);
};

constexpr ControlRow kControls[] = {
    {FSCTL_GET_REPARSE_POINT, GetReparsePoint},
    {FSCTL_SET_REPARSE_POINT, SetReparsePoint},
    {FSCTL_SET_SPARSE, SetSparse},
    {FSCTL_SET_ZERO_DATA, SetZeroData},
    {FSCTL_QUERY_ALLOCATED_RANGES, QueryAllocatedRanges},
    {FSCTL_GET_COMPRESSION, GetCompression},
    {FSCTL_SET_COMPRESSION, SetCompression},
    {FSCTL_FODR_QUERY_HOST, QueryHost},
    {FSCTL_FODR_SET_MODE, SetModeOf},
    {FSCTL_FODR_ALLOCATE, AllocateRange},
    {FSCTL_FODR_COPY_RANGE, CopyRange},
    {FSCTL_FODR_QUERY_LOCK, QueryLock},
};

NTSTATUS Serve(uint32_t code, Control &control)
{
    const auto *row = std::ranges::find(kControls, code, &ControlRow::code);
    const bool isForFiles = code != FSCTL_FODR_QUERY_HOST;
    if (row == std::end(kControls) || (isForFiles && control.file.stream))
        return STATUS_INVALID_DEVICE_REQUEST;
    // Bits 14 and 15 of a code are the data rights that the handle must have.
    const uint32_t rights = (code >> 14) & (FILE_READ_DATA | FILE_WRITE_DATA);
    if ((control.file.access & rights) != rights)
        return STATUS_ACCESS_DENIED;
    return row->serve(control);
}

} // namespace

} // namespace fodr::ntposix

namespace fodr::nt {

NTSTATUS NtDeviceIoControlFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus,
                               uint32_t ioControlCode, const void *input, uint32_t inputLength, void *output,
                               uint32_t outputLength)
{
    const ntposix::OpenFileRef open = ntposix::HandleTable::Instance().Find(file);
    if (!open)
        return ntposix::Complete(ioStatus, STATUS_INVALID_HANDLE, 0);
    ntposix::Control control{.file = *open,
                             .input = {static_cast<const uint8_t *>(input), input ? inputLength : 0},
                             .output = {static_cast<uint8_t *>(output), output ? outputLength : 0}};
    const NTSTATUS status = ntposix::WithoutThrowing([&] { return ntposix::Serve(ioControlCode, control); });
    return ntposix::Complete(ioStatus, status, control.written);
}

} // namespace fodr::nt

namespace fodr::ntposix {

using namespace nt;

namespace {

// What a reparse record asks for. STATUS_NOT_SUPPORTED for other tags.
struct SpecialFile {
    mode_t type = 0;
    std::string target; // of a link
};

NTSTATUS ReadLxLink(std::span<const uint8_t> data, std::string *target)
{
    uint32_t version;
    if (data.size() <= sizeof(version) || data.size() - sizeof(version) >= PATH_MAX)
        return STATUS_INVALID_PARAMETER;
    memcpy(&version, data.data(), sizeof(version));
    target->assign(data.begin() + sizeof(version), data.end());
    const bool valid = version == LX_SYMLINK_VERSION && target->find('\0') == std::string::npos;
    return valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS ReadSpecialFile(const Control &control, SpecialFile *file)
{
    REPARSE_DATA_HEAD head;
    if (!control.Read(&head) || head.ReparseDataLength > control.input.size() - sizeof(head))
        return STATUS_INVALID_PARAMETER;
    const std::span<const uint8_t> data = control.input.subspan(sizeof(head), head.ReparseDataLength);
    switch (head.ReparseTag) {
    case IO_REPARSE_TAG_LX_SYMLINK:
        file->type = S_IFLNK;
        return ReadLxLink(data, &file->target);
    case IO_REPARSE_TAG_LX_FIFO:
        file->type = S_IFIFO;
        break;
    case IO_REPARSE_TAG_AF_UNIX:
        file->type = S_IFSOCK;
        break;
    default:
        return STATUS_NOT_SUPPORTED;
    }
    return data.empty() ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

int Make(Spot at, const SpecialFile &file, mode_t mode)
{
    if (file.type == S_IFLNK)
        return symlinkat(file.target.c_str(), at.directory, at.leaf.c_str()) == 0 ? 0 : errno;
    if (mknodat(at.directory, at.leaf.c_str(), file.type | mode, 0) != 0)
        return errno;
    // Others may have put a link there by now, which mustn't be followed.
    const Fd made(openat(at.directory, at.leaf.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return made ? WidenMode(made.Get(), mode) : errno;
}

} // namespace

NTSTATUS GetReparsePoint(Control &control)
{
    if (control.file.kind != FileKind::kLink)
        return STATUS_NOT_A_REPARSE_POINT;
    if (control.output.size() < sizeof(SYMBOLIC_LINK_REPARSE_DATA))
        return STATUS_BUFFER_TOO_SMALL;
    char target[PATH_MAX];
    const ssize_t length = readlinkat(control.file.fd.Get(), "", target, sizeof(target));
    if (length < 0)
        return StatusOfErrno(errno);
    const std::vector<uint8_t> record = SymbolicLinkRecord({target, static_cast<size_t>(length)});
    return control.Write(record.data(), record.size()) ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS SetReparsePoint(Control &control)
{
    if ((control.file.access & (FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES)) == 0)
        return STATUS_ACCESS_DENIED;
    SpecialFile wanted;
    NTSTATUS status = ReadSpecialFile(control, &wanted);
    Link link;
    if (status == STATUS_SUCCESS)
        status = FindLink(control.file, &link);
    if (status != STATUS_SUCCESS)
        return status;
    if (link.facts.kind != FileKind::kFile || link.facts.endOfFile != 0 || link.facts.links != 1)
        return STATUS_INVALID_PARAMETER;
    const std::string hidden = NewHiddenName();
    const Spot aside{link.directory.Get(), hidden};
    int error = Make(aside, wanted, link.facts.mode & 07777);
    if (error == 0)
        error = TakeName(aside, {link.directory.Get(), link.leaf}, link.facts);
    if (error == 0)
        return STATUS_SUCCESS;
    (void)unlinkat(aside.directory, hidden.c_str(), 0);
    return error == ESTALE ? STATUS_FILE_DELETED : StatusOfErrno(error);
}

} // namespace fodr::ntposix
