// A settings store for this process alone: the user's, except that values of one key are fixed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fodr::platform {

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
    // the handler of platform/Registry.h is told. One thread at a time.
    virtual bool Update(const std::vector<FixedValue> &values, std::string *error) = 0;

    // From now on tells `handler` once, on a thread of the store's, that the user's store has changed since
    // the last Update; the next one asks again. The handler must not block nor call the store. To be called
    // once; without an Update that fails, no change is missed. No call after the object's end.
    virtual void Follow(std::function<void()> handler) = 0;

protected:
    PrivateStore() = default;
};

} // namespace fodr::platform
