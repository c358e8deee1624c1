#include "logging/LogRegKeyWatcher.h"

#include "logging/Logger.h"
#include "logging/RegSettingsReader.h"

namespace fodr {

LogRegKeyWatcher::LogRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtreeToo,
                                   RegSettingsReader *ownReader)
    : OVRegKeyWatcher(keyPath, keyView, subtreeToo), reader(ownReader)
{}

bool LogRegKeyWatcher::OnKeyChanged()
{
    OVMutexLock lock(LoggerMutex());
    const RCPtr<SettingsReader> held(reader);
    reader->GetLogger()->ApplySettings(held);
    return true;
}

} // namespace fodr
