// The real plug-in in the real host, with the real agent at the other end of a stream: everything but the
// mount.
#include "Mailbox.h"
#include "RealMount.h"
#include "SettingsFixture.h"
#include "agent/BlockingShare.h"
#include "agent/FileFacts.h"
#include "host/HostChannel.h"
#include "host/PluginHost.h"
#include "lib/unicode/NameMapping.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace fodr {
namespace {

using agent::BlockingCall;
using agent::RemoteDevice;
using agent::RemoteShare;
using namespace nt;

class Agent final : public agent::IClientObserver {
public:
    Agent(std::unique_ptr<platform::ByteStream> stream, const agent::ClientOptions &options)
        : client(std::move(stream), options, this)
    {
        client.Start();
    }

    // The share of this name, once it is there.
    std::unique_ptr<RemoteShare> Share(const std::string &name)
    {
        while (!shares.contains(name))
            NoteShare(added.Take());
        return std::make_unique<RemoteShare>(client, shares.at(name));
    }
    void WaitUntilGone(const std::string &name)
    {
        const uint32_t id = shares.at(name).id;
        shares.erase(name);
        while (!gone.contains(id))
            gone.insert(removed.Take());
        gone.erase(id);
    }
    size_t ShareCount()
    {
        while (!added.IsEmpty())
            NoteShare(added.Take());
        return shares.size();
    }

    bool OnDeviceAdded(const RemoteDevice &device) override
    {
        added.Put(device);
        return true;
    }
    void OnDeviceRemoved(uint32_t deviceId) override { removed.Put(deviceId); }
    void OnGoodbye(const std::string &) override {}
    void OnEnded(agent::ChannelEnd, const std::string &) override {}

private:
    void NoteShare(const RemoteDevice &device) { shares.insert_or_assign(device.name, device); }

    std::map<std::string, RemoteDevice> shares; // those that the test has seen
    std::set<uint32_t> gone;
    test::Mailbox<RemoteDevice> added;
    test::Mailbox<uint32_t> removed;
    agent::RdpdrClient client;
};

class RealPlugin : public testing::Test {
protected:
    void SetUp() override
    {
        settings.CreateKey();
        folder = std::filesystem::path(settings.Folder()) / "shared";
        std::filesystem::create_directory(folder);
        std::string error;
        host = host::PluginHost::Create(FODR_PLUGIN_PATH, &error);
        ASSERT_NE(host, nullptr) << error;
        host->Bus().Subscribe("FOLDER_REDIRECTION_NOTIFICATION", &notices,
                              [](void *told, const char *, const char *cookie, const char *text) {
                                  static_cast<test::Mailbox<Notice> *>(told)->Put({cookie, text});
                                  return true;
                              });
    }
    void TearDown() override
    {
        connected.reset();
        channel.reset();
        host.reset();
    }

    // A connection to a new agent; a former one is lost first.
    Agent &Connect(agent::ClientOptions options = {})
    {
        options.policy.sharedByAgent = !options.policy.folders.empty();
        if (!channel)
            channel = std::make_unique<host::HostChannel>(host.get(), channelOptions, nullptr);
        if (connected) {
            connected.reset();
            channel->Close("test");
            channel->Settle();
            if (newInstanceEachTime)
                channel->DestroyInstance();
        }
        while (!notices.IsEmpty())
            notices.Take();
        statuses.clear();
        auto [ours, theirs] = platform::MakeStreamPair();
        connected = std::make_unique<Agent>(std::move(theirs), options);
        channel->Attach(std::move(ours));
        StatusOf(""); // from here on folders may be added
        return *connected;
    }
    void Command(const std::string &cookie, const std::string &text)
    {
        host->Bus().Send("test", "FORLDER_REDIRECTION_CMD", cookie.c_str(), text.c_str());
    }
    // The status that the cookie's command got; for an empty cookie that of the agent's policy, which comes
    // before or after those of the folders that it forces.
    std::string StatusOf(const std::string &cookie)
    {
        while (!statuses.contains(cookie)) {
            const Notice notice = notices.Take();
            if (!notice.first.empty() || notice.second.starts_with("RDPDR_CAPABILITY_STATUS"))
                statuses.insert(notice);
        }
        return statuses.at(cookie);
    }
    std::string AddDocs()
    {
        std::string cookie = "add" + std::to_string(++cookies);
        Command(cookie, "ADD," + folder.string() + "|docs");
        return StatusOf(cookie);
    }
    void RemoveDocs() { Command("r", "REMOVE," + folder.string() + "|docs"); }
    std::unique_ptr<RemoteShare> ShareDocs()
    {
        EXPECT_EQ(AddDocs(), "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED");
        return connected->Share("docs");
    }

