// Counts the requests in flight on one open file, so that its close can wait for them. Any thread.
#pragma once

#include "fileservice/IFileSystem.h"
#include "fileservice/IRedirectedDevice.h"
#include "lib/misc/ByteBuffer.h"
#include "lib/misc/Mutex.h"
#include "platform/Nt.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/OVEvent.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace fodr {

class FodrLogger;
class IDeviceFilter;
class IPreReader;
class IRdpdrChannel;

class RdpFileHandle : public RCObject {
public:
    explicit RdpFileHandle(bool ofRoot) : isRoot(ofRoot), idleEvent(true, true) {}

    const bool isRoot; // opened as the share's root

    void BeginIo();
    void EndIo();

    // A request that BeginIo has counted, to its end.
    class InFlight {
    public:
        explicit InFlight(RdpFileHandle &ofHandle) : handle(ofHandle) {}
        ~InFlight() { handle.EndIo(); }
        InFlight(const InFlight &) = delete;
        InFlight &operator=(const InFlight &) = delete;

    private:
        RdpFileHandle &handle;
    };

    // Read without the lock: a request that begins or ends at this very moment may be missed.
    bool IsBusy() const { return pendingIo.load(std::memory_order_acquire) != 0; }
    // True when no request is in flight, false when the time ran out first.
    bool WaitIdle(uint32_t timeoutMS);

private:
    OVMutex lock;                      // orders changes of pendingIo and idleEvent
    OVEvent idleEvent;                 // signalled exactly while pendingIo is 0
    std::atomic<int32_t> pendingIo{0}; // written under lock
};

// A shared folder: reads each I/O request, carries it out on the file system and writes one completion.
//
// Any number of threads may be inside OnIoRequest at once, for one file too; nothing is serialised and no
// lock is held across a file call. Every reply goes out through one of the three operations under "replies".
// What the creator of a device decides. Pointers outlive the device.
struct RedirectedDeviceSettings {
    IRdpdrChannel *channel = nullptr;
    FodrLogger *packetTrace = nullptr; // may be null
    uint32_t deviceId = 0;
    uint16_t deviceType = u' ';
    std::string path; // root in NT form; request paths are appended to it as they come
    std::string sharePath;
    std::string name;
    std::string friendlyName;
    bool available = true;
    bool driveLetterShare = false;
    bool multiEntryDirectoryQuery = false;
    bool readOnly = false;
    bool preReadEnabled = false;
    IDeviceFilter *filterPolicy = nullptr; // null: opens are not filtered
    const IPreReader *preReader = nullptr; // null: no pre-read, whatever preReadEnabled says
};

class RedirectedDevice : public IRedirectedDevice {
public:
    RedirectedDevice(std::unique_ptr<IFileSystem> files, RedirectedDeviceSettings settings);
    ~RedirectedDevice() override;

    bool OnIoRequest(RdpdrStream *packet) override;
    const std::string &GetName() const override { return name; }
    const std::string &GetFriendlyName() const override { return friendlyName; }
    const std::string &GetPath() const override { return path; }
    const std::string &GetSharePath() const override { return sharePath; }
    uint16_t GetDeviceType() const override { return deviceType; }
    bool IsAvailable() const override { return available.load(std::memory_order_relaxed); }
    bool IsDriveLetterShare() const override { return driveLetterShare; }
    void SetAvailable(bool nowAvailable) override
    {
        available.store(nowAvailable, std::memory_order_relaxed);
    }
    uint32_t GetDeviceId() const override { return deviceId.load(std::memory_order_relaxed); }
    void SetDeviceId(uint32_t id) override { deviceId.store(id, std::memory_order_relaxed); }
    void CloseAllFiles() override EXCLUDES(filesLock);
    void Retire() override EXCLUDES(filesLock);
    void UpdateAllowAccessFileList(const std::vector<std::string> &) override {}

