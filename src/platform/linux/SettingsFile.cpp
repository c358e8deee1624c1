#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/SettingsFile.h"

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <glibmm/error.h>
#include <glibmm/fileutils.h>
#include <glibmm/init.h>
#include <glibmm/keyfile.h>
#include <sys/file.h>

namespace fodr::platform {

namespace {

// The library's exceptions need it.
void InitGlibOnce()
{
    static const bool done = [] {
        Glib::init();
        return true;
    }();
    static_cast<void>(done);
}

} // namespace

std::optional<std::u16string> FoldSettingsName(std::string_view name)
{
    std::u16string wide;
    if (!Utf8ToUtf16(name, wide))
        return std::nullopt;
    return FoldText(wide);
}

bool IsSettingsPath(std::string_view path)
{
    return !path.empty() && path.front() != '\\' && path.back() != '\\' &&
           path.find("\\\\") == std::string_view::npos;
}

bool LoadKeyFile(const std::string &path, Glib::KeyFile &file, std::string &complaint)
{
    InitGlibOnce();
    try {
        file.load_from_file(path, Glib::KEY_FILE_KEEP_COMMENTS);
        return true;
    } catch (const Glib::FileError &error) {
        if (error.code() == Glib::FileError::NO_SUCH_ENTITY)
            return true;
        complaint = "Settings file " + path + " can't be read and counts as empty: " + error.what().raw();
    } catch (const Glib::Error &error) {
        complaint = "Settings file " + path + " is malformed and counts as empty: " + error.what().raw();
    }
    return false;
}

SettingsModel SettingsModel::FromFile(const Glib::KeyFile &file, std::string &complaint)
{
    SettingsModel model;
    model.keys[u""];         // the root is always there,
    model.keys[u"software"]; // and what all settings are below, as in a registry
    for (const Glib::ustring &group : file.get_groups()) {
        const std::optional<std::u16string> path = FoldSettingsName(group.raw());
        if (!path || !IsSettingsPath(group.raw())) {
            complaint = "[" + group.raw() + "] is no key path and is left out";
            continue;
        }
        for (size_t end = path->find(u'\\'); end != std::u16string::npos; end = path->find(u'\\', end + 1))
            model.keys[path->substr(0, end)];
        Values &values = model.keys[*path];
        for (const Glib::ustring &key : file.get_keys(group)) {
            const std::optional<std::u16string> name = FoldSettingsName(key.raw());
            if (!name)
                continue;
            SettingsValue value;
            const bool good = SettingsValue::Read(file, group, key, value);
            if (!good)
                complaint =
                    "\"" + key.raw() + "\" in [" + group.raw() + "] isn't well-formed and can't be used";
            values[*name] = good ? std::optional(value) : std::nullopt;
        }
    }
    return model;
}

const SettingsModel::Values *SettingsModel::FindKey(const std::u16string &path) const
{
    const auto found = keys.find(path);
    return found == keys.end() ? nullptr : &found->second;
}

bool SettingsModel::HasKeysBelow(const std::u16string &path) const
{
    const std::u16string prefix = path.empty() ? path : path + u'\\';
    const auto next = keys.upper_bound(prefix);
    return next != keys.end() && next->first.starts_with(prefix);
}

// The keys of interest, with their values as far as those are.
std::map<std::u16string, SettingsModel::Values> SettingsModel::Part(const Interest &interest) const
{
    std::map<std::u16string, Values> part;
    const Values *own = FindKey(interest.path);
    if (own)
        part[interest.path] = interest.values ? *own : Values();
    const std::u16string prefix = interest.path.empty() ? interest.path : interest.path + u'\\';
    for (auto next = keys.upper_bound(prefix); next != keys.end() && next->first.starts_with(prefix);
         ++next) {
        if (interest.subtree)
            part[next->first] = interest.values ? next->second : Values();
        else if (interest.names && next->first.find(u'\\', prefix.size()) == std::u16string::npos)
            part[next->first];
    }
    return part;
}

bool SettingsModel::Differ(const SettingsModel &before, const SettingsModel &after, const Interest &interest)
{
    return &before != &after &&
           (before.isReadable != after.isReadable || before.Part(interest) != after.Part(interest));
}

namespace {

constexpr int64_t kNanoseconds = 1000000000;
// Longer than any clock tick that file systems stamp with.
constexpr int64_t kSettlingTime = kNanoseconds / 20;

int64_t Nanoseconds(const timespec &time)
{
    return time.tv_sec * kNanoseconds + time.tv_nsec;
}

// One thread at a time parses or prints: nothing here is in a hurry, and ThreadSanitizer doesn't know the
// locks inside the library. Comes after a file's own lock.
Mutex &KeyFileLock()
{
    static Mutex mutex;
    return mutex;
}

bool WriteAll(int file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            return false;
        done += written > 0 ? static_cast<size_t>(written) : 0;
    }
    return true;
}

} // namespace

