// A named stream of a file or directory (MS-FSCC 2.1.5), kept as its extended attribute
// "user.DosStream.NAME:$DATA" with one zero byte at the end, as other file servers keep it. All other
// attributes of users, "user.NAME", are streams of that whole name, without the zero: so both sides have
// them.
//
// While it is open its bytes are in an anonymous file that all of its opens share, so that reading, sizes,
// locks and share modes are a file's. A change is stored before the call that makes it returns; until then
// others may read what is refused and taken back. What another program makes of the attribute meanwhile is
// seen when the stream is opened next and nobody has it open.
//
// `file` is always a descriptor of the file that the stream belongs to, O_PATH or not. Results are 0 or an
// errno. Any thread; the lock is held across the calls that read or store the attribute, so that what is
// stored is never older than what was stored before.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "ntposix/FileObject.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fodr::ntposix {

// What an attribute holds at most where a file system sets no limit of its own, without the zero.
inline constexpr int64_t kLongestStream = 65535;

struct StreamEntry {
    std::u16string name;
    int64_t size;
};

// All streams of the file. ENOTSUP where it can't have any.
[[nodiscard]] int ListStreams(int file, std::vector<StreamEntry> *streams);
// The attribute of the stream with that name, in another case unless it is to be exact; the one to make it
// with, and ENODATA, when there is none. EINVAL for what can't name a stream.
[[nodiscard]] int FindStream(int file, std::u16string_view name, bool exact, std::string *attribute);
// Attributes of streams and their values, as they were stored.
using RemovedStreams = std::vector<std::pair<std::string, std::string>>;
// All of them go, as they do when a file is overwritten: those that are open as by Remove. `file` isn't
// O_PATH. It is no error when they can't be listed. When one can't be removed the others are stored
// again, but those who had them open don't have them back; what can't be read isn't kept for that.
[[nodiscard]] int RemoveStreams(int file, FileKey key, RemovedStreams *removed);
// Stores again what RemoveStreams has removed, as well as it can be done.
void RestoreStreams(int file, const RemovedStreams &removed);
// Whether the file's file system keeps such attributes.
[[nodiscard]] bool HasStreams(int file);

// Whether this process may write to the file, which its streams ask for as well.
[[nodiscard]] bool MayWrite(int file);

class NamedStream {
public:
    NamedStream(FileKey fileKey, std::string attributeName)
        : key(fileKey), attribute(std::move(attributeName))
    {}
    // One that a program of the owner calls "user.NAME": its file being read-only isn't asked for, as it
    // isn't locally.
    bool IsAttribute() const;
    ~NamedStream();
    NamedStream(const NamedStream &) = delete;
    NamedStream &operator=(const NamedStream &) = delete;

    // The one object of the stream, made when nobody has it open or what is open was removed.
    [[nodiscard]] static std::shared_ptr<NamedStream> Acquire(FileKey file, const std::string &attribute);

    std::u16string Name() const;

    // Both give a descriptor of the bytes, for reading and writing. ESTALE when the stream was removed
    // meanwhile: there may be another by now.
    // ENODATA when there is no such stream.
    [[nodiscard]] int Load(int file, Fd *bytes) EXCLUDES(lock);
    // EEXIST when there is. What fails stores nothing.
    [[nodiscard]] int Make(int file, Fd *bytes) EXCLUDES(lock);
    // False once it was removed.
    [[nodiscard]] bool IsPresent() EXCLUDES(lock);

    // Runs `change`, which changes the bytes, and stores them. When either fails the bytes are again what is
    // stored. ESTALE once the stream was removed.
    [[nodiscard]] int Change(int file, const std::function<int()> &change) EXCLUDES(lock);
    // For good: who still has it open reads what there was. 0 also if it had gone already.
    [[nodiscard]] int Remove(int file) EXCLUDES(lock);

private:
    enum class State : uint8_t { kUnknown, kPresent, kGone };

    int LoadBytes(int file) REQUIRES(lock);
    int ClearContent() REQUIRES(lock);
    int Duplicate(Fd *bytes) REQUIRES(lock);
    int Store(int file, int flags) REQUIRES(lock);

    const FileKey key;
    const std::string attribute;
    Mutex lock;
    Fd content GUARDED_BY(lock);
    State state GUARDED_BY(lock) = State::kUnknown;
};

} // namespace fodr::ntposix
