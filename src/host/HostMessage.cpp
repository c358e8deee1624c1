#include "host/HostMessage.h"

#include <atomic>

namespace fodr::host {
namespace {

uint32_t NextId()
{
    static std::atomic<uint32_t> last{0};
    return ++last;
}

} // namespace

HostMessage::HostMessage(uint32_t options) : id(NextId()), extOptions(options) {}

HostMessage::HostMessage(const transport::Message &received)
    : incoming(&received), id(received.requestId), command(received.command),
      post((received.flags & transport::Message::kPost) != 0)
{}

HostMessage::~HostMessage()
{
    for (size_t i = 0; i < count; ++i)
        ClearVariant(&parameters[i]);
}

bool HostMessage::SetOption(uint32_t option, const Variant *value)
{
    if (option != ODP_MESSAGE_POST || value == nullptr || value->type != ODP_VT_UI4)
        return false;
    post = value->value.number != 0;
    return true;
}

int32_t HostMessage::ParameterCount() const
{
    return incoming != nullptr ? incoming->parameterCount : count;
}

void HostMessage::Append(const Variant &value)
{
    const bool known = value.type == ODP_VT_UI4 || value.type == ODP_VT_BLOB;
    if (!known || count == parameters.size() || incoming != nullptr) {
        overfull = true;
        return;
    }
    ShareVariant(&parameters[count], value);
    if (parameters[count].type == value.type)
        ++count;
    else
        overfull = true; // no memory for a copy
}

void HostMessage::Get(int32_t index, Variant *value) const
{
    InitVariant(value);
    if (index < 0 || index >= ParameterCount())
        return;
    const auto at = static_cast<size_t>(index);
    if (incoming == nullptr) {
        ShareVariant(value, parameters[at]);
        return;
    }
    const transport::Parameter &parameter = incoming->parameters[at];
    if (parameter.isBlock)
        SetBlock(value, parameter.block);
    else
        SetNumber(value, parameter.number);
}

bool HostMessage::ToFrame(transport::Message *frame) const
{
    frame->requestId = id;
    frame->command = command;
    frame->flags = post ? transport::Message::kPost : 0;
    frame->parameterCount = count;
    for (size_t i = 0; i < count; ++i) {
        frame->parameters[i].isBlock = parameters[i].type == ODP_VT_BLOB;
        if (frame->parameters[i].isBlock)
            frame->parameters[i].block = BlockOf(parameters[i]);
        else
            frame->parameters[i].number = parameters[i].value.number;
    }
    return !overfull;
}

} // namespace fodr::host
