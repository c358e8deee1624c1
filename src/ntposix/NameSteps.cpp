#include "ntposix/NameSteps.h"

#include "lib/misc/Fd.h"
#include "lib/unicode/NameMapping.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <random>
#include <sys/vfs.h>

namespace fodr::ntposix {

namespace {

// No two are the same, of no two processes.
std::string UniqueNumber()
{
    static const uint64_t ofProcess = [] {
        std::random_device device;
        return static_cast<uint64_t>(device()) << 32 | device();
    }();
    static std::atomic<uint64_t> last{0};
    char text[40];
    snprintf(text, sizeof(text), "%016" PRIx64 "%" PRIx64, ofProcess, ++last);
    return text;
}

int Unlink(Spot name, int flags = 0)
{
    return unlinkat(name.directory, name.leaf.c_str(), flags) == 0 ? 0 : errno;
}

int Look(Spot name, FileMetadata *facts)
{
    return StatAt(name.directory, name.leaf.c_str(), Links::kDontFollow, facts);
}

// What can't be renamed for nothing: a file of a lower layer is copied as a whole first.
bool IsCostlyToMove(int directory, const FileMetadata &file)
{
    constexpr int64_t kSmall = 1 << 20;
    constexpr int64_t kOverlay = 0x794C7630;
    struct statfs volume;
    return file.endOfFile > kSmall && fstatfs(directory, &volume) == 0 && volume.f_type == kOverlay;
}

// Where the file can't be moved aside, as on a full disk. A save between the two steps is lost.
int LookAndUnlink(Spot name, const FileMetadata &file)
{
    FileMetadata present;
    const int error = Look(name, &present);
    if (error != 0)
        return error;
    return present.key == file.key ? Unlink(name) : ESTALE;
}

void PutBack(Spot aside, Spot name)
{
    if (MoveToFreeName(aside, name) != EEXIST)
        return;
    constexpr size_t kLongest = 200; // of 255
    const std::string kept = name.leaf.substr(0, kLongest) + ".fodr-kept-" + UniqueNumber();
    (void)MoveOver(aside, {name.directory, kept});
}

// Tells it apart from EINVAL for a directory that would move into itself: a name can't be moved over itself.
bool CanRenameToFreeNames(Spot any)
{
    return renameat2(any.directory, any.leaf.c_str(), any.directory, any.leaf.c_str(), RENAME_NOREPLACE) ==
               0 ||
           (errno != EINVAL && errno != ENOSYS);
}

// The empty directory is replaced by the one that moves, unless others have put something into it.
int MoveDirectoryBySteps(Spot from, Spot to)
{
    if (mkdirat(to.directory, to.leaf.c_str(), 0700) != 0)
        return errno;
    const int error = MoveOver(from, to);
    if (error != 0)
        (void)Unlink(to, AT_REMOVEDIR);
    return error == ENOTEMPTY ? EEXIST : error;
}

int MoveOverEmptyFile(Spot from, Spot to)
{
    const Fd holder(openat(to.directory, to.leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!holder)
        return errno;
    FileMetadata held;
    FileMetadata present;
    int error = StatDescriptor(holder.Get(), &held);
    if (error == 0 && (Look(to, &present) != 0 || present.key != held.key || present.endOfFile != 0))
        return EEXIST; // it has become another's
    if (error == 0)
        error = MoveOver(from, to);
    if (error != 0)
        (void)RemoveName(to, held);
    return error;
}

int MoveFileBySteps(Spot from, Spot to, const FileMetadata &file)
{
    if (linkat(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str(), 0) != 0) {
        const bool noLinks = errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS || errno == EMLINK;
        return noLinks ? MoveOverEmptyFile(from, to) : errno;
    }
    int error = RemoveName(from, file);
    FileMetadata old;
    FileMetadata moved;
    // Another file was there already when the link was made.
    if (error == ESTALE && Look(from, &old) == 0 && Look(to, &moved) == 0 && old.key == moved.key)
        error = RemoveName(from, moved);
    if (error == 0 || error == ESTALE || error == ENOENT)
        return 0;
    (void)RemoveName(to, file);
    return error;
}

} // namespace

std::string NewHiddenName()
{
    return std::string(kHiddenPrefix) + UniqueNumber();
}

// Where names can't be exchanged, a save between the look and the step is lost.
int TakeName(Spot from, Spot name, const FileMetadata &file)
{
    const auto exchange = [&] {
        return renameat2(from.directory, from.leaf.c_str(), name.directory, name.leaf.c_str(),
                         RENAME_EXCHANGE);
    };
    FileMetadata present;
    if (exchange() != 0) {
        if (errno != EINVAL && errno != ENOSYS)
            return errno;
        const int error = Look(name, &present);
        if (error != 0)
            return error;
        return present.key == file.key ? MoveOver(from, name) : ESTALE;
    }
    int error = Look(from, &present);
    if (error == 0)
        error = present.key == file.key ? Unlink(from) : ESTALE;
    if (error != 0)
        (void)exchange();
    return error;
}

int RemoveName(Spot name, const FileMetadata &file)
{
    if (file.kind == FileKind::kDirectory)
        return Unlink(name, AT_REMOVEDIR);
    if (IsCostlyToMove(name.directory, file))
        return LookAndUnlink(name, file);
    const std::string hidden = NewHiddenName();
    const Spot aside{name.directory, hidden};
    if (const int error = MoveOver(name, aside); error != 0)
        return error == ENOENT ? error : LookAndUnlink(name, file);
    FileMetadata moved;
    int error = Look(aside, &moved);
    if (error == 0)
        error = moved.key == file.key ? Unlink(aside) : ESTALE;
    if (error != 0)
        PutBack(aside, name);
    return error;
}

int MoveToFreeName(Spot from, Spot to)
{
    if (renameat2(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    int error = errno;
    if ((error != EINVAL && error != ENOSYS) || CanRenameToFreeNames(from))
        return error;
    FileMetadata file;
    if (error = Look(from, &file); error != 0)
        return error;
    return file.kind == FileKind::kDirectory ? MoveDirectoryBySteps(from, to)
                                             : MoveFileBySteps(from, to, file);
}

int ChangeSpelling(Spot from, Spot to)
{
    const int error = MoveToFreeName(from, to);
    FileMetadata old;
    FileMetadata present;
    if (error != EEXIST || Look(from, &old) != 0 || Look(to, &present) != 0 || old.key != present.key)
        return error;
    // Both spellings are one name there, so that whatever has it now is what moves.
    if (present.links == 1)
        return MoveOver(from, to);
    // Or they are two links of the file.
    const std::string hidden = NewHiddenName();
    const Spot aside{from.directory, hidden};
    if (const int failed = MoveOver(from, aside); failed != 0)
        return failed;
    const int failed = MoveToFreeName(aside, to);
    if (failed != 0)
        PutBack(aside, from);
    return failed;
}

int MoveOver(Spot from, Spot to)
{
    return renameat(from.directory, from.leaf.c_str(), to.directory, to.leaf.c_str()) == 0 ? 0 : errno;
}

} // namespace fodr::ntposix
