// The other end of a channel, over the real transport, one frame at a time: what it hears is lines in the
// order of arrival, over the main and the side connection alike.
#pragma once

#include "Mailbox.h"
#include "transport/FrameRecorder.h"

#include <atomic>
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

    explicit TestAgent(std::unique_ptr<platform::ByteStream> stream, bool reads = true)
        : main(this, "", std::move(stream), reads)
    {}

    transport::FrameConnection &Main() { return main.connection; }
    transport::FrameConnection &Side() { return side->connection; }

    void Greet(const std::string &token = "")
    {
        Main().Send(transport::Hello{.role = transport::Role::Agent, .token = token});
    }
    void AnnounceObjects(uint32_t dataOptions)
    {
        Main().Send(transport::ObjectAnnounce{kControl, 0, 0, "testControlObj"});
        Main().Send(transport::ObjectAnnounce{kData, 0, dataOptions, "testDataObj"});
    }
    // Takes the side connection that was offered.
    void TakeSide(platform::StreamListener *listener)
    {
        side = std::make_unique<End>(this, "side: ", listener->Accept(), true);
    }

    Lines heard;
    std::atomic<uint32_t> lastRequest{0};

private:
    struct End final : FrameRecorder {
        End(TestAgent *owner, std::string lineStart, std::unique_ptr<platform::ByteStream> stream, bool reads)
            : agent(owner), prefix(std::move(lineStart)), connection(std::move(stream), this)
        {
            if (reads)
                connection.Start();
        }
        void OnMessage(const transport::Message &f) override
        {
            transport::Message shown = f;
            agent->lastRequest = std::exchange(shown.requestId, 0); // differs from run to run
            FrameRecorder::OnMessage(shown);
        }
        void Hear(const std::string &line) override { agent->heard.Add(prefix + line); }

        TestAgent *const agent;
        const std::string prefix;
        transport::FrameConnection connection;
    };
    End main;
    std::unique_ptr<End> side;
};

} // namespace fodr::test
