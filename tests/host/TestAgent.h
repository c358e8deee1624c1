// The other end of a channel, over the real transport, one frame at a time: what it hears is lines in the
// order of arrival, over the main and the side connection alike.
#pragma once

#include "Mailbox.h"
#include "transport/FrameConnection.h"
#include "transport/FrameRecorder.h"

#include <memory>
#include <string>

namespace fodr::test {

// Lines from any thread, taken in order.
class Lines {
public:
    void Add(const std::string &line) { lines.Put(line); }
    std::string Next() { return lines.Take(); }
    // The next `count` lines, one a line.
    std::string Take(size_t count)
    {
        std::string all;
        for (; count > 0; --count)
            all += Next() + "\n";
        return all;
    }
    bool Empty() { return lines.IsEmpty(); }

private:
    Mailbox<std::string> lines;
};

class TestAgent {
public:
    static constexpr uint32_t kControl = 1;
    static constexpr uint32_t kData = 2;

    explicit TestAgent(std::unique_ptr<platform::ByteStream> stream) : main(this, "", std::move(stream)) {}
    ~TestAgent()
    {
        if (side)
            side->connection.Close("test over");
        main.connection.Close("test over");
    }

    transport::FrameConnection &Main() { return main.connection; }
    transport::FrameConnection &Side() { return side->connection; }

    void Greet(const std::string &token = "")
    {
        transport::Hello hello;
        hello.role = transport::Role::Agent;
        hello.token = token;
        main.connection.Send(hello);
    }
    void AnnounceObjects(uint32_t dataOptions)
    {
        main.connection.Send(transport::ObjectAnnounce{kControl, 0, 0x30, "testControlObj"});
        main.connection.Send(transport::ObjectAnnounce{kData, 0, dataOptions, "testDataObj"});
    }
    // Takes the side connection that was offered.
    void TakeSide(platform::StreamListener *listener)
    {
        side = std::make_unique<End>(this, "side: ", listener->Accept());
    }

    Lines heard;
    transport::Secret shownSecret{};

private:
    struct End final : transport::IConnectionReceiver {
        End(TestAgent *owner, std::string lineStart, std::unique_ptr<platform::ByteStream> stream)
            : agent(owner), prefix(std::move(lineStart)), connection(std::move(stream), this)
        {
            connection.Start();
        }

        template <typename Frame>
        void Record(void (FrameRecorder::*method)(const Frame &), const Frame &frame)
        {
            FrameRecorder recorder;
            (recorder.*method)(frame);
            const std::string text = recorder.Heard();
            agent->heard.Add(prefix + text.substr(0, text.size() - 1));
        }
        void OnHello(const transport::Hello &f) override { Record(&FrameRecorder::OnHello, f); }
        void OnObjectState(const transport::ObjectState &f) override
        {
            Record(&FrameRecorder::OnObjectState, f);
        }
        void OnMessage(const transport::Message &f) override
        {
            // The request id differs from run to run.
            std::string text = prefix + "message " + std::to_string(f.object) + " " + std::to_string(f.flags);
            for (const transport::Parameter &parameter : f.Parameters())
                text += parameter.block.size() > 100 ? " " + std::to_string(parameter.block.size())
                                                     : " [" + TextOf(parameter.block) + "]";
            agent->lastRequest = f.requestId;
            agent->heard.Add(text);
        }
        void OnMessageDone(const transport::MessageDone &f) override
        {
            Record(&FrameRecorder::OnMessageDone, f);
        }
        void OnMessageAbort(const transport::MessageAbort &f) override
        {
            Record(&FrameRecorder::OnMessageAbort, f);
        }
        void OnSideRequest(const transport::SideRequest &f) override
        {
            Record(&FrameRecorder::OnSideRequest, f);
        }
        void OnSideHello(const transport::SideHello &f) override
        {
            agent->shownSecret = f.secret;
            agent->heard.Add(prefix + "hello " + std::to_string(f.object));
        }
        void OnGoodbye(const transport::Goodbye &f) override { Record(&FrameRecorder::OnGoodbye, f); }
        void OnClosed(const std::string &) override { agent->heard.Add(prefix + "closed"); }

        TestAgent *const agent;
        const std::string prefix;
        transport::FrameConnection connection;
    };

public:
    std::atomic<uint32_t> lastRequest{0};

private:
    End main;
    std::unique_ptr<End> side;
};

} // namespace fodr::test
