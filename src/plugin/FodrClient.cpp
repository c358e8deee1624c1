#include "plugin/FodrClient.h"

#include "plugin/FodrClientPlugin.h"

namespace fodr {

namespace {

FodrClient theClient;

} // namespace

FodrClient::FodrClient() : RPCManager("fodr", "fodrControlObj", "fodrDataObj", "fodrDataObjTcp") {}

FodrClient &FodrClient::Instance()
{
    return theClient;
}

RPCPluginInstance *FodrClient::CreatePluginInstance()
{
    return new FodrClientPlugin(this, &logger);
}

bool FodrClient::OnPluginInit()
{
    logger.Start("LumenFodr-Client");
    return true;
}

bool FodrClient::OnPluginExit()
{
    logger.Stop();
    return true;
}

} // namespace fodr
