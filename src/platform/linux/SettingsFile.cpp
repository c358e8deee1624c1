#include "platform/linux/SettingsFile.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/misc/Fd.h"
#include "platform/SystemError.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <glibmm/error.h>
#include <glibmm/keyfile.h>
#include <sys/file.h>

namespace fodr::platform {

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
std::mutex &KeyFileLock()
{
    static std::mutex mutex;
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

// Under `mutex`.
void SettingsFile::Refresh()
{
    const Stamp now = TakeStamp();
    if (model && stamp.IsStillThatOf(now))
        return;
    std::lock_guard<std::mutex> parsing(KeyFileLock());
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
    std::lock_guard<std::mutex> guard(mutex);
    Refresh();
    return model;
}

std::shared_ptr<const SettingsModel> SettingsFile::Read()
{
    std::unique_lock<std::mutex> guard(mutex);
    Refresh();
    std::shared_ptr<const SettingsModel> current = model;
    if (!isComplaintPending)
        return current;
    isComplaintPending = false;
    const std::string text = complaint;
    guard.unlock();
    // Without the lock: a log reads its settings from here.
    if (!ReportSettingsComplaint(text)) {
        guard.lock();
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
    std::lock_guard<std::mutex> parsing(KeyFileLock());
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
