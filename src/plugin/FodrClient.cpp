#include "plugin/FodrClient.h"

#include "plugin/FolderCommands.h"
#include "plugin/RPCManager.h"
#include "rdpdr/PacketTrace.h"
#include "rdpdr/wire/RdpdrStream.h"
#include "runtime/LogCall.h"

#include <new>
#include <string>

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

namespace {

constexpr const char *kCommandMessage = "FORLDER_REDIRECTION_CMD"; // the bus knows it by this spelling
constexpr const char *kNoticeMessage = "FOLDER_REDIRECTION_NOTIFICATION";

// Options of the data object that a message has to be made with.
constexpr uint32_t kMessageOptions = 0x400800;

// A variant that is cleared at the end of its scope.
class OwnedVariant {
public:
    explicit OwnedVariant(const ODPRPC_VariantInterface *variantApi) : api(variantApi)
    {
        api->VariantInit(&value);
    }
    ~OwnedVariant() { api->VariantClear(&value); }
    OwnedVariant(const OwnedVariant &) = delete;
    OwnedVariant &operator=(const OwnedVariant &) = delete;

    Variant value;

private:
    const ODPRPC_VariantInterface *const api;
};

} // namespace

FodrClientPlugin::FodrClientPlugin(RPCManager *owner, FodrLogger *clientLogger)
    : RPCPluginInstance(owner), variantApi(&owner->variantApi), contextApi(&owner->contextApi),
      logger(clientLogger)
{
    LOG_TRACE("FodrClientPlugin instance created\n");
    channelManager.Initialize(this, logger);
    if (owner->QueryHostInterface(ODP_OBSERVER, &observerApi))
        observerId =
            observerApi.Subscribe(kCommandMessage, &channelManager, NoThrow<OnSharedFolderCommand>::Call);
    else
        LOG_ERROR("query ODPService observer interface error.\n");
    bandwidthCounter.reset(new (std::nothrow) BandwidthCounter);
    if (bandwidthCounter)
        bandwidthCounter->Start(0);
}

FodrClientPlugin::~FodrClientPlugin()
{
    LOG_TRACE("FodrClientPlugin instance destroying.\n");
    if (bandwidthCounter) {
        if (logger && logger->Level() >= LOG_LEVEL_TRACE)
            bandwidthCounter->Log();
        bandwidthCounter->Stop(); // freed with this object: until Shutdown ends, tasks still count
    }
    if (observerId != 0)
        observerApi.Unsubscribe(observerId);
    LOG_TRACE("FodrClientPlugin instance destroyed.\n");
    // Not left to the member's destructor: its last tasks still write through this object, which by then
    // would have lost its channel operations.
    channelManager.Shutdown();
    logger = nullptr;
}

void FodrClientPlugin::OnInvoke(void *context)
{
    FODR_TRACE_FUNCTION();
    OwnedVariant parameter(variantApi);
    if (dataChannelOptions == 0) {
        uint32_t options = 0;
        if (GetChannelOptions(kDataChannel, &options)) {
            dataChannelOptions = options;
            LOG_DEBUG("Data channel Option is 0x%x\n", options);
        } else {
            LOG_WARN("Get Channel Option failed.\n");
        }
    }
    if (contextApi->GetParamCount(context) == 1) {
        contextApi->GetParam(context, 0, &parameter.value);
        if (parameter.value.type == ODP_VT_BLOB)
            ReceiveBlock(parameter.value);
    }
}

void FodrClientPlugin::WatchPacket(const char *functionName, const void *data, size_t size, CountBytes count)
{
    if (!IsLogEnabled(LOG_LEVEL_TRACE) || !logger || logger->Level() < LOG_LEVEL_TRACE)
        return;
    CallWithoutThrowing(functionName, [&] { // a packet goes its way also when there is no memory to show it
        std::string text;
        DecodePacket(&text, data, size);
        LogWrite(functionName, LOG_LEVEL_TRACE, "%s\n", text.c_str());
    });
    if (bandwidthCounter)
        (bandwidthCounter.get()->*count)(data, size);
}

void FodrClientPlugin::ReceiveBlock(const Variant &value)
{
    WatchPacket("FodrClientPlugin::OnInvoke()", value.blobData, value.value.blobLength,
                &BandwidthCounter::ReceivedBytes);
    RdpdrStreamPtr packet(RdpdrStream::Create(value.value.blobLength));
    if (!packet)
        return;
    packet->Write(value.blobData, value.value.blobLength);
    if (value.value.blobLength > 0)
        packet->SetPosition(0);
    if (channelManager.OnDataReceived(packet.get()))
        static_cast<void>(packet.release());
}

bool FodrClientPlugin::WriteChannel(RdpdrStream *packet)
{
    FODR_TRACE_FUNCTION();
    void *message = nullptr;
    uint32_t options = dataChannelOptions & kMessageOptions;
    if (options != 0) {
        if (!CreateExtMessage(&message, kDataChannel, options)) {
            LOG_ERROR("CreateExtMessage() failed\n");
            return false;
        }
    } else if (!CreateMessage(&message, kDataChannel)) {
        LOG_ERROR("CreateMessage() failed\n");
        return false;
    }
    contextApi->SetCommand(message, 0);
    Blob blob{static_cast<uint32_t>(packet->Size()), 0, packet->Base()};
    WatchPacket("FodrClientPlugin::WriteChannel()", blob.data, blob.length, &BandwidthCounter::SentBytes);
    OwnedVariant parameter(variantApi);
    variantApi->VariantFromBlob(&parameter.value, &blob);
    contextApi->AppendParam(message, &parameter.value);
    bool sent = InvokeMessage(message, false, kDataChannel);
    if (!sent) {
        LOG_ERROR("InvokeMessage() failed\n");
        DestroyMessage(message);
    }
    return sent;
}

bool FodrClientPlugin::NotifyODPObserver(const char *cookie, const char *message)
{
    FODR_TRACE_FUNCTION();
    LOG_DEBUG("sending msg [%s] with cookie [%s].\n", message, cookie ? cookie : "");
    if (!observerApi.Send) {
        LOG_ERROR("Broadcast message error.\n");
        return false;
    }
    return observerApi.Send(kNoticeMessage, cookie, message);
}

} // namespace fodr
