#include "logging/RegSettingsReader.h"

#include "logging/LogRegKeyWatcher.h"
#include "logging/LoggerManager.h"
#include "runtime/OVRegValue.h"

namespace fodr {

RegSettingsReader::RegSettingsReader(Logger *owner, const std::string &path)
    : logger(owner), keyWatcher(new LogRegKeyWatcher(path, Reg64Bit, false, this))
{
    keyWatcher->Start(LoggerManager::Instance().GetPollThread());
}

RegSettingsReader::~RegSettingsReader()
{
    keyWatcher->Stop();
}

int32_t RegSettingsReader::GetReaderKind()
{
    return 0;
}

std::string RegSettingsReader::GetName()
{
    return "RegistryReader";
}

bool RegSettingsReader::GetString(const std::string &key, bool skip, std::string *value, bool flag)
{
    if (skip || !value)
        return false;
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    std::string text;
    if (!stored->IsLoaded() || !stored->ToString(text, {}))
        return false;
    *value = text;
    return true;
}

bool RegSettingsReader::GetDword(const std::string &key, uint32_t *value, bool flag)
{
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    if (!value || !stored->IsLoaded())
        return false;
    *value = stored->ToDword(*value);
    return true;
}

bool RegSettingsReader::GetBool(const std::string &key, bool *value, bool flag)
{
    const RCPtr<OVRegValue> stored = keyWatcher->GetValue(key, flag);
    if (!value || !stored->IsLoaded())
        return false;
    *value = stored->ToBool(*value);
    return true;
}

std::string RegSettingsReader::GetSource(const std::string &key)
{
    return OVRegKey(keyWatcher->GetPath(), Reg64Bit).GetDisplayPath() + "\\" + key;
}

} // namespace fodr
