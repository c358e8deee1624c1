// A plug-in as a third party would write it: only the public boundary, and the exports that a host calls.
// What it hears it tells on the message bus as "TEST_EVENT"; it takes orders as "TEST_ORDER". The options of
// the peer's data object are the type of the side channel that it asks for; 0: none.
#include "odpservice/odpservice.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

ODPService_ChannelInterface channelApi;
ODPRPC_ChannelObjectInterface objectApi;
ODPRPC_ChannelContextInterface contextApi;
ODPRPC_VariantInterface variantApi;
ODPObserver observerApi;

template <typename... Parts> void Tell(const Parts &...parts)
{
    std::ostringstream text;
    (text << ... << parts);
    observerApi.Send("TEST_EVENT", nullptr, text.str().c_str());
}

struct Object {
    const char *const what;
    std::atomic<void *> handle{nullptr};
    bool sideAsked = false;

    void Destroy()
    {
        if (void *taken = handle.exchange(nullptr))
            Tell(what, objectApi.DestroyObject(taken) ? " destroyed" : " not destroyed");
    }
};

struct Instance {
    uint32_t sinkId = 0;
    uint32_t observerId = 0;
    Object control{"control"};
    Object data{"data"};

    void Disconnected()
    {
        channelApi.Disconnect();
        data.Destroy();
        control.Destroy();
    }
};

Instance *From(void *userData)
{
    return static_cast<Instance *>(userData);
}

std::atomic<bool> echo{false}; // messages go back, and aren't told

constexpr MessageSink kNoReport{1, nullptr, nullptr};
constexpr MessageSink kReport{
    1, [](void *, uint32_t, void *context) { Tell("done ", contextApi.GetParamCount(context)); },
    [](void *, uint32_t, uint8_t byUser, uint32_t reason) { Tell("abort ", int{byUser}, ' ', reason); }};

bool Send(void *object, const std::string &text, const MessageSink &report)
{
    void *context = nullptr;
    if (!objectApi.CreateContext(object, &context))
        return false;
    Variant value;
    variantApi.VariantFromUInt32(&value, report.OnMsgDone == nullptr);
    contextApi.SetOps(context, ODP_MESSAGE_POST, &value);
    contextApi.SetCommand(context, 5);
    const Blob blob{static_cast<uint32_t>(text.size()), 0, text.data()};
    variantApi.VariantFromBlob(&value, &blob);
    contextApi.AppendParam(context, &value);
    variantApi.VariantClear(&value);
    const bool sent = objectApi.Invoke(object, context, &report, nullptr);
    if (!sent)
        objectApi.DestroyContext(context);
    return sent;
}

void OnConnectionStateChanged(void *userData, int32_t current, int32_t reported)
{
    Tell("connection ", current, ' ', reported);
    if (current == CONNECTION_CONNECTED)
        Tell(channelApi.Connect() ? "connecting" : "connect failed");
    else
        From(userData)->Disconnected();
}

void OnChannelStateChanged(void *, int32_t current, int32_t reported)
{
    Tell("channel ", current, ' ', reported, " session ", channelApi.GetSessionType());
}

void OnInvoke(void *userData, void *context)
{
    std::ostringstream text;
    text << "message of " << contextApi.GetParamCount(context);
    for (int32_t i = 0; i < contextApi.GetParamCount(context); ++i) {
        Variant value;
        contextApi.GetParam(context, i, &value);
        if (value.type == ODP_VT_BLOB) {
            const std::string bytes(static_cast<const char *>(value.blobData), value.value.blobLength);
            if (echo)
                Send(static_cast<Object *>(userData)->handle, bytes, kNoReport);
            text << " [" << bytes << ']';
        } else {
            text << ' ' << value.value.number;
        }
        variantApi.VariantClear(&value);
    }
    if (!echo)
        Tell(text.str());
}

void OnObjectState(void *userData)
{
    auto *object = static_cast<Object *>(userData);
    const int32_t state = objectApi.GetObjectState(object->handle);
    Tell(object->what, ' ', state);
    uint32_t type = 0;
    if (state == OBJECT_DISCONNECTED)
        object->Destroy();
    else if (objectApi.GetObjectOptions(object->handle, &type) && type != 0 && !object->sideAsked) {
        object->sideAsked = true;
        objectApi.RequestSideChannel(object->handle, static_cast<int32_t>(type), "test");
    }
}

void OnPeerChannelObjectCreated(void *userData, const char *name)
{
    Tell("peer ", name);
    Object &object = std::strstr(name, "Control") != nullptr ? From(userData)->control : From(userData)->data;
    const ObjectSink sink{1, OnInvoke, OnObjectState};
    void *handle = nullptr;
    if (!objectApi.CreateObject(name, &sink, &object, 0xD, &handle))
        Tell("no object");
    object.handle = handle;
    object.sideAsked = false;
}

bool OnOrder(void *context, const char *, const char *cookie, const char *data)
{
    const std::string order = data;
    if (order.starts_with("post "))
        return Send(From(context)->data.handle, order.substr(5), kNoReport);
    if (order.starts_with("ask "))
        return Send(From(context)->data.handle, order.substr(4), kReport);
    if (order == "echo")
        return echo = true;
    return order == "cookie" && observerApi.Send("TEST_EVENT", cookie, "answer");
}

template <typename Table> bool Query(const PluginHostRecord *record, uint16_t number, Table *table)
{
    const OdpGuid id = ODP_GUID_INITIALIZER(number);
    return record->QueryInterface(&id, table);
}

} // namespace

EXPORT int32_t DllRegisterServer()
{
    return 0;
}

EXPORT int32_t DllUnregisterServer()
{
    return 0;
}

EXPORT bool ODPService_PluginGetTokenName(char *buffer, int32_t size)
{
    return std::snprintf(buffer, static_cast<size_t>(size), "test") > 0;
}

EXPORT bool ODPService_PluginInit(const PluginHostRecord *record)
{
    return Query(record, ODP_SERVICE_CHANNEL_V3, &channelApi) &&
           Query(record, ODP_CHANNEL_OBJECT_V4, &objectApi) &&
           Query(record, ODP_CHANNEL_CONTEXT_V2, &contextApi) && Query(record, ODP_VARIANT, &variantApi) &&
           Query(record, ODP_OBSERVER, &observerApi);
}

EXPORT bool ODPService_PluginExit()
{
    return true;
}

EXPORT bool ODPService_PluginCreateInstance(void *, void **instance)
{
    auto *made = new Instance;
    *instance = made;
    echo = false;
    Tell("created");
    const ChannelSink sink{1, OnConnectionStateChanged, OnChannelStateChanged, OnPeerChannelObjectCreated};
    made->observerId = observerApi.Subscribe("TEST_ORDER", made, OnOrder);
    channelApi.RegisterChannelNotifySink(&sink, made, &made->sinkId);
    if (channelApi.GetConnectionState() == CONNECTION_CONNECTED)
        OnConnectionStateChanged(made, CONNECTION_CONNECTED, CONNECTION_CONNECTED);
    return true;
}

EXPORT bool ODPService_PluginDestroyInstance(void *instance)
{
    From(instance)->Disconnected();
    channelApi.UnregisterChannelNotifySink(From(instance)->sinkId);
    observerApi.Unsubscribe(From(instance)->observerId);
    delete From(instance);
    Tell("destroyed");
    return true;
}
