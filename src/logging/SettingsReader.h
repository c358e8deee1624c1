// Where the settings of a logger are read.
#pragma once

#include "runtime/RCObject.h"

#include <cstdint>
#include <string>

namespace fodr {

// Each read is false, with the output left alone, for a value that is absent and for a null output. `flag`
// asks for the value as it is now rather than as it was last seen. One thread at a time.
class SettingsReader : public RCObject {
public:
    virtual int32_t GetReaderKind() = 0; // 0: the settings store
    virtual std::string GetName() = 0;   // for log lines
    // With `skip` nothing is read.
    virtual bool GetString(const std::string &key, bool skip, std::string *value, bool flag) = 0;
    virtual bool GetDword(const std::string &key, uint32_t *value, bool flag) = 0;
    virtual bool GetBool(const std::string &key, bool *value, bool flag) = 0;
    // Where the key stands, for people.
    virtual std::string GetSource(const std::string &key) = 0;
};

} // namespace fodr
