// The one object of the library: what the exports forward to.
#pragma once

#include "logging/LoggerManager.h"
#include "plugin/RPCManager.h"

namespace fodr {

class FodrClient : public RPCManager {
public:
    FodrClient();

    RPCPluginInstance *CreatePluginInstance() override;
    bool OnPluginInit() override;
    bool OnPluginExit() override;

    FodrLogger *Logger() { return &logger; }

    // Built at library load, destroyed at process exit.
    static FodrClient &Instance();

private:
    FodrLogger logger;
};

} // namespace fodr