    // Whether the file or folder may be opened at all; the path is absolute, in NT form.
    virtual bool CheckCreateDriveAccess(const std::string &absolutePath);
    // The listing of an open directory. `fullPath` is the path of the request and `pattern` its last
    // component; both are zero-terminated, and null when the request names none. `*outBuffer` is the caller's
    // to free.
    virtual nt::NTSTATUS QueryDirectory(const DR_DEVICE_IOREQUEST &request, const char16_t *fullPath,
                                        const char16_t *pattern, nt::IO_STATUS_BLOCK *ioStatus,
                                        uint8_t **outBuffer);

protected:
    std::unique_ptr<IFileSystem> fileSystem;
    IRdpdrChannel *channel;
    FodrLogger *packetTrace;
    uint16_t deviceType;
    std::string path;
    std::string sharePath;
    std::atomic<uint32_t> deviceId;
    std::string name;
    std::string friendlyName;
    std::atomic<bool> available;
    bool driveLetterShare;
    OVMutex filesLock; // before RdpFileHandle's own
    std::map<uint32_t, RCPtr<RdpFileHandle>> files GUARDED_BY(filesLock);
    bool retired GUARDED_BY(filesLock) = false;
    bool multiEntryDirectoryQuery;
    bool readOnly;
    bool preReadEnabled;
    IDeviceFilter *filterPolicy;
    const IPreReader *preReader;
    nt::NoticeOrder notices;       // of this share, towards its agent
    const std::u16string widePath; // `path` in UTF-16; empty if it has no such form

private:
    using Request = DR_DEVICE_IOREQUEST;

    // Every handler reads what follows the fixed request from the packet's cursor and returns whether a
    // completion was written.
    bool Dispatch(const Request &request, RdpdrStream &packet);
    bool HandleCreate(const Request &request, RdpdrStream &packet);
    bool HandleClose(const Request &request);
    bool HandleRead(const Request &request);
    bool HandleWrite(const Request &request, RdpdrStream &packet);
    bool HandleQueryInformation(const Request &request);
    bool HandleSetInformation(const Request &request, RdpdrStream &packet);
    bool HandleQueryVolumeInformation(const Request &request);
    bool HandleSetVolumeInformation(const Request &request, RdpdrStream &packet);
    bool HandleDirectoryControl(const Request &request, RdpdrStream &packet);
    bool HandleNotifyChangeDirectory(const Request &request);
    bool HandleNotImplemented(const Request &request);
    bool HandleDeviceControl(const Request &request, RdpdrStream &packet);
    bool HandleLockControl(const Request &request, RdpdrStream &packet);

    // Create.
    struct CreateOutcome {
        nt::NTSTATUS status = nt::STATUS_SUCCESS;
        uint32_t fileId = 0;
        uint32_t information = 0;
    };
    CreateOutcome CreateFileAt(const DR_CREATE_REQ &create, const std::u16string &absolutePath,
                               const std::string &shownPath);
    // STATUS_DEVICE_REMOVED when the files were closed meanwhile: nobody would close this one.
    nt::NTSTATUS KeepOpenFile(uint32_t fileId, bool isRoot) EXCLUDES(filesLock);
    bool CompleteCreate(const Request &request, const CreateOutcome &outcome);
    bool IsFileOpenAllowedByDeviceFilter(const std::string &absolutePath, uint32_t createOptions);

    // Names. Refused: what would give a file a name outside the share, or take the root its name.
    // What a record of class 65 or 11 says is checked before the file system sees it. `buffer` has at least
    // kSetBufferReadable bytes.
    bool IsRoot(uint32_t fileId) EXCLUDES(filesLock);
    nt::NTSTATUS SetInformation(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                uint32_t length, uint32_t infoClass);
    nt::NTSTATUS NameWithinShare(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint8_t *buffer,
                                 uint32_t length, uint32_t infoClass);
    nt::NTSTATUS Control(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus, uint32_t code, MallocBuffer &input,
                         MallocBuffer &output);
    bool IsDirectory(uint32_t fileId);

    // Locks.
    nt::NTSTATUS ApplyLocks(const Request &request, RdpdrStream &packet);
    nt::NTSTATUS ApplyLock(uint32_t fileId, const DR_DRIVE_LOCK_REQ &lock, const RDP_LOCK_INFO &range);

    // Open files.
    RCPtr<RdpFileHandle> BeginIo(uint32_t fileId) EXCLUDES(filesLock);
    nt::NTSTATUS CloseFileHandle(uint32_t fileId, const RCPtr<RdpFileHandle> &handle) EXCLUDES(filesLock);
    nt::NTSTATUS EndRequests(uint32_t fileId, RdpFileHandle &handle);

    // Replies. All are zero behind what is named.
    bool SendCompletion(uint32_t completionId, nt::NTSTATUS status);
    bool SendLength(uint32_t completionId, nt::NTSTATUS status, uint32_t length);
    bool SendData(uint32_t completionId, nt::NTSTATUS status, const MallocBuffer &data);
    bool Write(RdpdrStreamPtr completion);
    // The rule that adds a pre-read block to the completion of this request, or IPreReader::kNoPattern.
    int32_t PreReadPattern(const Request &request) const;
};

} // namespace fodr
