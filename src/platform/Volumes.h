// Drive letters, local paths, volumes, the devices behind them, and mount points. Any thread. Errors are
// Windows' numbers (platform/SystemError.h), 0 for success.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fodr::platform {

// What stands at a drive's root.
enum DriveType : uint32_t {
    kDriveUnknown = 0,
    kDriveNoRootDir = 1, // no such drive
    kDriveRemovable = 2,
    kDriveFixed = 3,
    kDriveRemote = 4,
    kDriveCdRom = 5,
    kDriveRamDisk = 6,
};

// Of the root "X:\"; the letter in either case.
DriveType DriveTypeOfLetter(char letter);

// The local path that a letter stands for, without a separator at its end ("/" for the root); empty for a
// letter that stands for nothing, or that is none. The drive may be gone at the moment. On Windows it is
// "X:". src/ntposix, which may not include this header, is given this function at the start of the program.
std::string LocalPathOfDriveLetter(char letter);

// True for the separators of a local path: the backslash everywhere, '/' where local paths have it.
bool IsLocalSeparator(char c);
// What local paths are joined with.
char LocalSeparator();
// Whether a path doesn't depend on where it is looked at: with a root of its own.
bool IsAbsoluteLocalPath(const std::u16string &path);

// The paths below are as the logic hands them around: "/home/me", "C:\data", "D:", with names and separators
// as a remote machine writes them.

// Bytes that the caller may still write to the file system of a folder.
bool FreeSpaceOfFolder(const std::string &folder, uint64_t &bytes);

// The mount point that holds a path; the path needn't exist as long as a parent does.
uint32_t MountPointOfPath(const std::u16string &path, std::u16string &mountPoint);

// A name that no other volume has and that keeps its meaning while the volume is there. The mount point and
// the name end in a separator ('/' or a backslash).
uint32_t VolumeNameOfMountPoint(const std::u16string &mountPoint, std::u16string &name);

inline constexpr uint32_t kBusTypeUnknown = 0;
inline constexpr uint32_t kBusTypeUsb = 7;

inline constexpr uint32_t kDeviceTypeCdRom = 2;
inline constexpr uint32_t kDeviceTypeDisk = 7;

// IOCTL_STORAGE_GET_DEVICE_NUMBER.
struct StorageDeviceNumber {
    uint32_t DeviceType;
    uint32_t DeviceNumber; // of the whole disk
    uint32_t PartitionNumber;
};

// An open storage device, without any right to its data. One thread.
class StorageDevice {
public:
    StorageDevice();
    ~StorageDevice();
    StorageDevice(const StorageDevice &) = delete;
    StorageDevice &operator=(const StorageDevice &) = delete;

    // A volume's name, its last separator taken away, or a path that StorageDeviceList gave.
    uint32_t Open(const std::u16string &devicePath);
    uint32_t QueryBusType(uint32_t &busType);
    uint32_t QueryNumber(StorageDeviceNumber &number);

private:
    struct State;
    std::unique_ptr<State> state;
};

// The disks (kDeviceTypeDisk) or optical drives (kDeviceTypeCdRom) that are present. One thread.
class StorageDeviceList {
public:
    StorageDeviceList();
    ~StorageDeviceList();
    StorageDeviceList(const StorageDeviceList &) = delete;
    StorageDeviceList &operator=(const StorageDeviceList &) = delete;

    uint32_t Open(uint32_t deviceType);
    // False when there is no entry of this number.
    bool HasEntry(uint32_t index);
    // The size of the entry's detail: kErrorInsufficientBuffer, with the size, is the good outcome.
    uint32_t QueryDetailSize(uint32_t index, uint32_t &size);
    // The entry's device path and the number of its device instance.
    uint32_t QueryDetail(uint32_t index, uint32_t size, std::u16string &devicePath, uint32_t &instance);

private:
    struct State;
    std::unique_ptr<State> state;
};

// For a disk on USB the parent is the USB device.
bool ParentOfDeviceInstance(uint32_t instance, uint32_t &parent);
// "USB\VID_0781&PID_5567\4C530001".
bool IdOfDeviceInstance(uint32_t instance, std::string &id);

// What a path is, itself and not what it leads to.
enum class LinkKind { SymbolicLink, Junction, Directory, File, Missing };

// Whether both lead to one and the same folder, whatever they are called: through links, or because the file
// system makes no difference. False when either leads to no folder.
bool IsSameFolder(const std::u16string &a, const std::u16string &b);

// kErrorFileNotFound, kErrorPathNotFound, kErrorBadNetPath and kErrorInvalidName come with Missing.
uint32_t QueryLinkKind(const std::u16string &path, LinkKind &kind);
// Where a symbolic link points, as it is written in it.
uint32_t ReadLinkTarget(const std::u16string &link, std::u16string &target);

// How local paths are written and their names compare. Any thread. What separates them is in Volumes.h.

// Whether the system takes two UTF-8 texts for the same name: byte by byte on Linux, without case on Windows.
bool LocalNamesEqual(std::string_view a, std::string_view b);

// A local path as the logic and remote machines write it: what their names can't hold stands for itself in
// other characters (lib/unicode/NameMapping.h). On Windows every path is in that form.
std::string PathInSharedForm(const std::string &localPath);

// Events of arriving and leaving volumes, in order on one thread.
class IVolumeEventSink {
public:
    // Bit 0 is drive A. Bits above the 26th mean nothing.
    virtual void OnVolumesArrived(uint32_t unitMask) = 0;
    virtual void OnVolumesRemoved(uint32_t unitMask) = 0;
    // The end was asked for: no other call follows until the next Run.
    virtual void OnClose() = 0;

protected:
    ~IVolumeEventSink() = default;
};

// Open and Run belong to one thread; the others are for any.
class VolumeEvents {
public:
    VolumeEvents();
    ~VolumeEvents();
    VolumeEvents(const VolumeEvents &) = delete;
    VolumeEvents &operator=(const VolumeEvents &) = delete;

    // Changes count from here on. False when changes can't be heard of.
    bool Open();
    // Whether an opened source has not been closed by its end yet.
    bool IsOpen() const;
    // Calls the sink until the end is asked for; when nothing is open it only waits for that. False when the
    // source broke.
    bool Run(IVolumeEventSink &sink);
    // Makes Run call OnClose, close and return. On Windows returns when OnClose has been called.
    void RequestEnd();

private:
    void TellChanges(IVolumeEventSink &sink);

    struct State;
    std::unique_ptr<State> state;
};

// Mount points of file systems that a process of this user serves.
enum class MountHealth {
    None,  // an ordinary folder, or nothing
    Alive, // something is mounted there
    Dead,  // mounted, but the process that served it is gone
};

MountHealth InspectMount(const std::string &path);

// The same, given up to `timeoutMS` for a process that is just ending: what it serves still looks alive until
// the system has closed its files. Waits only for mounts whose type ends in `ownType`, such as "fodr".
MountHealth InspectEndingMount(const std::string &path, const std::string &ownType, int timeoutMS);

// Whether a file system whose type begins with `type` is mounted just there, perhaps below another one.
bool IsMounted(const std::string &path, const std::string &type);

// Takes one mount away; one that is in use only `lazily`. 0 or an errno.
int UnmountOnce(const std::string &path, bool lazily);
// The system's helper that does it for ordinary users.
std::vector<std::string> UnmountCommand(const std::string &path, bool lazily);

// Takes all mounts there away at once, even while they are in use. True when nothing is mounted there any
// more.
bool DetachMount(const std::string &path);

// Why this user can't mount here, as a sentence about what is missing and what to do; empty when he can.
std::string MountProblem();

} // namespace fodr::platform
