// A plug-in as a third party would write it: only the public boundary, all eight exports. What it hears it
// tells on the message bus as "TEST_EVENT"; it takes orders as "TEST_ORDER". The options of the peer's data
// object say which side channel it asks for: 0x20 TCP, 0x10 virtual, 0x40 BOLT, 0x30 none.
#include "odpservice/odpservice.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

ODPService_ChannelInterface channelApi;
ODPRPC_ChannelObjectInterface objectApi;
ODPRPC_ChannelContextInterface contextApi;
ODPRPC_VariantInterface variantApi;
ODPObserver observerApi;
bool initialised = false;

void Tell(const std::string &text)
{
    observerApi.Send("TEST_EVENT", nullptr, text.c_str());
}

std::string Pair(int32_t current, int32_t reported)
{
    return std::to_string(current) + (current == reported ? "" : " reported " + std::to_string(reported));
}

struct Instance {
    uint32_t sinkId = 0;
    uint32_t observerId = 0;
    bool connecting = false;
    void *control = nullptr;
    std::atomic<void *> data{nullptr};
    bool echo = false;

    void Connected()
    {
        connecting = channelApi.Connect();
        Tell(connecting ? "connecting" : "connect failed");
    }
    void Disconnected()
    {
        if (connecting)
            channelApi.Disconnect();
        connecting = false;
        Destroy(data.exchange(nullptr), "data");
        Destroy(control, "control");
        control = nullptr;
    }
    static void Destroy(void *handle, const char *what)
    {
        if (handle != nullptr)
            Tell(std::string(what) + (objectApi.DestroyObject(handle) ? " destroyed" : " not destroyed"));
    }

    bool Send(const std::string &text, bool wantDone);
};

Instance *From(void *userData)
{
    return static_cast<Instance *>(userData);
}

void OnMsgDone(void *, uint32_t, void *context)
{
    Tell("done " + std::to_string(contextApi.GetParamCount(context)));
}

void OnMsgAbort(void *, uint32_t, uint8_t byUser, uint32_t reason)
{
    Tell("abort " + std::to_string(byUser) + " " + std::to_string(reason));
}

bool Instance::Send(const std::string &text, bool wantDone)
{
    void *context = nullptr;
    if (!objectApi.CreateContext(data, &context))
        return false;
    Variant value;
    variantApi.VariantInit(&value);
    if (!wantDone) {
        variantApi.VariantFromUInt32(&value, 1);
        contextApi.SetOps(context, ODP_MESSAGE_POST, &value);
        variantApi.VariantClear(&value);
    }
    contextApi.SetCommand(context, 0);
    const Blob blob{static_cast<uint32_t>(text.size()), 0, text.data()};
    variantApi.VariantFromBlob(&value, &blob);
    contextApi.AppendParam(context, &value);
    variantApi.VariantClear(&value);
    const MessageSink sink{1, wantDone ? OnMsgDone : nullptr, wantDone ? OnMsgAbort : nullptr};
    const bool sent = objectApi.Invoke(data, context, &sink, this);
    if (!sent)
        objectApi.DestroyContext(context);
    return sent;
}

void OnConnectionStateChanged(void *userData, int32_t current, int32_t reported)
{
    Tell("connection " + Pair(current, reported));
    if (current == CONNECTION_CONNECTED)
        From(userData)->Connected();
    else
        From(userData)->Disconnected();
}

void OnChannelStateChanged(void *, int32_t current, int32_t reported)
{
    Tell("channel " + Pair(current, reported) + " session " + std::to_string(channelApi.GetSessionType()));
}

void OnInvoke(void *userData, void *context)
{
    Variant value;
    variantApi.VariantInit(&value);
    std::string text = "message of " + std::to_string(contextApi.GetParamCount(context));
    std::string bytes;
    for (int32_t i = 0; i < contextApi.GetParamCount(context); ++i) {
        contextApi.GetParam(context, i, &value);
        if (value.type == ODP_VT_BLOB) {
            bytes.assign(static_cast<const char *>(value.blobData), value.value.blobLength);
            text += value.value.blobLength > 100 ? " " + std::to_string(value.value.blobLength)
                                                 : " [" + bytes + "]";
        } else {
            text += " " + std::to_string(value.value.number);
        }
        variantApi.VariantClear(&value);
    }
    if (From(userData)->echo)
        From(userData)->Send(bytes, false);
    else
        Tell(text);
}

