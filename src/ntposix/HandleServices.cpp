#include "ntposix/HandleServices.h"

#include "ntposix/ChangeSubscription.h"
#include "ntposix/DirectoryScan.h"

namespace fodr::ntposix {

HandleServices::HandleServices() = default;
HandleServices::~HandleServices() = default;

void HandleServices::Close()
{
    blockedCalls.Close();
    std::unique_ptr<ChangeSubscription> ended; // taken out under the lock, ended outside
    {
        const MutexLock guard(changesLock);
        ended = std::move(changes);
    }
}

} // namespace fodr::ntposix
