// The settings store, in the shape of the Windows registry: advapi32 on Windows, files on Linux.
//
// Key paths and value names are UTF-8, their components separated by a backslash and compared without case.
// Every result is a Windows error code (platform/SystemError.h). Any thread; a key is used and closed by one
// thread at a time.
#pragma once

#include "platform/SystemError.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fodr::platform {

enum class RegistryRoot : uint32_t { ClassesRoot, CurrentUser, LocalMachine, Users, CurrentConfig };

// Value types (MS-RRP 3.1.1.5).
inline constexpr uint32_t kRegNone = 0;
inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegExpandSz = 2;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;
inline constexpr uint32_t kRegDwordBigEndian = 5;
inline constexpr uint32_t kRegLink = 6;
inline constexpr uint32_t kRegMultiSz = 7;
inline constexpr uint32_t kRegResourceList = 8;
inline constexpr uint32_t kRegFullResourceDescriptor = 9;
inline constexpr uint32_t kRegResourceRequirementsList = 10;
inline constexpr uint32_t kRegQword = 11;

inline constexpr uint32_t kRegKeyRead = 0x20019;
inline constexpr uint32_t kRegKeyWow64Key64 = 0x0100;
inline constexpr uint32_t kRegKeyWow64Key32 = 0x0200;
inline constexpr uint32_t kRegKeyAllAccess = 0xF003F;

inline constexpr uint32_t kRegNotifyChangeName = 1;
inline constexpr uint32_t kRegNotifyChangeLastSet = 4;

// The plug-in's settings, below LocalMachine. The plug-in's log shows the key in a case of its own.
inline constexpr char kPluginSettingsKey[] = "SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";

using RegistryKey = void *;

// Opens `path` below a root. kErrorFileNotFound when there is no such key: a key is there when it, or one
// below it, is in the store. A store that can't be read counts as empty, but the error is kErrorInvalidData
// then: the key may be meant to be there. The key is the caller's to close.
uint32_t RegistryOpen(RegistryRoot root, const std::string &path, uint32_t access, RegistryKey *key);

// Opens the key, making it and those above it first where they are missing.
uint32_t RegistryCreate(RegistryRoot root, const std::string &path, uint32_t access, RegistryKey *key);

// The type and the bytes of a value. `*size` is the room at `data` and becomes the size of the value; too
// little room gives kErrorMoreData, a null `data` only asks and gives 0. `type` may be null.
// kErrorInvalidData for a value that is there but isn't well-formed.
//
// Texts are UTF-8, with `wide` UTF-16LE, both with the terminator (two at the end of a list); numbers are
// little-endian. Text with a terminator is read as it stands in the store: on Windows it may lack one.
uint32_t RegistryQuery(RegistryKey key, const std::string &name, bool wide, uint32_t *type, void *data,
                       uint32_t *size);

// Sets a value of the key, in the same forms. On Linux kRegSz, kRegExpandSz, kRegMultiSz, kRegDword,
// kRegQword and kRegBinary can be kept; another type gives kErrorInvalidParameter. A store that can't be read
// whole is not written to: kErrorInvalidData.
uint32_t RegistrySet(RegistryKey key, const std::string &name, uint32_t type, bool wide, const void *data,
                     uint32_t size);

// The names of the key's values, as they are spelled; the unnamed value's is empty.
uint32_t RegistryListValues(RegistryKey key, std::vector<std::string> *names);

// Removes a value of the key.
uint32_t RegistryDeleteValue(RegistryKey key, const std::string &name);

// Removes the key `path` below an open one. A key that has keys below it stays: kErrorAccessDenied.
uint32_t RegistryDelete(RegistryKey key, const std::string &path);

uint32_t RegistryClose(RegistryKey key);

// What is wrong with the store itself: one sentence, once for each state of it. Never on Windows. Without a
// handler the sentence goes to the debug channel. A handler that returns false, because there is no log yet,
// is given the sentence again at the next access. It may be called from within any of these functions and
// must not call them.
using RegistryComplaintHandler = bool (*)(const char *text);
void SetRegistryComplaintHandler(RegistryComplaintHandler handler);

// Called once when the key changes, on a thread of the store's. Must not block nor call the store; setting an
// event is what it is for.
using RegistryChangeHandler = void (*)(void *context);

// Asks for one notification of the next change of the key: with kRegNotifyChangeName keys below it that come
// or go, with kRegNotifyChangeLastSet its values; `watchSubtree` includes all below. Asking again on the same
// key asks for the next change since the last notification, so that none is lost in between. Closing the key
// ends it: the handler isn't called after RegistryClose has returned.
uint32_t RegistryNotify(RegistryKey key, bool watchSubtree, uint32_t filter, RegistryChangeHandler handler,
                        void *context);

// Opens the key at `*path` or, as long as there is none, the nearest one above it, so that its coming can be
// watched. `open` opens a path and gives the outcome. `*path` becomes that of the key that is open now.
template <class Path, class Open> uint32_t OpenNearestKey(Path *path, Open open)
{
    constexpr typename Path::value_type kSeparators[] = {'/', '\\', 0};
    for (;;) {
        const uint32_t outcome = open(*path);
        if (outcome != kErrorFileNotFound || path->empty())
            return outcome;
        const size_t end = path->find_last_of(kSeparators);
        path->resize(end == Path::npos ? 0 : end);
    }
}
// What is to be watched of the key that was opened.
constexpr uint32_t NearestKeyFilter(bool isTheKeyItself)
{
    return isTheKeyItself ? kRegNotifyChangeName | kRegNotifyChangeLastSet : kRegNotifyChangeName;
}

// A settings store for this process alone: the user's, except that values of one key are fixed.
class PrivateStore {
public:
    struct FixedValue {
        std::string name;
        uint32_t type;     // kReg...; kRegNone: there is none, whatever the user's store says
        std::string bytes; // as RegistrySet takes them; texts as UTF-8
    };

    // Makes the store and lets this process's registry calls use it from now on: to be called before other
    // threads are started. `folder` is the process's own and goes with the object, as far as this system
    // keeps the store there. `keyPath` is below HKEY_LOCAL_MACHINE. Null, with a few words in `*error`, when
    // the store can't be made.
    static std::unique_ptr<PrivateStore> Create(const std::string &folder, const std::string &keyPath,
                                                const std::vector<FixedValue> &values, std::string *error);
    virtual ~PrivateStore() = default;
    PrivateStore(const PrivateStore &) = delete;
    PrivateStore &operator=(const PrivateStore &) = delete;

    // Takes over what the user's store says now, with these values fixed; readers see the old state or the
    // new one, whole. A user's store that can't be read counts as empty, which
    // is reported to the complaint handler. One thread at a time.
    virtual bool Update(const std::vector<FixedValue> &values, std::string *error) = 0;

    // From now on calls `handler` once, on a thread of the store's, that the user's store has changed since
    // the last Update; the next one asks again. The handler must not block nor call the store. To be called
    // once; without an Update that fails, no change is missed. No call after the object's end.
    virtual void Follow(std::function<void()> handler) = 0;

protected:
    PrivateStore() = default;
};

} // namespace fodr::platform