bool SettingsFile::Stamp::IsStillThatOf(const Stamp &now) const
{
    if (!exists || !now.exists)
        return exists == now.exists;
    return isSettled && facts.st_dev == now.facts.st_dev && facts.st_ino == now.facts.st_ino &&
           facts.st_size == now.facts.st_size &&
           Nanoseconds(facts.st_mtim) == Nanoseconds(now.facts.st_mtim) &&
           Nanoseconds(facts.st_ctim) == Nanoseconds(now.facts.st_ctim);
}

SettingsFile::Stamp SettingsFile::TakeStamp() const
{
    Stamp taken;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    taken.exists = stat(path.c_str(), &taken.facts) == 0;
    taken.isSettled = Nanoseconds(now) - Nanoseconds(taken.facts.st_ctim) > kSettlingTime;
    return taken;
}

void SettingsFile::Refresh()
{
    const Stamp now = TakeStamp();
    if (model && stamp.IsStillThatOf(now))
        return;
    const MutexLock parsing(KeyFileLock());
    Glib::KeyFile file;
    const Glib::KeyFile empty;
    std::string found;
    const bool loaded = LoadKeyFile(path, file, found);
    auto parsed = std::make_shared<SettingsModel>(SettingsModel::FromFile(loaded ? file : empty, found));
    parsed->isReadable = loaded;
    model = parsed;
    stamp = now;
    isComplaintPending = !found.empty() && (isComplaintPending || found != complaint);
    complaint = found;
}

std::shared_ptr<const SettingsModel> SettingsFile::ReadQuietly()
{
    const MutexLock guard(mutex);
    Refresh();
    return model;
}

std::shared_ptr<const SettingsModel> SettingsFile::Read()
{
    std::shared_ptr<const SettingsModel> current;
    std::string text;
    {
        const MutexLock guard(mutex);
        Refresh();
        current = model;
        if (!isComplaintPending)
            return current;
        isComplaintPending = false;
        text = complaint;
    }
    // Without the lock: a log reads its settings from here.
    if (!ReportSettingsComplaint(text)) {
        const MutexLock guard(mutex);
        isComplaintPending = true;
    }
    return current;
}

uint32_t SettingsFile::Edit(const Change &change)
{
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    const Fd lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock)
        return LastSystemError();
    while (flock(lock.Get(), LOCK_EX) != 0) {
        if (errno != EINTR)
            return LastSystemError();
    }
    std::optional<std::string> text;
    const uint32_t outcome = ChangeText(change, text);
    if (outcome == kErrorInvalidData)
        Read(); // which says what is wrong
    return outcome == kErrorSuccess && text ? Replace(*text) : outcome;
}

// No text: nothing changed.
uint32_t SettingsFile::ChangeText(const Change &change, std::optional<std::string> &text) const
{
    const MutexLock parsing(KeyFileLock());
    try {
        Glib::KeyFile file;
        std::string found;
        if (!LoadKeyFile(path, file, found))
            return kErrorInvalidData;
        const std::string before = file.to_data().raw();
        const uint32_t outcome = change(file);
        if (const std::string after = file.to_data().raw(); after != before)
            text = after;
        return outcome;
    } catch (const Glib::Error &) {
        return kErrorInvalidParameter; // a name that the file has no form for
    }
}

uint32_t SettingsFile::Replace(const std::string &text)
{
    // A link to the file stays a link: what it leads to is replaced.
    std::error_code error;
    std::string target = std::filesystem::canonical(path, error).string();
    if (error)
        target = path;
    struct stat old {};
    const mode_t mode = stat(target.c_str(), &old) == 0 ? old.st_mode & 0777 : 0644;

    std::string temporary = target + ".XXXXXX";
    const Fd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return LastSystemError();
    if (fchmod(file.Get(), mode) == 0 && WriteAll(file.Get(), text) && fsync(file.Get()) == 0 &&
        rename(temporary.c_str(), target.c_str()) == 0)
        return kErrorSuccess;
    const uint32_t outcome = LastSystemError();
    unlink(temporary.c_str());
    return outcome;
}

} // namespace fodr::platform
