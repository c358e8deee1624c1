// Reports changes of settings files. One thread reads inotify, as long as there are watchers.
#pragma once

#include "lib/misc/Fd.h"
#include "lib/misc/Mutex.h"
#include "platform/Registry.h"
#include "platform/linux/SettingsFile.h"

#include <pthread.h>

#include <map>
#include <memory>
#include <string>

namespace fodr::platform {

// Any thread. Nothing here calls anybody with a lock held but the handlers, which must not block.
class SettingsWatch {
public:
    struct Request {
        std::shared_ptr<SettingsFile> file;
        SettingsModel::Interest interest;
        RegistryChangeHandler handler;
        void *context;
    };

    static SettingsWatch &Get();

    // One call of the handler at the next change, or at once if there was one since the owner's last call.
    uint32_t Arm(const void *owner, const Request &request);
    // No call after this.
    void Remove(const void *owner);

private:
    struct Entry {
        Request request;
        std::shared_ptr<const SettingsModel> known; // what was reported last
        bool isArmed;
    };

    static void *ThreadEntry(void *argument);
    uint32_t Start() REQUIRES(startMutex);
    void Run();
    uint32_t WatchFolders();
    bool TakeEvents();
    void Compare();

    Mutex startMutex; // starts and stops of the thread; before `mutex`
    pthread_t thread GUARDED_BY(startMutex){};
    bool hasThread GUARDED_BY(startMutex) = false;
    Fd notifier; // inotify; changes only without the thread
    Fd waker;    // eventfd, likewise

    Mutex mutex;
    std::map<const void *, Entry> entries GUARDED_BY(mutex);
    bool isEnding GUARDED_BY(mutex) = false;
};

} // namespace fodr::platform
