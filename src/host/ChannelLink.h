// One connection to an agent as a channel uses it: the main one, or that of a side channel.
#pragma once

#include "transport/FrameConnection.h"

#include <cstdint>
#include <memory>

namespace fodr::host {

// Called by a link, on its reader thread. `link` numbers tell links of one channel apart.
class ILinkOwner {
public:
    virtual void OnLinkHello(uint64_t link) = 0;
    virtual void OnLinkAnnounce(uint64_t link, const transport::ObjectAnnounce &frame) = 0;
    virtual void OnLinkObjectState(uint64_t link, const transport::ObjectState &frame) = 0;
    // False when no object takes it.
    virtual bool OnLinkMessage(const transport::Message &frame) = 0;
    virtual void OnLinkMessageDone(const transport::MessageDone &frame) = 0;
    virtual void OnLinkMessageAbort(const transport::MessageAbort &frame) = 0;
    virtual void OnLinkSideOffer(uint64_t link, const transport::SideOffer &frame) = 0;
    virtual void OnLinkSideRefused(uint64_t link, const transport::SideRefused &frame) = 0;
    virtual void OnLinkNotice(uint64_t link, const transport::Notice &frame) = 0;
    virtual void OnLinkGoodbye(uint64_t link, const transport::Goodbye &frame) = 0;
    virtual void OnLinkClosed(uint64_t link, const std::string &reason) = 0;

protected:
    ~ILinkOwner() = default;
};

class ChannelLink final : private transport::IConnectionReceiver {
public:
    enum class Kind { Main, Side };

    // `told` outlives the link. A main link takes nothing before a Hello that shows `wantedToken`.
    ChannelLink(Kind linkKind, uint64_t linkId, ILinkOwner *told,
                std::unique_ptr<platform::ByteStream> stream, const std::string &wantedToken,
                const transport::KeepAlive &times)
        : kind(linkKind), id(linkId), owner(told), expectedToken(wantedToken), keepAlive(times),
          greeted(linkKind == Kind::Side), connection(std::move(stream), this)
    {
        if (greeted)
            connection.SetKeepAlive(keepAlive);
    }

    uint64_t Id() const { return id; }
    transport::FrameConnection &Connection() { return connection; }

private:
    bool Expect(bool onMainOnly);
    void OnHello(const transport::Hello &frame) override;
    void OnObjectAnnounce(const transport::ObjectAnnounce &frame) override;
    void OnObjectState(const transport::ObjectState &frame) override;
    void OnMessage(const transport::Message &frame) override;
    void OnMessageDone(const transport::MessageDone &frame) override;
    void OnMessageAbort(const transport::MessageAbort &frame) override;
    void OnSideOffer(const transport::SideOffer &frame) override;
    void OnSideRefused(const transport::SideRefused &frame) override;
    void OnNotice(const transport::Notice &frame) override;
    void OnGoodbye(const transport::Goodbye &frame) override;
    void OnClosed(const std::string &reason) override { owner->OnLinkClosed(id, reason); }

    const Kind kind;
    const uint64_t id;
    ILinkOwner *const owner;
    const std::string expectedToken;
    const transport::KeepAlive
        keepAlive; // from the greeting on: before it, somebody may be typing a password
    bool greeted;  // the reader thread's
    transport::FrameConnection connection;
};

} // namespace fodr::host
