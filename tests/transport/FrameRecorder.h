// A receiver that writes down every frame as a line of text.
#pragma once

#include "transport/FrameConnection.h"

#include <sstream>
#include <string>

namespace fodr::test {

inline std::string TextOf(std::span<const std::byte> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

class FrameRecorder : public transport::IConnectionReceiver {
public:
    std::string Heard() const { return heard; }

    void OnHello(const transport::Hello &f) override
    {
        Line("hello ", f.version, ' ', static_cast<int>(f.role), ' ', f.keepAlive.pingAfterMS, ' ',
             f.keepAlive.deadAfterMS, ' ', f.token);
    }
    void OnObjectAnnounce(const transport::ObjectAnnounce &f) override
    {
        Line("announce ", f.object, ' ', f.flags, ' ', f.options, ' ', f.name);
    }
    void OnObjectState(const transport::ObjectState &f) override { Line("state ", f.object, ' ', f.state); }
    void OnMessage(const transport::Message &f) override
    {
        std::ostringstream parameters;
        for (const transport::Parameter &parameter : f.Parameters()) {
            if (parameter.isBlock)
                parameters << " [" << TextOf(parameter.block) << ']';
            else
                parameters << ' ' << parameter.number;
        }
        Line("message ", f.object, ' ', f.requestId, ' ', f.command, ' ', f.flags, parameters.str());
    }
    void OnMessageDone(const transport::MessageDone &f) override
    {
        Line("done ", f.object, ' ', f.requestId);
    }
    void OnMessageAbort(const transport::MessageAbort &f) override
    {
        Line("abort ", f.object, ' ', f.requestId, ' ', f.reason);
    }
    void OnSideRequest(const transport::SideRequest &f) override
    {
        Line("side request ", f.object, ' ', f.type);
    }
    void OnSideOffer(const transport::SideOffer &f) override
    {
        Line("side offer ", f.object, ' ', f.port, ' ', TextOf(f.secret));
    }
    void OnSideRefused(const transport::SideRefused &f) override
    {
        Line("side refused ", f.object, ' ', f.reason);
    }
    void OnSideHello(const transport::SideHello &f) override
    {
        Line("side hello ", f.object, ' ', TextOf(f.secret));
    }
    void OnSideReady(const transport::SideReady &f) override { Line("side ready ", f.object); }
    void OnNotice(const transport::Notice &f) override
    {
        Line("notice ", static_cast<int>(f.kind), ' ', f.text);
    }
    void OnGoodbye(const transport::Goodbye &f) override { Line("goodbye ", f.reason); }
    void OnPing(const transport::Ping &) override { Line("ping"); }
    void OnPong(const transport::Pong &) override { Line("pong"); }
    void OnClosed(const std::string &reason) override { Line("closed: ", reason); }

protected:
    virtual void Hear(const std::string &line) { heard += line + "\n"; }

private:
    template <typename... Parts> void Line(const Parts &...parts)
    {
        std::ostringstream line;
        (line << ... << parts);
        Hear(line.str());
    }

    std::string heard;
};

} // namespace fodr::test