    test::SettingsFixture settings;
    std::filesystem::path folder;
    std::unique_ptr<host::PluginHost> host;
    host::ChannelOptions channelOptions;
    std::unique_ptr<host::HostChannel> channel;
    std::unique_ptr<Agent> connected;
    bool newInstanceEachTime = true;

private:
    using Notice = std::pair<std::string, std::string>; // a cookie, and what was said under it
    test::Mailbox<Notice> notices;
    std::map<std::string, std::string> statuses; // the first under each cookie
    int cookies = 0;
};

constexpr RemoteShare::CreateCall kOpenToRead{FILE_READ_DATA, FILE_OPEN, FILE_NON_DIRECTORY_FILE};
constexpr RemoteShare::CreateCall kCreateToWrite{FILE_READ_DATA | FILE_WRITE_DATA, FILE_CREATE,
                                                 FILE_NON_DIRECTORY_FILE};

agent::ByteSpan Bytes(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

std::string Text(const std::vector<uint8_t> &bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::string ReadFile(RemoteShare &share, const char16_t *path, uint32_t length = 100)
{
    const auto opened = BlockingCall(share.Create(kOpenToRead, path));
    return Text(BlockingCall(share.Read(opened.fileId, 0u, length)).data);
}

TEST_F(RealPlugin, AFolderAppearsServesFilesAndGoes)
{
    std::ofstream(folder / "letter.txt") << "dear reader";
    Agent &agent = Connect();
    EXPECT_EQ(StatusOf(""), "RDPDR_CAPABILITY_STATUS,ENABLED");
    auto share = ShareDocs();
    auto opened = BlockingCall(share->Create(kOpenToRead, u"\\letter.txt"));
    ASSERT_EQ(opened.status, STATUS_SUCCESS);
    EXPECT_EQ(opened.information, FILE_OPENED);
    EXPECT_EQ(Text(BlockingCall(share->Read(opened.fileId, 5u, 100u)).data), "reader");
    EXPECT_EQ(BlockingCall(share->Close(opened.fileId)).status, STATUS_SUCCESS);
    EXPECT_EQ(BlockingCall(share->Read(opened.fileId, 0u, 1u)).status, STATUS_INVALID_HANDLE);

    auto created = BlockingCall(share->Create(kCreateToWrite, u"\\answer.txt"));
    ASSERT_EQ(created.status, STATUS_SUCCESS);
    EXPECT_EQ(created.information, FILE_CREATED);
    EXPECT_EQ(BlockingCall(share->Write(created.fileId, 0u, Bytes("dear writer"))).length, 11u);
    EXPECT_EQ(std::filesystem::file_size(folder / "answer.txt"), 11u);

    // No way out of the share.
    for (const char16_t *path : {u"\\..\\HKEY_LOCAL_MACHINE.ini", u"\\.\\letter.txt", u"\\a\\..\\letter.txt"})
        EXPECT_EQ(BlockingCall(share->Create(kOpenToRead, path)).status, STATUS_OBJECT_NAME_INVALID);

    RemoveDocs();
    agent.WaitUntilGone("docs");
    EXPECT_EQ(BlockingCall(share->Write(created.fileId, 0u, Bytes("x"))).status, STATUS_DEVICE_REMOVED);
}

TEST_F(RealPlugin, AReconnectServesTheSharesAgainWithoutANewHost)
{
    std::ofstream(folder / "f") << "still here";
    for (bool fresh : {true, false}) {
        newInstanceEachTime = fresh;
        for (int round = 0; round < 3; ++round) {
            Connect();
            if (!fresh) // the instance kept its table: what is to be announced anew is taken out first
                RemoveDocs();
            EXPECT_EQ(ReadFile(*ShareDocs(), u"\\f"), "still here");
        }
    }
}

// Agents of every age: what an old one doesn't know of it isn't sent.
TEST_F(RealPlugin, EachVersionAndCapabilityGetsWhatItKnows)
{
    for (const char *name : {"a", "b", "c"})
        std::ofstream(folder / name) << name;
    constexpr RemoteShare::CreateCall kOpenFolder{FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, FILE_OPEN,
                                                  FILE_DIRECTORY_FILE};
    constexpr RemoteShare::CreateCall kReadAlone{
        .desiredAccess = FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
        .createDisposition = FILE_OPEN,
        .createOptions = FILE_NON_DIRECTORY_FILE | FILE_SEQUENTIAL_ONLY,
        .sharedAccess = FILE_SHARE_READ};
    for (uint16_t version = 1; version <= 6; ++version) {
        for (unsigned bits = 0; bits < 4; ++bits) {
            SCOPED_TRACE(std::to_string(version) + "/" + std::to_string(bits));
            agent::ClientOptions options;
            options.version = version;
            options.multiEntryDirectoryQuery = (bits & 1) != 0;
            options.preRead = (bits & 2) != 0;
            Agent &agent = Connect(options);
            const auto share = ShareDocs();
            const bool many = options.multiEntryDirectoryQuery && version >= 3;
            const bool ahead = options.preRead && version >= 4;

            agent::FileFacts facts;
            const auto opened = BlockingCall(share->Create(kOpenFolder, u"\\"));
            EXPECT_EQ(agent::ReadPreReadFacts(opened.preRead, &facts), ahead);
            EXPECT_EQ(facts.IsDirectory(), ahead);
            const auto listed =
                BlockingCall(share->QueryDirectory(opened.fileId, FileFullDirectoryInformation, true, u""));
            size_t entries = 0;
            agent::DirectoryReader reader(listed.data, agent::FileIds::None);
            for (agent::DirectoryReader::Entry entry; reader.Next(&entry);)
                ++entries;
            EXPECT_EQ(entries, many ? 5u : 1u);
            BlockingCall(share->Close(opened.fileId));

            const auto file = BlockingCall(share->Create(kReadAlone, u"\\b"));
            facts = {};
            EXPECT_EQ(agent::ReadPreReadFacts(file.preRead, &facts), ahead);
            EXPECT_EQ(facts.endOfFile, ahead ? 1 : 0);
            EXPECT_EQ(Text(BlockingCall(share->Read(file.fileId, 0u, 9u)).data), "b");
            const auto set = BlockingCall(
                share->SetInformation(file.fileId, FileBasicInformation, std::vector<uint8_t>(36)));
            EXPECT_EQ(set.status, STATUS_SUCCESS);
            EXPECT_EQ(agent::ReadPreReadFacts(set.preRead, &facts), ahead);
            BlockingCall(share->Close(file.fileId));
            RemoveDocs();
            agent.WaitUntilGone("docs");
        }
    }
}

TEST_F(RealPlugin, FoldersOutsideTheAllowedOnesAreNotServedWhoeverAsks)
{
    std::filesystem::path other = std::filesystem::path(settings.Folder()) / "other";
    std::filesystem::create_directory(other);
    settings.SetList("AllowedFolders", {folder.string()});
    agent::ClientOptions options;
    options.policy.folders.push_back({0, other.string()});
    options.policy.folders.push_back({0, "*all"});
    options.policy.folders.push_back({0, "/not\xFFtext"}); // names nothing, and harms nobody
    Agent &agent = Connect(options);
    EXPECT_EQ(StatusOf(""), "RDPDR_CAPABILITY_STATUS,FORCED");
    ShareDocs();
    EXPECT_EQ(agent.ShareCount(), 1u);
}

TEST_F(RealPlugin, AMountThatComesAndGoesTakesItsSharesAlongUnderTheirNumbers)
{
    FODR_NEEDS_MOUNTS();
    const std::filesystem::path stick = folder / "stick"; // not there yet
    const test::EnvironmentVariable drives("FODR_DRIVES", ("E=" + stick.string()).c_str());
    Agent &agent = Connect();
    Command("whole", "ADD,E:\\|stick");
    using namespace std::string_literals;
    Command("files", "ADD,1,E:\\|(OVFCP)some\0named\0"s);
    EXPECT_EQ(agent.ShareCount(), 0u);
    std::filesystem::create_directory(stick);
    std::map<std::string, uint32_t> numbers;
    for (const std::string content : {"first", "second"}) {
        test::TmpfsMount medium(stick.string());
        for (const char *name : {"named", "other"})
            std::ofstream(stick / name) << content;
        auto whole = agent.Share("stick");
        auto files = agent.Share("(OVFCP)some");
        EXPECT_EQ(StatusOf("whole"), "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED");
        EXPECT_EQ(StatusOf("files"), "FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED");
        for (RemoteShare *share : {whole.get(), files.get()})
            EXPECT_EQ(numbers.emplace(share->Device().name, share->Device().id).first->second,
                      share->Device().id);
        auto opened = BlockingCall(whole->Create(kOpenToRead, u"\\other"));
        EXPECT_EQ(Text(BlockingCall(whole->Read(opened.fileId, 0u, 9u)).data), content);
        EXPECT_EQ(ReadFile(*files, u"\\named"), content);
        EXPECT_EQ(BlockingCall(files->Create(kOpenToRead, u"\\other")).status, STATUS_ACCESS_DENIED);

        medium.Unmount();
        agent.WaitUntilGone("stick");
        agent.WaitUntilGone("(OVFCP)some");
        EXPECT_EQ(BlockingCall(whole->Read(opened.fileId, 0u, 9u)).status, STATUS_DEVICE_REMOVED);
        EXPECT_EQ(BlockingCall(files->Create(kOpenToRead, u"\\named")).status, STATUS_DEVICE_REMOVED);
    }
    EXPECT_EQ(numbers, (std::map<std::string, uint32_t>{{"(OVFCP)some", 65536}, {"stick", 65535}}));
}

TEST_F(RealPlugin, ASideChannelOverTcpCarriesTheData)
{
    std::ofstream(folder / "f") << std::string(1 << 20, 'x');
    channelOptions.sideChannelHost = "127.0.0.1";
    agent::ClientOptions options;
    options.sideChannel = agent::SideChannel::Tcp;
    options.sideChannelAddress = "127.0.0.1";
    Connect(options);
    EXPECT_EQ(StatusOf(""), "RDPDR_CAPABILITY_STATUS,ENABLED");
    EXPECT_TRUE(ReadFile(*ShareDocs(), u"\\f", 1 << 20) == std::string(1 << 20, 'x'));
}

} // namespace
} // namespace fodr
