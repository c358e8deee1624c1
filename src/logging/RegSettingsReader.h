// Settings of a logger from one key of the settings store.
#pragma once

#include "logging/SettingsReader.h"
#include "runtime/RCPtr.h"

#include <cstdint>
#include <string>

namespace fodr {

class LogRegKeyWatcher;
class Logger;
class OVRegValue;

class RegSettingsReader : public SettingsReader {
public:
    // Watches the key ("HKLM\...") on the loggers' poll thread from now on. The logger owns the reader.
    RegSettingsReader(Logger *owner, const std::string &path);
    ~RegSettingsReader() override;

    int32_t GetReaderKind() override;
    std::string GetName() override;
    bool GetString(const std::string &key, bool skip, std::string *value, bool flag) override;
    bool GetDword(const std::string &key, uint32_t *value, bool flag) override;
    bool GetBool(const std::string &key, bool *value, bool flag) override;
    std::string GetSource(const std::string &key) override;

    Logger *GetLogger() const { return logger; }

private:
    Logger *logger;
    RCPtr<LogRegKeyWatcher> keyWatcher;
};

} // namespace fodr
