// RPCPluginInstance: the messages that go out, and what comes of them.
#include "plugin/RPCManager.h"
#include "plugin/RPCPluginInstance.h"
#include "runtime/LogCall.h"

#include <algorithm>

namespace fodr {

namespace {

constexpr int64_t kSlowRequestMS = 1000;

} // namespace

bool RPCPluginInstance::CreateMessage(void **message, int32_t channelNumber)
{
    void *object = ObjectOf(channelNumber);
    if (!object) {
        LOG_DEBUG("Failed to create message (hChannel == NULL)\n");
        return false;
    }
    if (!ready) {
        LOG_DEBUG("Failed to create message (not ready)\n");
        return false;
    }
    if (!manager->objectApi.CreateContext(object, message)) {
        LOG_DEBUG("Failed to create message (CreateContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::CreateExtMessage(void **message, int32_t channelNumber, uint32_t options)
{
    if (options == 0)
        return CreateMessage(message, channelNumber);
    if (!manager->objectApi.CreateExtContext) {
        LOG_ERROR("Failed to create message (API not available for 0x%x)\n", options);
        return false;
    }
    void *object = ObjectOf(channelNumber);
    if (!object) {
        LOG_DEBUG("Failed to create message (hChannel == NULL)\n");
        return false;
    }
    if (!ready) {
        LOG_DEBUG("Failed to create message (not ready)\n");
        return false;
    }
    if (!manager->objectApi.CreateExtContext(object, options, message)) {
        LOG_DEBUG("Failed to create message (CreateContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::DestroyMessage(void *message)
{
    if (!manager->objectApi.DestroyContext(message)) {
        LOG_DEBUG("Failed to destroy message (DestroyContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::GetChannelOptions(int32_t channelNumber, uint32_t *options)
{
    if (!manager->objectApi.GetObjectOptions) {
        LOG_ERROR("Failed to get channel options (no API) \n");
        return false;
    }
    if (!options) {
        LOG_ERROR("Failed to get channel options (invalid argument) \n");
        return false;
    }
    void *object = ObjectOf(channelNumber);
    if (!object) {
        LOG_DEBUG("Failed to get channel options (hChannel == NULL)\n");
        return false;
    }
    if (!ready) {
        LOG_DEBUG("Failed to get channel options (not ready)\n");
        return false;
    }
    if (!manager->objectApi.GetObjectOptions(object, options)) {
        LOG_DEBUG("Failed to get channel options (GetObjectOptions failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::InvokeMessage(void *message, bool wantCompletion, int32_t channelNumber)
{
    if (RefuseInStreamMode("InvokeMessage"))
        return false;
    MessageSink sink = manager->messageSink;
    if (!wantCompletion) {
        sink.OnMsgDone = nullptr;
        sink.OnMsgAbort = nullptr;
        Variant one;
        manager->variantApi.VariantInit(&one);
        manager->variantApi.VariantFromUInt32(&one, 1);
        if (!manager->contextApi.SetOps(message, ODP_MESSAGE_POST, &one))
            LOG_WARN("Unable to set post mode for odpservice.\n");
        manager->variantApi.VariantClear(&one);
    }
    void *object = ObjectOf(channelNumber);
    if (!object || !ready) {
        LOG_DEBUG("Failed to send message (not ready)\n");
        return false;
    }
    // A posted message adds nothing to the count, so neither the lock nor the event need be touched for it.
    if (wantCompletion) {
        OVMutexLock lock(pendingLock);
        UpdatePending(1);
    }
    uint32_t requestId = manager->contextApi.GetId(message);
    OVElapsedTimer timer;
    if (!manager->objectApi.Invoke(object, message, &sink, this)) {
        // The count isn't taken back, and stays one too high for good.
        LOG_ERROR("Failed to send message (Invoke failed)\n");
        return false;
    }
    if (wantCompletion)
        sentRequests.emplace_back(requestId, timer);
    return true;
}

void RPCPluginInstance::UpdatePending(int32_t delta)
{
    // A completion that nobody waits for leaves the count at zero.
    pendingCount = std::max(pendingCount + delta, 0);
    if (pendingCount == 0)
        noPendingEvent.Set();
    else
        noPendingEvent.Reset();
}

void RPCPluginInstance::HandleMsgDone(uint32_t requestId, void *context)
{
    for (auto entry = sentRequests.begin(); entry != sentRequests.end(); ++entry) {
        int64_t elapsed = entry->second.ElapsedMS(0);
        if (entry->first == requestId) {
            sentRequests.erase(entry);
            break;
        }
        if (elapsed > kSlowRequestMS)
            LOG_DEBUG("Request %d still pending sfter %dms\n", static_cast<int>(entry->first),
                      static_cast<int>(elapsed));
    }
    {
        OVMutexLock lock(pendingLock);
        UpdatePending(-1);
    }
    OnDone(requestId, context);
}

void RPCPluginInstance::HandleMsgAbort(uint32_t requestId, uint8_t userCancel, uint32_t reason)
{
    {
        OVMutexLock lock(pendingLock);
        UpdatePending(-1);
    }
    OnAbort(requestId, userCancel, reason);
}

} // namespace fodr
