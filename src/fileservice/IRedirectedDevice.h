// One share as the agent sees it: a device that serves I/O requests. Any thread, except where said.
#pragma once

#include "runtime/RCObject.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

class RdpdrStream;

class IRedirectedDevice : public RCObject {
public:
    // Serves one request packet to its end on the calling thread: a change notification or a waiting lock
    // returns only when it is over. The cursor is at the start of the packet. True if a completion was
    // written.
    virtual bool OnIoRequest(RdpdrStream *packet) = 0;

    virtual const std::string &GetName() const = 0;         // cookie of the command that added the share
    virtual const std::string &GetFriendlyName() const = 0; // shown to the agent
    virtual const std::string &GetPath() const = 0;         // root in NT form
    virtual const std::string &GetSharePath() const = 0;    // root as the user gave it
    virtual uint16_t GetDeviceType() const = 0;             // drive letter, or a blank
    virtual bool IsAvailable() const = 0;
    virtual bool IsDriveLetterShare() const = 0;
    // An unavailable device answers every request with STATUS_DEVICE_REMOVED.
    virtual void SetAvailable(bool nowAvailable) = 0;
    virtual uint32_t GetDeviceId() const = 0;
    virtual void SetDeviceId(uint32_t id) = 0;

    // Makes the device unavailable and closes all of its files, ending what is blocked on them, without
    // completions for the closes.
    virtual void CloseAllFiles() = 0;
    // The same for good: no file is opened from now on, also by a create that is under way.
    virtual void Retire() = 0;
    // More file names for a share that shows only named files; nothing for other shares.
    virtual void UpdateAllowAccessFileList(const std::vector<std::string> &names) = 0;
};

} // namespace fodr
