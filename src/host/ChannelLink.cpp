#include "host/ChannelLink.h"

#include "host/AgentDoor.h"

namespace fodr::host {

// Whether a frame may come now; the connection ends when not.
bool ChannelLink::Expect(bool onMainOnly)
{
    if (greeted && (!onMainOnly || kind == Kind::Main))
        return true;
    connection.Close(greeted ? "the agent sent a frame on a side channel that doesn't belong there"
                             : "the agent didn't greet first");
    return false;
}

void ChannelLink::OnHello(const transport::Hello &frame)
{
    if (kind == Kind::Side || greeted || frame.role != transport::Role::Agent)
        return connection.Close("the other side isn't an agent");
    if (!expectedToken.empty() && !SameToken(frame.token, expectedToken))
        return connection.Close("the agent doesn't know the agreed token");
    greeted = true;
    connection.SetKeepAlive(keepAlive);
    owner->OnLinkHello(id);
}

void ChannelLink::OnObjectAnnounce(const transport::ObjectAnnounce &frame)
{
    if (Expect(true))
        owner->OnLinkAnnounce(id, frame);
}

void ChannelLink::OnObjectState(const transport::ObjectState &frame)
{
    if (Expect(true))
        owner->OnLinkObjectState(id, frame);
}

void ChannelLink::OnMessage(const transport::Message &frame)
{
    if (!Expect(false))
        return;
    const bool taken = owner->OnLinkMessage(frame);
    if ((frame.flags & transport::Message::kPost) != 0)
        return;
    if (taken)
        connection.Send(transport::MessageDone{frame.object, frame.requestId});
    else
        connection.Send(transport::MessageAbort{frame.object, frame.requestId, 0});
}

void ChannelLink::OnMessageDone(const transport::MessageDone &frame)
{
    if (Expect(false))
        owner->OnLinkMessageDone(frame);
}

void ChannelLink::OnMessageAbort(const transport::MessageAbort &frame)
{
    if (Expect(false))
        owner->OnLinkMessageAbort(frame);
}

void ChannelLink::OnSideOffer(const transport::SideOffer &frame)
{
    if (Expect(true))
        owner->OnLinkSideOffer(id, frame);
}

void ChannelLink::OnSideRefused(const transport::SideRefused &frame)
{
    if (Expect(true))
        owner->OnLinkSideRefused(id, frame);
}

void ChannelLink::OnNotice(const transport::Notice &frame)
{
    if (Expect(true))
        owner->OnLinkNotice(id, frame);
}

void ChannelLink::OnGoodbye(const transport::Goodbye &frame)
{
    // May come instead of a greeting, to say why there is none.
    owner->OnLinkGoodbye(id, frame);
}

} // namespace fodr::host
