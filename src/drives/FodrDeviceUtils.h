// Which USB device holds a folder. Any thread; a device query may take long, a known volume doesn't.
#pragma once

#include "platform/Volumes.h"

#include <cstdint>
#include <string>

namespace fodr {

class FodrDeviceUtils {
public:
    // "<vidpid>" and eight hexadecimal digits; empty when the folder isn't on a USB device or that can't be
    // told.
    static std::string GetDeviceInfo(const std::string &folder);
    static bool GetFolderVidpidInfo(const std::string &folder, std::string &vid, std::string &pid);

    // The steps in between.
    static bool GetVolumeUniqueName(std::u16string mountPoint, std::u16string &name);
    static bool IsUsbDevice(const std::u16string &volumeName);
    static bool GetStorageDeviceNumber(const std::u16string &devicePath,
                                       platform::StorageDeviceNumber &number);
    static bool GetDeviceInstance(const platform::StorageDeviceNumber &number, uint32_t &instance);
    static bool GetDeviceInstanceId(uint32_t instance, std::string &id);
    static bool ParseDeviceInstanceId(const std::string &id, std::string &vid, std::string &pid);
    static void CacheVidPidInfo(const std::u16string &volumeName, const std::string &vid,
                                const std::string &pid);
};

// Where a path really leads.
class FodrClientUtils {
public:
    // The path behind the symbolic links that the last component of `path` is a chain of; `path` itself when
    // it isn't one. A dangling chain gives its missing target, a looping one a link on the loop. Any thread.
    static std::string GetLinkPath(const std::string &path);
};

} // namespace fodr
