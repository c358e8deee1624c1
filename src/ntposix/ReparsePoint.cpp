#include "ntposix/Control.h"
#include "ntposix/ErrnoStatus.h"
#include "ntposix/Link.h"
#include "ntposix/Mode.h"
#include "ntposix/NameSteps.h"
#include "platform/NtRecords.h"
#include "platform/NtReparse.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>

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
