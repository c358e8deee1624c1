#include "plugin/RecordingHost.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

namespace fodr::test {

namespace {

RecordingHost *host = nullptr;

template <class Type> Type &As(void *handle)
{
    return *static_cast<Type *>(handle);
}
using Message = RecordingHost::Message;
using Object = RecordingHost::Object;

void BlobInto(Variant *value, const void *data, uint32_t length)
{
    value->type = ODP_VT_BLOB;
    value->value.blobLength = length;
    value->blobData = std::malloc(length + 1);
    std::memcpy(value->blobData, data, length);
}

void FillChannel(ODPService_ChannelInterface *table)
{
    table->RegisterChannelNotifySink = [](const ChannelSink *sink, void *userData, uint32_t *sinkId) {
        host->channelSink = *sink;
        host->channelUserData = userData;
        host->sinkRegistered = true;
        *sinkId = 1;
        return true;
    };
    table->UnregisterChannelNotifySink = [](uint32_t) {
        host->sinkRegistered = false;
        return true;
    };
    table->Connect = []() { return host->Note("Connect"); };
    table->Disconnect = []() { return host->Note("Disconnect"); };
    table->GetConnectionState = []() { return host->connectionState; };
    table->GetSessionType = []() { return host->sessionType; };
}

bool CreateContext(void *, void **context)
{
    *context = new Message;
    ++host->liveMessages;
    return true;
}

bool DestroyContext(void *context)
{
    delete &As<Message>(context);
    --host->liveMessages;
    return true;
}

void FillObject(ODPRPC_ChannelObjectInterface *table)
{
    table->CreateObject = [](const char *name, const ObjectSink *sink, void *userData, uint32_t flags,
                             void **handle) {
        std::ostringstream call;
        call << "CreateObject " << name << " 0x" << std::hex << flags;
        host->objects[name] = {name, *sink, userData};
        *handle = &host->objects[name];
        host->ReportAtOnce(name, OBJECT_CONNECTED);
        return host->Note(call.str());
    };
    table->DestroyObject = [](void *handle) {
        const std::string name = As<Object>(handle).name;
        host->ReportAtOnce(name, OBJECT_DISCONNECTED);
        host->objects.erase(name);
        return host->Note("DestroyObject " + name);
    };
    table->GetObjectState = [](void *handle) { return host->objectStates[As<Object>(handle).name]; };
    table->CreateContext = CreateContext;
    table->DestroyContext = DestroyContext;
    table->Invoke = [](void *, void *context, const MessageSink *sink, void *) {
        host->lastMessageSink = *sink;
        if (!host->invokeSucceeds)
            return false;
        host->lastWasPosted = As<Message>(context).posted;
        for (const std::string &block : As<Message>(context).blocks)
            host->sent.Put(block);
        return DestroyContext(context);
    };
    table->RequestSideChannel = [](void *, int32_t type, const char *token) {
        host->Note("RequestSideChannel " + std::to_string(type) + " " + token);
    };
    if (host->withObjectOptions) {
        table->GetObjectOptions = [](void *, uint32_t *options) {
            *options = host->objectOptions;
            return true;
        };
    }
    if (host->withExtContext) {
        table->CreateExtContext = [](void *object, uint32_t, void **context) {
            return CreateContext(object, context);
        };
    }
}

void FillContext(ODPRPC_ChannelContextInterface *table)
{
    table->GetId = [](void *) { return 1u; };
    table->SetCommand = [](void *, uint32_t) {};
    table->GetParamCount = [](void *context) {
        return static_cast<int32_t>(As<Message>(context).blocks.size());
    };
    table->AppendParam = [](void *context, const Variant *value) {
        As<Message>(context).blocks.emplace_back(static_cast<const char *>(value->blobData),
                                                 value->value.blobLength);
    };
    table->GetParam = [](void *context, int32_t index, Variant *value) {
        const std::string &block = As<Message>(context).blocks.at(static_cast<size_t>(index));
        BlobInto(value, block.data(), static_cast<uint32_t>(block.size()));
    };
    table->SetOps = [](void *context, uint32_t option, const Variant *value) {
        As<Message>(context).posted = option == ODP_MESSAGE_POST && value->value.number == 1;
        return true;
    };
}

void FillVariant(ODPRPC_VariantInterface *table)
{
    table->VariantInit = [](Variant *value) { *value = {}; };
    table->VariantClear = [](Variant *value) {
        if (value->type == ODP_VT_BLOB)
            std::free(value->blobData);
        *value = {};
    };
    table->VariantFromUInt32 = [](Variant *value, uint32_t number) {
        value->type = ODP_VT_UI4;
        value->value.number = number;
    };
    table->VariantFromBlob = [](Variant *value, const Blob *blob) {
        BlobInto(value, blob->data, blob->length);
    };
}

void FillObserver(ODPObserver *table)
{
    table->Subscribe = [](const char *name, void *context, ObserverCallback callback) {
        host->Note(std::string("Subscribe ") + name);
        host->command = callback;
        host->commandContext = context;
        return 7u;
    };
    table->Unsubscribe = [](uint32_t id) { host->Note("Unsubscribe " + std::to_string(id)); };
    table->Send = [](const char *, const char *, const char *) { return true; };
}

template <class Table, void (*Fill)(Table *)> void FillAt(void *table)
{
    Fill(static_cast<Table *>(table));
}
constexpr auto *kChannel = FillAt<ODPService_ChannelInterface, FillChannel>;
constexpr auto *kObject = FillAt<ODPRPC_ChannelObjectInterface, FillObject>;
constexpr auto *kContext = FillAt<ODPRPC_ChannelContextInterface, FillContext>;
const std::map<uint16_t, void (*)(void *table)> kTables = {
    {ODP_SERVICE_CHANNEL_V3, kChannel},
    {ODP_SERVICE_CHANNEL_V2, kChannel},
    {ODP_SERVICE_CHANNEL_V1, kChannel},
    {ODP_CHANNEL_OBJECT_V4, kObject},
    {ODP_CHANNEL_OBJECT_V3, kObject},
    {ODP_CHANNEL_OBJECT_V2, kObject},
    {ODP_CHANNEL_OBJECT_V1, kObject},
    {ODP_CHANNEL_CONTEXT_V2, kContext},
    {ODP_CHANNEL_CONTEXT_V1, kContext},
    {ODP_VARIANT, FillAt<ODPRPC_VariantInterface, FillVariant>},
    {ODP_OBSERVER, FillAt<ODPObserver, FillObserver>},
}; // others are only asked for

bool QueryInterface(const OdpGuid *id, void *table)
{
    const OdpGuid expected = ODP_GUID_INITIALIZER(id->data2);
    if (std::memcmp(id, &expected, sizeof(expected)) != 0)
        return false;
    host->asked.push_back(id->data2);
    if (host->refused.contains(id->data2))
        return false;
    if (const auto fill = kTables.find(id->data2); fill != kTables.end())
        fill->second(table);
    return true;
}

} // namespace

RecordingHost::RecordingHost()
{
    host = this;
    record.QueryInterface = QueryInterface;
}

RecordingHost::~RecordingHost()
{
    host = nullptr;
}

bool RecordingHost::Called(const std::string &call) const
{
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

void RecordingHost::Connection(int32_t current, int32_t reported)
{
    connectionState = current;
    channelSink.OnConnectionStateChanged(channelUserData, current, reported);
}

void RecordingHost::Channel(int32_t state)
{
    channelSink.OnChannelStateChanged(channelUserData, state, state);
}

void RecordingHost::PeerObject(const char *name)
{
    channelSink.OnPeerChannelObjectCreated(channelUserData, name);
}

void RecordingHost::ObjectState(const std::string &name, int32_t state)
{
    objectStates[name] = state;
    const Object object = objects.at(name); // the notice may destroy it
    object.sink.OnObjectStateChanged(object.userData);
}

void RecordingHost::ReportAtOnce(const std::string &name, int32_t state)
{
    if (reportsFromElsewhere)
        std::thread([&] { ObjectState(name, state); }).join();
    else if (reportsAtOnce)
        ObjectState(name, state);
}

void RecordingHost::Deliver(const std::vector<std::string> &blocks)
{
    Message message{blocks};
    const Object &object = objects.at("fodrDataObj");
    object.sink.OnInvoke(object.userData, &message);
}

bool RecordingHost::Command(const std::string &cookie, const std::string &text)
{
    return command(commandContext, "desktop", cookie.c_str(), text.c_str());
}

void RecordingHost::BringUp()
{
    Connection(CONNECTION_CONNECTED);
    Channel(CONNECTION_CONNECTED);
    PeerObject("fodrControlObj");
    PeerObject("fodrDataObj");
    ObjectState("fodrControlObj", OBJECT_CONNECTED);
    ObjectState("fodrDataObj", OBJECT_CONNECTED);
}

} // namespace fodr::test
