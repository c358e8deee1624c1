
#include "host/HostChannel.h"
#include "host/PluginHost.h"

#include <cstring>

namespace fodr::host {
namespace {

HostChannel *Channel()
{
    PluginHost *host = PluginHost::Active();
    return host != nullptr ? host->CurrentChannel() : nullptr;
}

std::shared_ptr<ChannelObject> Object(void *handle)
{
    PluginHost *host = PluginHost::Active();
    return host != nullptr ? host->FindObject(handle) : nullptr;
}

HostMessage *Message(void *context)
{
    return static_cast<HostMessage *>(context);
}

// ---- Channel ----

bool RegisterChannelNotifySink(const ChannelSink *sink, void *userData, uint32_t *sinkId)
{
    HostChannel *channel = Channel();
    return channel != nullptr && sink != nullptr && sinkId != nullptr &&
           channel->AddSink(*sink, userData, sinkId);
}

bool UnregisterChannelNotifySink(uint32_t sinkId)
{
    HostChannel *channel = Channel();
    return channel != nullptr && channel->RemoveSink(sinkId);
}

bool Connect()
{
    HostChannel *channel = Channel();
    return channel != nullptr && channel->Open();
}

bool Disconnect()
{
    HostChannel *channel = Channel();
    return channel != nullptr && channel->Shut();
}

int32_t GetConnectionState()
{
    HostChannel *channel = Channel();
    return channel != nullptr ? channel->GetConnectionState() : CONNECTION_UNINITIALIZED;
}

int32_t GetSessionType()
{
    HostChannel *channel = Channel();
    return channel != nullptr ? channel->GetSessionType() : SESSION_NONE;
}

// ---- Objects ----

bool CreateObject(const char *name, const ObjectSink *sink, void *userData, uint32_t flags, void **handle)
{
    HostChannel *channel = Channel();
    if (channel == nullptr || name == nullptr || sink == nullptr || handle == nullptr)
        return false;
    *handle = channel->CreateObject(name, *sink, userData, flags);
    return *handle != nullptr;
}

bool DestroyObject(void *handle)
{
    PluginHost *host = PluginHost::Active();
    const auto object = host != nullptr ? host->TakeObject(handle) : nullptr;
    if (object == nullptr)
        return false;
    object->channel->DestroyObject(object);
    return true;
}

int32_t GetObjectState(void *handle)
{
    const auto object = Object(handle);
    return object != nullptr ? object->State() : OBJECT_UNINITIALIZED;
}

bool CreateExtContext(void *handle, uint32_t options, void **context)
{
    if (context == nullptr || Object(handle) == nullptr)
        return false;
    *context = new HostMessage(options);
    return true;
}

bool CreateContext(void *handle, void **context)
{
    return CreateExtContext(handle, 0, context);
}

bool DestroyContext(void *context)
{
    delete Message(context);
    return context != nullptr;
}

bool Invoke(void *handle, void *context, const MessageSink *sink, void *userData)
{
    const auto object = Object(handle);
    if (object == nullptr || context == nullptr ||
        !object->Invoke(*Message(context), sink != nullptr ? *sink : MessageSink{}, userData))
        return false;
    delete Message(context);
    return true;
}

void RequestSideChannel(void *handle, int32_t type, const char * /*tokenName*/)
{
    if (const auto object = Object(handle))
        object->channel->RequestSideChannel(object, type);
}

bool GetObjectOptions(void *handle, uint32_t *options)
{
    const auto object = Object(handle);
    return object != nullptr && options != nullptr && object->Options(options);
}

// ---- Contexts and variants ----

uint32_t GetId(void *context)
{
    return context != nullptr ? Message(context)->Id() : 0;
}

void SetCommand(void *context, uint32_t command)
{
    if (context != nullptr)
        Message(context)->SetCommand(command);
}

int32_t GetParamCount(void *context)
{
    return context != nullptr ? Message(context)->ParameterCount() : 0;
}

void AppendParam(void *context, const Variant *value)
{
    if (context != nullptr && value != nullptr)
        Message(context)->Append(*value);
}

void GetParam(void *context, int32_t index, Variant *value)
{
    if (context != nullptr && value != nullptr)
        Message(context)->Get(index, value);
}

bool SetOps(void *context, uint32_t option, const Variant *value)
{
    return context != nullptr && Message(context)->SetOption(option, value);
}

void VariantFromBlob(Variant *value, const Blob *blob)
{
    if (blob != nullptr)
        SetBlock(value,
                 {static_cast<const std::byte *>(blob->data), blob->data != nullptr ? blob->length : 0});
    else
        InitVariant(value);
}

// ---- Message bus ----

uint32_t Subscribe(const char *name, void *context, ObserverCallback callback)
{
    PluginHost *host = PluginHost::Active();
    return host != nullptr ? host->Bus().Subscribe(name, context, callback) : 0;
}

void Unsubscribe(uint32_t id)
{
    if (PluginHost *host = PluginHost::Active())
        host->Bus().Unsubscribe(id);
}

bool Send(const char *name, const char *cookie, const char *text)
{
    PluginHost *host = PluginHost::Active();
    return host != nullptr && host->Bus().Send(host->Token().c_str(), name, cookie, text);
}

template <typename Table> bool Fill(void *to, const Table &table)
{
    std::memcpy(to, &table, sizeof(table));
    return true;
}

bool FillChannel(void *table)
{
    ODPService_ChannelInterface channel{};
    channel.RegisterChannelNotifySink = RegisterChannelNotifySink;
    channel.UnregisterChannelNotifySink = UnregisterChannelNotifySink;
    channel.Connect = Connect;
    channel.Disconnect = Disconnect;
    channel.GetConnectionState = GetConnectionState;
    channel.GetSessionType = GetSessionType;
    return Fill(table, channel);
}

// The two last entries came with the third version.
bool FillObjects(void *table, bool withOptions)
{
    ODPRPC_ChannelObjectInterface objects{};
    objects.CreateObject = CreateObject;
    objects.DestroyObject = DestroyObject;
    objects.GetObjectState = GetObjectState;
    objects.CreateContext = CreateContext;
    objects.DestroyContext = DestroyContext;
    objects.Invoke = Invoke;
    objects.RequestSideChannel = RequestSideChannel;
    if (withOptions) {
        objects.GetObjectOptions = GetObjectOptions;
        objects.CreateExtContext = CreateExtContext;
    }
    return Fill(table, objects);
}

bool FillContexts(void *table)
{
    ODPRPC_ChannelContextInterface contexts{};
    contexts.GetId = GetId;
    contexts.SetCommand = SetCommand;
    contexts.GetParamCount = GetParamCount;
    contexts.AppendParam = AppendParam;
    contexts.GetParam = GetParam;
    contexts.SetOps = SetOps;
    return Fill(table, contexts);
}

bool FillVariants(void *table)
{
    ODPRPC_VariantInterface variants{};
    variants.VariantInit = InitVariant;
    variants.VariantClear = ClearVariant;
    variants.VariantFromUInt32 = SetNumber;
    variants.VariantFromBlob = VariantFromBlob;
    return Fill(table, variants);
}

bool FillObserver(void *table)
{
    ODPObserver observer{};
    observer.Subscribe = Subscribe;
    observer.Unsubscribe = Unsubscribe;
    observer.Send = Send;
    return Fill(table, observer);
}

} // namespace

bool QueryHostTable(const OdpGuid *interfaceId, void *table)
{
    if (interfaceId == nullptr || table == nullptr)
        return false;
    OdpGuid known = ODP_GUID_INITIALIZER(0);
    known.data2 = interfaceId->data2;
    if (std::memcmp(&known, interfaceId, sizeof(known)) != 0)
        return false;
    switch (interfaceId->data2) {
    case ODP_SERVICE_CHANNEL_V3:
    case ODP_SERVICE_CHANNEL_V2:
    case ODP_SERVICE_CHANNEL_V1:
        return FillChannel(table);
    case ODP_CHANNEL_OBJECT_V4:
    case ODP_CHANNEL_OBJECT_V3:
        return FillObjects(table, true);
    case ODP_CHANNEL_OBJECT_V2:
    case ODP_CHANNEL_OBJECT_V1:
        return FillObjects(table, false);
    case ODP_CHANNEL_CONTEXT_V2:
    case ODP_CHANNEL_CONTEXT_V1:
        return FillContexts(table);
    case ODP_VARIANT:
        return FillVariants(table);
    case ODP_STREAM_DATA_V2:
    case ODP_STREAM_DATA_V1:
        return Fill(table, ODPRPC_StreamDataInterface{});
    case ODP_OVERLAY_CLIENT_V2:
    case ODP_OVERLAY_CLIENT_V1:
        return Fill(table, ODPOverlay_ClientInterface{});
    case ODP_OBSERVER:
        return FillObserver(table);
    default:
        return false;
    }
}

} // namespace fodr::host
