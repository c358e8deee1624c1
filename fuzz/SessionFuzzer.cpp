// Whole sessions: the real plug-in in the real host, and an agent that says anything and goes away anywhere.
//
// Input: one byte of options, then what the agent sends: packets, each after its length in 2 bytes, numbered
// as in PacketFuzzer.cpp. The connection ends behind the last of them, with others still being served.
//   bit 0  no handshake first
//   bit 1  answers aren't taken until the end
//   bit 2  the host says goodbye, and the agent goes without an answer
//   bit 3  not packets but bytes of frames, against a host that expects a token
//   bit 4  the last packet is sent once more for each open file, as fast as the stream takes it
#include "FuzzFolder.h"
#include "host/HostChannel.h"
#include "host/PluginHost.h"
#include "odpservice/odpservice.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "transport/FrameConnection.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

using namespace fodr;
using namespace fodr::fuzz;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kControlObject = 1, kDataObject = 2;
constexpr auto kComesUpWithin = 5s;
constexpr auto kAnswersWithin = 20ms;

// Counts what comes, and may keep the reader waiting.
class Agent final : public transport::IConnectionReceiver {
public:
    explicit Agent(std::unique_ptr<platform::ByteStream> stream) : connection(std::move(stream), this)
    {
        connection.Start();
    }
    template <typename Condition> bool WaitFor(std::chrono::milliseconds limit, Condition condition)
    {
        std::unique_lock held(lock);
        return changed.wait_for(held, limit, condition);
    }
    void Stall(bool stalls)
    {
        const std::lock_guard held(lock);
        stalled = stalls;
        changed.notify_all();
    }
    std::vector<uint32_t> Files()
    {
        const std::lock_guard held(lock);
        return files;
    }
    void Post(const std::vector<uint8_t> &packet)
    {
        connection.SendPost(kDataObject, 0, std::as_bytes(std::span(packet)));
    }

    size_t connectedObjects = 0, shares = 0, answers = 0; // under lock
    bool takesShares = false;

    void OnObjectState(const transport::ObjectState &state) override
    {
        const std::lock_guard held(lock);
        connectedObjects += state.state == OBJECT_CONNECTED;
        changed.notify_all();
    }
    void OnMessage(const transport::Message &message) override
    {
        const auto block = message.parameters[0].block;
        const auto *bytes = reinterpret_cast<const uint8_t *>(block.data());
        const std::vector<uint8_t> packet(bytes, bytes + block.size());
        if (packet.size() < kHeaderEnd)
            std::abort();
        std::unique_lock held(lock);
        changed.wait(held, [this] { return !stalled; });
        const auto kind = LoadRecord<RDPDR_HEADER>(packet.data()).PacketId;
        answers += kind == PAKID_CORE_DEVICE_IOCOMPLETION;
        shares += kind == PAKID_CORE_DEVICELIST_ANNOUNCE;
        if (kind == PAKID_CORE_DEVICE_IOCOMPLETION && packet.size() >= kMinCompletionSize &&
            packet[12] == 0 && files.size() < kMostFiles)
            files.push_back(LoadLittle<uint32_t>(&packet[kCompletionBody]));
        changed.notify_all();
    }
    void OnClosed(const std::string &) override {}
    // What the plug-in tells its host.
    static bool OnNotice(void *self, const char *, const char *, const char *text)
    {
        auto *agent = static_cast<Agent *>(self);
        const std::lock_guard held(agent->lock);
        agent->takesShares |= std::string_view(text).starts_with("RDPDR_CAPABILITY_STATUS");
        agent->changed.notify_all();
        return true;
    }

private:
    static constexpr size_t kMostFiles = 64;

    std::mutex lock;
    std::condition_variable changed;
    bool stalled = false;
    std::vector<uint32_t> files;

public:
    transport::FrameConnection connection; // last: it ends first
};

host::PluginHost &Host()
{
    static const auto host = [] {
        std::string problem;
        auto made = host::PluginHost::Create(FODR_PLUGIN_PATH, &problem);
        if (!made) {
            fprintf(stderr, "%s\n", problem.c_str());
            std::abort();
        }
        return made;
    }();
    return *host;
}

void AddShares()
{
    const auto ask = [](const std::string &command) {
        Host().Bus().Send("fuzzer", "FORLDER_REDIRECTION_CMD", "cookie", command.c_str());
    };
    ask("ADD," + folder + "/a|first");
    ask("ADD," + folder + "/b|second");
    ask("ADD,2," + folder + "/a|(OVFCP)third" + '\0' + "file" + '\0' + "sub");
}

bool BringUp(Agent &agent)
{
    agent.connection.Send(transport::Hello{.role = transport::Role::Agent});
    const auto options = ODP_OPTION_VIRTUAL | ODP_OPTION_TCP; // no side channel
    agent.connection.Send(transport::ObjectAnnounce{kControlObject, 0x0D, options, "fodrControlObj"});
    agent.connection.Send(transport::ObjectAnnounce{kDataObject, 0x0D, options, "fodrDataObj"});
    return agent.WaitFor(kComesUpWithin, [&] { return agent.connectedObjects >= 2; });
}

void PlayPackets(Agent &agent, const uint8_t *data, size_t size)
{
    const uint8_t options = data[0];
    if (!(options & 1)) {
        for (const auto &packet : kHandshake)
            agent.Post(packet);
        if (!agent.WaitFor(kComesUpWithin, [&] { return agent.takesShares; }))
            std::abort();
        AddShares();
        agent.WaitFor(kComesUpWithin, [&] { return agent.shares >= 3; });
    }
    agent.Stall(options & 2);
    std::vector<uint8_t> packet;
    for (size_t at = 1; NextPacket(data, size, &at, &packet);) {
        const bool request = IsRequest(packet);
        if (request && options & 16) {
            for (const uint32_t file : agent.Files())
                Renumber(packet, {file}), agent.Post(packet);
        }
        size_t before = 0;
        agent.WaitFor(0ms, [&] { return before = agent.answers, true; });
        const bool creates = request && Renumber(packet, agent.Files()).MajorFunction == IRP_MJ_CREATE;
        agent.Post(packet);
        if (creates && !(options & 2))
            agent.WaitFor(kAnswersWithin, [&] { return agent.answers > before; });
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    MakeFolder();
    setenv("TMPDIR", (folder + ".settings").c_str(), 1); // logs
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    ResetFolder();
    auto [ours, theirs] = platform::MakeStreamPair();
    host::ChannelOptions options;
    if (data[0] & 8)
        options.expectedToken = "agreed";
    host::HostChannel channel(&Host(), options, nullptr);
    channel.Attach(std::move(ours));
    if (data[0] & 8) {
        const platform::ByteView bytes = std::as_bytes(std::span(data + 1, size - 1));
        (void)theirs->Write({&bytes, 1});
        theirs->Shutdown();
        return 0;
    }
    Agent agent(std::move(theirs));
    const uint32_t subscription =
        Host().Bus().Subscribe("FOLDER_REDIRECTION_NOTIFICATION", &agent, Agent::OnNotice);
    if (BringUp(agent))
        PlayPackets(agent, data, size);
    if (data[0] & 4)
        channel.SayGoodbye("that's all");
    else
        agent.connection.Close("cut");
    agent.Stall(false);
    channel.Close("the end");
    channel.DestroyInstance();
    Host().Bus().Unsubscribe(subscription);
    return 0;
}
