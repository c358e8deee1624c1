// One share as the agent sees it, and what answers ahead of its requests. Any thread, except where said.
#pragma once

#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

class IFileSystem;
class RdpdrStream;

// One share as the agent sees it: a device that serves I/O requests. Any thread, except where said.
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

// Answers ahead of time what the agent is known to ask next: the completions of some requests carry a block
// of query results. Any thread.
class IPreReader {
public:
    static constexpr int32_t kNoPattern = -1;

    // The rule for this request, or kNoPattern.
    virtual int32_t GetPattern(const DR_DEVICE_IOREQUEST &request) const = 0;
    // The completion with its block, or a plain one when no query gave a result. `*payload` receives the
    // address of the DeviceId field. Null when there is no memory: nothing is sent then.
    virtual RdpdrStreamPtr BuildPreReadIoCompletion(int32_t pattern, uint32_t deviceId, uint32_t fileId,
                                                    IFileSystem *fileSystem, uint32_t completionId,
                                                    int32_t ioStatus, uint8_t **payload) const = 0;

protected:
    ~IPreReader() = default;
};

} // namespace fodr