void OnControlState(void *userData)
{
    Tell("control " + std::to_string(objectApi.GetObjectState(From(userData)->control)));
}

void OnDataState(void *userData)
{
    Instance *instance = From(userData);
    const int32_t state = objectApi.GetObjectState(instance->data);
    uint32_t options = 0;
    objectApi.GetObjectOptions(instance->data, &options);
    Tell("data " + std::to_string(state));
    static bool pending = false;
    if (state == OBJECT_CONNECTED && !pending && options != 0x30 && options != 0) {
        pending = true;
        const int32_t type = options == ODP_OPTION_TCP    ? SIDE_CHANNEL_TCP
                             : options == ODP_OPTION_BOLT ? SIDE_CHANNEL_BOLT
                                                          : SIDE_CHANNEL_VIRTUAL;
        objectApi.RequestSideChannel(instance->data, type, "test");
    } else if (state != OBJECT_SIDE_CHANNEL_PENDING) {
        pending = false;
    }
    if (state == OBJECT_DISCONNECTED)
        Instance::Destroy(instance->data.exchange(nullptr), "data");
}

void OnPeerChannelObjectCreated(void *userData, const char *name)
{
    Tell(std::string("peer ") + name);
    const bool control = std::strstr(name, "Control") != nullptr;
    const ObjectSink sink{1, OnInvoke, control ? OnControlState : OnDataState};
    void *handle = nullptr;
    if (!objectApi.CreateObject(name, &sink, userData, 0xD, &handle))
        Tell("no object");
    else if (control)
        From(userData)->control = handle;
    else
        From(userData)->data = handle;
}

bool OnOrder(void *context, const char *, const char *cookie, const char *data)
{
    Instance *instance = From(context);
    const std::string order = data;
    if (order == "echo")
        instance->echo = true;
    else if (order.starts_with("post "))
        Tell(instance->Send(order.substr(5), false) ? "posted" : "not posted");
    else if (order.starts_with("ask "))
        Tell(instance->Send(order.substr(4), true) ? "asked" : "not asked");
    else if (order == "cookie")
        observerApi.Send("TEST_ANSWER", cookie, "answer");
    else
        return false;
    return true;
}

template <typename Table> bool Query(const PluginHostRecord *record, uint16_t number, Table *table)
{
    const OdpGuid id = ODP_GUID_INITIALIZER(number);
    return record->QueryInterface(&id, table);
}

} // namespace

EXPORT int32_t DllMain(void *, uint32_t, void *)
{
    return 1;
}

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
    std::snprintf(buffer, static_cast<size_t>(size), "test");
    return true;
}

EXPORT bool ODPService_PluginInit(const PluginHostRecord *record)
{
    initialised = Query(record, ODP_SERVICE_CHANNEL_V3, &channelApi) &&
                  Query(record, ODP_CHANNEL_OBJECT_V4, &objectApi) &&
                  Query(record, ODP_CHANNEL_CONTEXT_V2, &contextApi) &&
                  Query(record, ODP_VARIANT, &variantApi) && Query(record, ODP_OBSERVER, &observerApi);
    return true;
}

EXPORT bool ODPService_PluginExit()
{
    Tell("exit");
    initialised = false;
    return true;
}

EXPORT bool ODPService_PluginCreateInstance(void *, void **instance)
{
    if (!initialised)
        return false;
    auto *made = new Instance;
    Tell("created");
    const ChannelSink sink{1, OnConnectionStateChanged, OnChannelStateChanged, OnPeerChannelObjectCreated};
    made->observerId = observerApi.Subscribe("TEST_ORDER", made, OnOrder);
    channelApi.RegisterChannelNotifySink(&sink, made, &made->sinkId);
    if (channelApi.GetConnectionState() == CONNECTION_CONNECTED)
        OnConnectionStateChanged(made, CONNECTION_CONNECTED, CONNECTION_CONNECTED);
    *instance = made;
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
