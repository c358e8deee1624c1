// Tells a reader's logger that the settings changed.
#pragma once

#include "runtime/OVRegKeyWatcher.h"

#include <string>

namespace fodr {

class RegSettingsReader;

class LogRegKeyWatcher : public OVRegKeyWatcher {
public:
    // The reader stops the watcher before it goes.
    LogRegKeyWatcher(const std::string &keyPath, RegView keyView, bool subtreeToo,
                     RegSettingsReader *ownReader);

    bool OnKeyChanged() override;

private:
    RegSettingsReader *reader;
};

} // namespace fodr
