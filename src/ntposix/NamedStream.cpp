#include "ntposix/NamedStream.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/NameMapping.h"
#include "ntposix/FileRanges.h"
#include "ntposix/Lookup.h"

#include <fcntl.h>

#include <cerrno>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utility>

namespace fodr::ntposix {

namespace {

constexpr std::string_view kPrefix = "user.DosStream.";
constexpr std::string_view kSuffix = ":$DATA";
constexpr std::string_view kOwnPrefix = "user."; // of attributes that are streams of the same name

struct Streams {
    Mutex lock;
    std::map<std::pair<std::pair<dev_t, ino_t>, std::string>, std::weak_ptr<NamedStream>>
        open GUARDED_BY(lock);
};

Streams &OpenStreams()
{
    static Streams streams;
    return streams;
}

// The attribute calls take no O_PATH descriptor, so all of them are given its path.
int ErrorOf(ssize_t result)
{
    if (result >= 0)
        return 0;
    if (errno == E2BIG) // more than any attribute may hold
        return ENOSPC;
    return errno == ERANGE ? ENAMETOOLONG : errno;
}

// Asks for the length first; what grows in between is asked for again, though not forever.
template <typename Call> int ReadWhole(std::string *value, Call call)
{
    for (int attempt = 0; attempt < 16; ++attempt) {
        const ssize_t length = call(nullptr, 0);
        if (length < 0)
            return ErrorOf(length);
        value->resize(static_cast<size_t>(length));
        const ssize_t got = length == 0 ? 0 : call(value->data(), value->size());
        if (got < 0 && errno == ERANGE)
            continue;
        value->resize(got < 0 ? 0 : static_cast<size_t>(got));
        return ErrorOf(got);
    }
    return EIO;
}

// Whether the attribute holds a stream by the longer name, which ignores case where others do. One that would
// have a name of the other kind doesn't.
bool HoldsStream(std::string_view attribute)
{
    return attribute.starts_with(kPrefix) && attribute.ends_with(kSuffix) &&
           attribute.size() > kPrefix.size() + kSuffix.size() &&
           !attribute.substr(kPrefix.size()).starts_with(kOwnPrefix);
}

bool NameOfAttribute(std::string_view attribute, std::u16string *name)
{
    if (HoldsStream(attribute)) {
        attribute.remove_prefix(kPrefix.size());
        attribute.remove_suffix(kSuffix.size());
    } else if (!attribute.starts_with(kOwnPrefix) || attribute.size() == kOwnPrefix.size()) {
        return false;
    }
    *name = NtNameFromPosix(attribute);
    return true;
}

// Calls `visit` with name and attribute of each stream until it gives true.
template <typename Visit> int VisitStreams(const std::string &path, Visit visit)
{
    std::string list;
    const int error =
        ReadWhole(&list, [&](char *buffer, size_t size) { return listxattr(path.c_str(), buffer, size); });
    if (error != 0)
        return error;
    for (size_t begin = 0; begin < list.size();) {
        const std::string attribute = list.c_str() + begin;
        begin += attribute.size() + 1;
        std::u16string name;
        if (NameOfAttribute(attribute, &name) && visit(name, attribute))
            break;
    }
    return 0;
}

// What was stored by hand may lack the zero at the end.
int ReadAttribute(const std::string &path, const std::string &attribute, std::string *bytes)
{
    const int error = ReadWhole(bytes, [&](char *buffer, size_t size) {
        return getxattr(path.c_str(), attribute.c_str(), buffer, size);
    });
    if (error == 0 && HoldsStream(attribute) && bytes->ends_with('\0'))
        bytes->pop_back();
    return error;
}

int WriteBytes(int fd, const std::string &bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (count < 0 && errno != EINTR)
            return errno;
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

int ReadBytes(int fd, std::string *bytes)
{
    struct stat stat;
    if (fstat(fd, &stat) != 0)
        return errno;
    if (stat.st_size > kLongestStream)
        return ENOSPC;
    bytes->resize(static_cast<size_t>(stat.st_size));
    for (size_t done = 0; done < bytes->size();) {
        const ssize_t count = pread(fd, bytes->data() + done, bytes->size() - done, static_cast<off_t>(done));
        if (count == 0)
            return EIO;
        if (count < 0 && errno != EINTR)
            return errno;
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

} // namespace

int ListStreams(int file, std::vector<StreamEntry> *streams)
{
    const std::string path = DescriptorPath(file);
    return VisitStreams(path, [&](const std::u16string &name, const std::string &attribute) {
        std::string bytes;
        if (ReadAttribute(path, attribute, &bytes) == 0) // else it has just gone
            streams->push_back({name, static_cast<int64_t>(bytes.size())});
        return false;
    });
}

int FindStream(int file, std::u16string_view name, bool exact, std::string *attribute)
{
    std::string posixName;
    if (name.empty() || !PosixNameFromNt(name, posixName))
        return EINVAL;
    std::string found;
    const auto compare = [&](const std::u16string &present, const std::string &itsAttribute) {
        const bool same = present == name;
        const bool folds = !exact && HoldsStream(itsAttribute);
        if (same || (folds && found.empty() && EqualsFolded(present, name)))
            found = itsAttribute;
        return same;
    };
    *attribute = posixName.starts_with(kOwnPrefix) ? posixName
                                                   : std::string(kPrefix) + posixName + std::string(kSuffix);
    if (const int error = VisitStreams(DescriptorPath(file), compare); error != 0)
        return error;
    if (found.empty())
        return ENODATA;
    *attribute = found;
    return 0;
}

bool NamedStream::IsAttribute() const
{
    return !attribute.starts_with(kPrefix);
}

int RemoveStreams(int file, FileKey key, RemovedStreams *removed)
{
    // Where a list can't be had, there are none to tell of.
    if (flistxattr(file, nullptr, 0) <= 0)
        return 0;
    int error = 0;
    const auto remove = [&](const std::u16string &, const std::string &attribute) {
        std::string value;
        error = ReadWhole(&value, [&](char *buffer, size_t size) {
            return fgetxattr(file, attribute.c_str(), buffer, size);
        });
        const bool known = error == 0;
        if (error == 0 || error == EACCES) // a file may be written to and not read
            error = NamedStream::Acquire(key, attribute)->Remove(file);
        else if (error == ENODATA) // it has just gone
            error = 0;
        if (known && error == 0)
            removed->emplace_back(attribute, std::move(value));
        return error != 0;
    };
    (void)VisitStreams(DescriptorPath(file), remove);
    if (error != 0)
        RestoreStreams(file, *removed);
    return error;
}

void RestoreStreams(int file, const RemovedStreams &removed)
{
    for (const auto &[attribute, value] : removed)
        fsetxattr(file, attribute.c_str(), value.data(), value.size(), XATTR_CREATE);
}

bool HasStreams(int file)
{
    const std::string name = std::string(kPrefix) + "x" + std::string(kSuffix);
    return getxattr(DescriptorPath(file).c_str(), name.c_str(), nullptr, 0) >= 0 || errno == ENODATA;
}

bool MayWrite(int file)
{
    return faccessat(AT_FDCWD, DescriptorPath(file).c_str(), W_OK, AT_EACCESS) == 0;
}

std::shared_ptr<NamedStream> NamedStream::Acquire(FileKey file, const std::string &attribute)
{
    Streams &streams = OpenStreams();
    const MutexLock guard(streams.lock);
    std::weak_ptr<NamedStream> &entry = streams.open[{{file.device, file.inode}, attribute}];
    std::shared_ptr<NamedStream> stream = entry.lock();
    if (!stream) {
        stream = std::make_shared<NamedStream>(file, attribute);
        entry = stream;
    }
    return stream;
}

NamedStream::~NamedStream()
{
    Streams &streams = OpenStreams();
    const MutexLock guard(streams.lock);
    const auto entry = streams.open.find({{key.device, key.inode}, attribute});
    if (entry != streams.open.end() && entry->second.expired()) // not a successor's
        streams.open.erase(entry);
}

std::u16string NamedStream::Name() const
{
    std::u16string name;
    NameOfAttribute(attribute, &name);
    return name;
}

int NamedStream::Load(int file, Fd *bytes)
{
    const MutexLock guard(lock);
    if (state == State::kGone)
        return ESTALE;
    if (state == State::kUnknown) {
        if (const int error = LoadBytes(file); error != 0)
            return error;
        state = State::kPresent;
    }
    return Duplicate(bytes);
}

int NamedStream::LoadBytes(int file)
{
    std::string bytes;
    int error = ReadAttribute(DescriptorPath(file), attribute, &bytes);
    if (error == 0)
        error = ClearContent();
    return error == 0 ? WriteBytes(content.Get(), bytes) : error;
}

// The descriptor comes first: a stream that is stored is one that could be opened.
int NamedStream::Make(int file, Fd *bytes)
{
    const MutexLock guard(lock);
    if (state != State::kUnknown)
        return state == State::kPresent ? EEXIST : ESTALE;
    int error = ClearContent();
    if (error == 0)
        error = Duplicate(bytes);
    if (error == 0)
        error = Store(file, XATTR_CREATE);
    if (error == 0)
        state = State::kPresent;
    return error;
}

int NamedStream::ClearContent()
{
    if (!content)
        content.Reset(memfd_create("stream", MFD_CLOEXEC));
    return content ? SetEndOfFile(content.Get(), 0) : errno;
}

int NamedStream::Duplicate(Fd *bytes)
{
    bytes->Reset(fcntl(content.Get(), F_DUPFD_CLOEXEC, 0));
    return *bytes ? 0 : errno;
}

bool NamedStream::IsPresent()
{
    const MutexLock guard(lock);
    return state == State::kPresent;
}

int NamedStream::Change(int file, const std::function<int()> &change)
{
    const MutexLock guard(lock);
    if (state != State::kPresent)
        return ESTALE;
    int error = change();
    if (error == 0)
        error = Store(file, 0);
    // Who has it open goes on with what is stored, if that can be read.
    if (error != 0)
        LoadBytes(file);
    return error;
}

int NamedStream::Store(int file, int flags)
{
    std::string bytes;
    if (const int error = ReadBytes(content.Get(), &bytes); error != 0)
        return error;
    if (HoldsStream(attribute))
        bytes.push_back('\0');
    return ErrorOf(
        setxattr(DescriptorPath(file).c_str(), attribute.c_str(), bytes.data(), bytes.size(), flags));
}

// The successor must not find the attribute, so it can be made only when that has gone.
int NamedStream::Remove(int file)
{
    const MutexLock guard(lock);
    if (state == State::kGone)
        return 0;
    state = State::kGone;
    const int error = ErrorOf(removexattr(DescriptorPath(file).c_str(), attribute.c_str()));
    Streams &streams = OpenStreams();
    const MutexLock listGuard(streams.lock);
    streams.open.erase({{key.device, key.inode}, attribute});
    return error == ENODATA ? 0 : error;
}

} // namespace fodr::ntposix
