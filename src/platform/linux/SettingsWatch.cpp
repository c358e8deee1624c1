#include "platform/linux/SettingsWatch.h"

#include "lib/misc/Mutex.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/SystemError.h"
#include "platform/linux/LibraryThreads.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>

namespace fodr::platform {

namespace {

// A file that is being written isn't read before it is closed.
constexpr uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE |
                             IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// The folder itself, or the nearest one above it that exists.
std::filesystem::path NearestFolder(std::filesystem::path folder)
{
    std::error_code error;
    while (!std::filesystem::is_directory(folder, error) && folder.has_relative_path())
        folder = folder.parent_path();
    return folder;
}

} // namespace

SettingsWatch &SettingsWatch::Get()
{
    static auto *watch = new SettingsWatch; // for keys that outlive the destructors of the process
    return *watch;
}

uint32_t SettingsWatch::Arm(const void *owner, const Request &request)
{
    const MutexLock starting(startMutex);
    const uint32_t outcome = hasThread ? kErrorSuccess : Start();
    if (outcome != kErrorSuccess)
        return outcome;
    const std::shared_ptr<const SettingsModel> current = request.file->ReadQuietly();
    {
        const MutexLock guard(mutex);
        const auto [place, isNew] = entries.try_emplace(owner, Entry{request, current, true});
        place->second.request = request;
        place->second.isArmed = true;
    }
    // A change between the reading and the watching, or since the last call, is found by the thread.
    const uint32_t watched = WatchFolders();
    eventfd_write(waker.Get(), 1);
    return watched;
}

void SettingsWatch::Remove(const void *owner)
{
    const MutexLock starting(startMutex);
    {
        const MutexLock guard(mutex);
        entries.erase(owner);
        if (!entries.empty() || !hasThread)
            return;
        isEnding = true;
    }
    eventfd_write(waker.Get(), 1);
    pthread_join(thread, nullptr);
    hasThread = false;
    notifier.Reset();
    waker.Reset();
}

uint32_t SettingsWatch::Start()
{
    {
        const MutexLock guard(mutex);
        isEnding = false;
    }
    notifier.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    waker.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const bool isReady = notifier && waker;
    const uint32_t outcome = isReady ? kErrorNotEnoughMemory : LastSystemError();
    hasThread = isReady && StartSmallThread(&thread, ThreadEntry, this);
    if (hasThread)
        return kErrorSuccess;
    notifier.Reset();
    waker.Reset();
    return outcome;
}

void *SettingsWatch::ThreadEntry(void *argument)
{
    pthread_setname_np(pthread_self(), "fodr-settings");
    static_cast<SettingsWatch *>(argument)->Run();
    return nullptr;
}

void SettingsWatch::Run()
{
    pollfd sources[2] = {{waker.Get(), POLLIN, 0}, {notifier.Get(), POLLIN, 0}};
    for (;;) {
        if (poll(sources, 2, -1) < 0 && errno != EINTR)
            return;
        eventfd_t ignored = 0;
        const bool wasWoken = eventfd_read(waker.Get(), &ignored) == 0;
        {
            const MutexLock guard(mutex);
            if (isEnding)
                return;
        }
        if (!TakeEvents() && !wasWoken)
            continue;
        WatchFolders(); // which may have come meanwhile
        Compare();
    }
}

// What happened doesn't matter, the files tell.
bool SettingsWatch::TakeEvents()
{
    alignas(inotify_event) char buffer[4096];
    bool wereThere = false;
    while (read(notifier.Get(), buffer, sizeof(buffer)) > 0)
        wereThere = true;
    return wereThere;
}

// Watches for every file its folder and the folder of what it links to. Watching a folder again does no harm.
uint32_t SettingsWatch::WatchFolders()
{
    const MutexLock guard(mutex);
    uint32_t outcome = kErrorSuccess;
    for (const auto &[owner, entry] : entries) {
        const std::filesystem::path path = entry.request.file->Path();
        std::error_code error;
        const std::filesystem::path target = std::filesystem::weakly_canonical(path, error);
        for (const std::filesystem::path &file : {path, error ? path : target}) {
            std::filesystem::path folder;
            do { // again if one came to be below it meanwhile
                folder = NearestFolder(file.parent_path());
                if (inotify_add_watch(notifier.Get(), folder.c_str(), kEvents) < 0 && errno != ENOENT)
                    outcome = LastSystemError();
            } while (outcome == kErrorSuccess && NearestFolder(file.parent_path()) != folder);
        }
    }
    return outcome;
}

void SettingsWatch::Compare()
{
    std::map<std::shared_ptr<SettingsFile>, std::shared_ptr<const SettingsModel>> now;
    {
        const MutexLock guard(mutex);
        for (const auto &[owner, entry] : entries)
            now.try_emplace(entry.request.file);
    }
    for (auto &[file, model] : now)
        model = file->ReadQuietly();
    const MutexLock guard(mutex);
    for (auto &[owner, entry] : entries) {
        const auto model = now.find(entry.request.file);
        if (!entry.isArmed || model == now.end() ||
            !SettingsModel::Differ(*entry.known, *model->second, entry.request.interest))
            continue;
        entry.isArmed = false;
        entry.known = model->second;
        entry.request.handler(entry.request.context);
    }
}

} // namespace fodr::platform
