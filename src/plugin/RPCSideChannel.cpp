// RPCManager: which side channel carries the data object, by settings and by the agent's options.
#include "lib/unicode/CaseFolding.h"
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"
#include "runtime/OVRegKey.h"

#include <cstring>

namespace fodr {

namespace {

bool StartsWithIgnoreCase(const std::string &text, const char *prefix)
{
    return AsciiCompareNoCase(text.c_str(), prefix, std::strlen(prefix)) == 0;
}

} // namespace

std::string RPCManager::SettingPath(const char *valueName) const
{
    return std::string("HKLM\\Software\\Orvane, Inc.\\") +
           (isServer ? "Orvane " : "Orvane ODPService\\Plugins\\") + tokenName + "\\" + valueName;
}

// Only as many letters as the word has are compared: "trueish" switches the side channel on.
bool RPCManager::ConfigureTcpSideChan()
{
    FODR_TRACE_FUNCTION();
    std::string path = SettingPath("tcpEnabled");
    std::string value = ReadRegistryString(path);
    LOG_INFO("Checking tcp side at \"%s\"\n", path.c_str());
    if (StartsWithIgnoreCase(value, "true")) {
        tcpEnabled = true;
        tcpConfigured = true;
        LOG_INFO("tcp side channel is enabled\n");
    } else if (StartsWithIgnoreCase(value, "false")) {
        tcpEnabled = false;
        tcpConfigured = true;
        LOG_INFO("tcp side channel is disabled\n");
    } else {
        LOG_INFO("tcp side channel is %sabled (by default)\n", tcpEnabled ? "en" : "dis");
    }
    return true;
}

// Unlike the TCP value this one is compared whole.
bool RPCManager::ConfigureVirtualSideChan()
{
    FODR_TRACE_FUNCTION();
    std::string path = SettingPath("vchanSideChannelEnabled");
    std::string value = ReadRegistryString(path);
    LOG_INFO("Checking Virtual side channel at \"%s\"\n", path.c_str());
    if (AsciiEqualsNoCase(value, "true")) {
        vchanEnabled = true;
        LOG_INFO("Virtual side channel is enabled.\n");
    } else if (AsciiEqualsNoCase(value, "false")) {
        vchanEnabled = false;
        LOG_INFO("Virtual side channel is disabled.\n");
    } else {
        LOG_INFO("Virtual side channel is %sabled (by default)\n", vchanEnabled ? "en" : "dis");
    }
    return true;
}

void RPCManager::ConfigureSidechannelType(int32_t sessionType)
{
    FODR_TRACE_FUNCTION();
    if (!isServer)
        return;
    std::string value = ReadRegistryString(SettingPath("sideChannelType"));
    if (StartsWithIgnoreCase(value, "none")) {
        tcpEnabled = false;
        vchanEnabled = false;
    } else if (StartsWithIgnoreCase(value, "pcoip")) {
        tcpEnabled = sessionType != SESSION_PCOIP;
        vchanEnabled = sessionType == SESSION_PCOIP;
    } else if (StartsWithIgnoreCase(value, "vchan")) {
        tcpEnabled = false;
        vchanEnabled = true;
    } else if (StartsWithIgnoreCase(value, "tcp")) {
        tcpEnabled = true;
        vchanEnabled = false;
    } else {
        bool bolt = StartsWithIgnoreCase(value, "bolt");
        bool named = bolt || StartsWithIgnoreCase(value, "ovc");
        if (named || (!tcpConfigured && std::strcmp(tokenName, "fodr") == 0)) {
            tcpEnabled = sessionType != SESSION_FLARE;
            vchanEnabled = sessionType == SESSION_FLARE;
            if (sessionType == SESSION_FLARE)
                boltSupported = bolt;
        }
    }
    LOG_INFO("Sidechannel tcp:%sabled vchan:%sabled bolt:%spreferred.\n", tcpEnabled ? "en" : "dis",
             vchanEnabled ? "en" : "dis", boltSupported ? "" : "not ");
}

void RPCManager::OnDataObjectConnected(RPCPluginInstance *instance)
{
    FODR_TRACE_FUNCTION();
    uint32_t options = 0;
    bool boltAllowed = false;
    if (objectApi.GetObjectOptions) {
        uint32_t given = 0;
        if (objectApi.GetObjectOptions(instance->dataObj.Get(), &given)) {
            LOG_DEBUG("DataObj options = 0x%08x\n", given);
            if ((given & ODP_OPTION_BOLT) && channelApi.GetSessionType() == SESSION_FLARE)
                boltAllowed = boltSupported;
            options = given & ODP_OPTION_SIDE_CHANNEL_MASK;
        } else {
            LOG_WARN("Obtain DataObj options failed \n");
        }
    }
    constexpr uint32_t kNoSideChannel = ODP_OPTION_VIRTUAL | ODP_OPTION_TCP;
    if ((options & kNoSideChannel) == kNoSideChannel)
        instance->OnChannelDataObjConnected();
    else if (!isServer && options != 0)
        ChooseByAgent(instance, options, boltAllowed);
    else
        ChooseBySettings(instance, options, boltAllowed);
}

// CONNECTED while a side channel is pending says that it failed. The instance then stays not ready and the
// flag set: a side channel that failed isn't replaced by the main channel.
void RPCManager::ChooseByAgent(RPCPluginInstance *instance, uint32_t options, bool boltAllowed)
{
    FODR_TRACE_FUNCTION();
    if (instance->sideChannelPending) {
        LOG_ERROR("Side channel request failed.\n");
        return;
    }
    if (options & ODP_OPTION_VIRTUAL) {
        if (boltAllowed)
            LOG_INFO("Requesting BOLT side channel.\n");
        else
            LOG_INFO("Requesting virtual side channel.\n");
        RequestSideChannel(instance, boltAllowed ? SIDE_CHANNEL_BOLT : SIDE_CHANNEL_VIRTUAL);
    } else {
        LOG_INFO("Requesting tcp side channel.\n");
        RequestSideChannel(instance, SIDE_CHANNEL_TCP);
    }
}

void RPCManager::ChooseBySettings(RPCPluginInstance *instance, uint32_t options, bool boltAllowed)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("Determine sc[0x%08x] type by itself.\n", options);
    if (instance->tcpSideChannel) {
        if (instance->sideChannelPending) {
            LOG_ERROR("TCP Side channel request failed.\n");
            return;
        }
        LOG_INFO("Requesting TCP side channel.\n");
        RequestSideChannel(instance, SIDE_CHANNEL_TCP);
    } else if (instance->vchanSideChannel) {
        if (instance->sideChannelPending) {
            LOG_ERROR("Virtual Side channel request failed.\n");
            return;
        }
        if (boltAllowed)
            LOG_INFO("Requesting BOLT side channel.\n");
        else
            LOG_INFO("Requesting virtual side channel.\n");
        RequestSideChannel(instance, boltAllowed ? SIDE_CHANNEL_BOLT : SIDE_CHANNEL_VIRTUAL);
    } else {
        instance->OnChannelDataObjConnected();
    }
}

void RPCManager::RequestSideChannel(RPCPluginInstance *instance, int32_t type)
{
    objectApi.RequestSideChannel(instance->dataObj.Get(), type, tokenName);
}

} // namespace fodr
