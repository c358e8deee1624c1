// What listing, change notification and waiting calls keep for one open handle. Any thread.
//
// OpenFile holds one. NtClose calls Close first of all: before the locks of the handle fall
// (LockTable::ReleaseAll, of the FileObject) and before its descriptor is closed.
#pragma once

#include "lib/misc/Mutex.h"
#include "ntposix/BlockedCall.h"

#include <memory>

namespace fodr::ntposix {

class ChangeSubscription;
class DirectoryScan;

class HandleServices {
public:
    HandleServices();
    ~HandleServices();
    HandleServices(const HandleServices &) = delete;
    HandleServices &operator=(const HandleServices &) = delete;

    // Ends the waiting calls of the handle and its change notification. Once is enough.
    void Close();

    BlockedCalls blockedCalls;

    Mutex scanLock;                                           // held for one listing call
    std::unique_ptr<DirectoryScan> scan GUARDED_BY(scanLock); // from the first listing on

    Mutex changesLock; // held while the first notification call is set up
    std::unique_ptr<ChangeSubscription> changes GUARDED_BY(changesLock); // from the first notification on
};

} // namespace fodr::ntposix
