#include "plugin/RecordingHost.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fodr::test {

namespace {

RecordingHost *host = nullptr;

std::string Text(const char *format, const std::string &a, uint32_t b)
{
    char buffer[200];
    std::snprintf(buffer, sizeof(buffer), format, a.c_str(), b);
    return buffer;
}

RecordingHost::ObjectHandle *HandleOf(void *handle)
{
    return static_cast<RecordingHost::ObjectHandle *>(handle);
}

RecordingHost::Message *MessageOf(void *context)
{
    return static_cast<RecordingHost::Message *>(context);
}

bool CreateObject(const char *name, const ObjectSink *sink, void *userData, uint32_t flags, void **handle)
{
    host->calls.push_back(Text("CreateObject %s 0x%x", name, flags));
    auto *object = new RecordingHost::ObjectHandle{name, *sink, userData, flags};
    host->objects[name] = object;
    *handle = object;
    return true;
}

bool DestroyObject(void *handle)
{
    host->calls.push_back("DestroyObject " + HandleOf(handle)->name);
    host->objects.erase(HandleOf(handle)->name);
    delete HandleOf(handle);
    return true;
}

bool CreateContext(void *, void **context)
{
    *context = new RecordingHost::Message;
    ++host->liveMessages;
    return true;
}

bool CreateExtContext(void *, uint32_t options, void **context)
{
    *context = new RecordingHost::Message{{}, false, options};
    ++host->liveMessages;
    return true;
}

bool DestroyContext(void *context)
{
    delete MessageOf(context);
    --host->liveMessages;
    return true;
}

bool Invoke(void *, void *context, const MessageSink *sink, void *)
{
    host->lastMessageSink = *sink;
    if (!host->invokeSucceeds)
        return false;
    for (const std::string &block : MessageOf(context)->blocks)
        host->AddSent(block);
    host->lastWasPosted = MessageOf(context)->posted;
    return DestroyContext(context);
}

void AppendParam(void *context, const Variant *value)
{
    if (value->type == ODP_VT_BLOB)
        MessageOf(context)->blocks.emplace_back(static_cast<const char *>(value->blobData),
                                                value->value.blobLength);
}

void BlobInto(Variant *value, const void *data, uint32_t length)
{
    value->type = ODP_VT_BLOB;
    value->value.blobLength = length;
    value->blobData = std::malloc(length + 1);
    std::memcpy(value->blobData, data, length);
}

void GetParam(void *context, int32_t index, Variant *value)
{
    const std::string &block = MessageOf(context)->blocks[static_cast<size_t>(index)];
    BlobInto(value, block.data(), static_cast<uint32_t>(block.size()));
}

bool SetOps(void *context, uint32_t option, const Variant *value)
{
    MessageOf(context)->posted = option == ODP_MESSAGE_POST && value->value.number == 1;
    return true;
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
    table->Connect = []() {
        host->calls.push_back("Connect");
        return host->connectSucceeds;
    };
    table->Disconnect = []() {
        host->calls.push_back("Disconnect");
        return true;
    };
    table->GetConnectionState = []() { return host->connectionState; };
    table->GetSessionType = []() { return host->sessionType; };
}

void FillObject(ODPRPC_ChannelObjectInterface *table)
{
    table->CreateObject = CreateObject;
    table->DestroyObject = DestroyObject;
    table->GetObjectState = [](void *handle) { return host->objectStates[HandleOf(handle)->name]; };
    table->CreateContext = CreateContext;
    table->DestroyContext = DestroyContext;
    table->Invoke = Invoke;
    table->RequestSideChannel = [](void *, int32_t type, const char *token) {
        host->calls.push_back("RequestSideChannel " + std::to_string(type) + " " + token);
    };
    if (host->withObjectOptions) {
        table->GetObjectOptions = [](void *, uint32_t *options) {
            *options = host->objectOptions;
            return true;
        };
    }
    if (host->withExtContext)
        table->CreateExtContext = CreateExtContext;
}

void FillContext(ODPRPC_ChannelContextInterface *table)
{
    table->GetId = [](void *) { return 1u; };
    table->SetCommand = [](void *, uint32_t) {};
    table->GetParamCount = [](void *context) {
        return static_cast<int32_t>(MessageOf(context)->blocks.size());
    };
    table->AppendParam = AppendParam;
    table->GetParam = GetParam;
    table->SetOps = SetOps;
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
        host->calls.push_back(std::string("Subscribe ") + name);
        host->command = callback;
        host->commandContext = context;
        return host->subscriptionId;
    };
    table->Unsubscribe = [](uint32_t id) { host->calls.push_back("Unsubscribe " + std::to_string(id)); };
    table->Send = [](const char *name, const char *cookie, const char *text) {
        host->notices.push_back(std::string(name) + "|" + (cookie ? cookie : "(null)") + "|" + text);
        return true;
    };
}

bool QueryInterface(const OdpGuid *id, void *table)
{
    const OdpGuid expected = ODP_GUID_INITIALIZER(id->data2);
    if (std::memcmp(id, &expected, sizeof(expected)) != 0)
        return false;
    host->asked.push_back(id->data2);
    if (host->refused.count(id->data2))
        return false;
    switch (id->data2) {
    case ODP_SERVICE_CHANNEL_V3:
    case ODP_SERVICE_CHANNEL_V2:
    case ODP_SERVICE_CHANNEL_V1:
        FillChannel(static_cast<ODPService_ChannelInterface *>(table));
        return true;
    case ODP_CHANNEL_OBJECT_V4:
    case ODP_CHANNEL_OBJECT_V3:
    case ODP_CHANNEL_OBJECT_V2:
    case ODP_CHANNEL_OBJECT_V1:
        FillObject(static_cast<ODPRPC_ChannelObjectInterface *>(table));
        return true;
    case ODP_CHANNEL_CONTEXT_V2:
    case ODP_CHANNEL_CONTEXT_V1:
        FillContext(static_cast<ODPRPC_ChannelContextInterface *>(table));
        return true;
    case ODP_VARIANT:
        FillVariant(static_cast<ODPRPC_VariantInterface *>(table));
        return true;
    case ODP_OBSERVER:
        FillObserver(static_cast<ODPObserver *>(table));
        return true;
    default: // interfaces that are only asked for
        return true;
    }
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

void RecordingHost::AddSent(const std::string &block)
{
    std::lock_guard held(sentLock);
    sent.push_back(block);
    sentMore.notify_all();
}

std::vector<std::string> RecordingHost::WaitForSent(size_t count)
{
    std::unique_lock held(sentLock);
    sentMore.wait(held, [&] { return sent.size() >= count; });
    return sent;
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

void RecordingHost::Object(const std::string &name, int32_t state)
{
    objectStates[name] = state;
    ObjectHandle handle = *objects.at(name); // the notice may destroy the object
    handle.sink.OnObjectStateChanged(handle.userData);
}

void RecordingHost::Deliver(const std::vector<std::string> &blocks)
{
    Message message{blocks, false, 0};
    ObjectHandle *object = objects.at("fodrDataObj");
    object->sink.OnInvoke(object->userData, &message);
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
    Object("fodrControlObj", OBJECT_CONNECTED);
    Object("fodrDataObj", OBJECT_CONNECTED);
}

} // namespace fodr::test
