#include "host/ControlServer.h"
#include "host/RunningHosts.h"
#include "platform/Process.h"
#include "platform/UserFolders.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fodr::test {
namespace {

namespace fs = std::filesystem;
using host::ControlReply;
using host::Words;

TEST(ControlWords, AnyBytesComeBackAndNonsenseDoesNot)
{
    std::string all;
    for (int c = 0; c < 256; ++c)
        all += static_cast<char>(c);
    const std::vector<Words> cases = {{"add", "/a b", "ü"}, {""}, {"", ""}, {all, "%", "\t", "\n"}};
    for (const Words &words : cases) {
        const std::string line = host::EncodeWords(words);
        EXPECT_EQ(line.find('\n'), std::string::npos);
        EXPECT_EQ(host::DecodeWords(line), words);
    }
    for (const char *line : {"", "a\t", "\ta", "%0", "%zz", "a%", "a b", "\x80", "%+1"})
        EXPECT_EQ(host::DecodeWords(line), std::nullopt) << line;
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string line(random() % 12, ' ');
        for (char &c : line)
            c = "%09aAfF\t\n x\xFF"[random() % 12];
        if (const auto words = host::DecodeWords(line)) {
            EXPECT_EQ(host::DecodeWords(host::EncodeWords(*words)), words);
        }
    }
}

class Control : public testing::Test {
protected:
    void SetUp() override
    {
        root = fs::path(testing::TempDir()) / ("fodr-control-" + std::to_string(getpid()));
        fs::create_directories(root);
        before = platform::GetEnvironment("XDG_RUNTIME_DIR");
        platform::SetEnvironment("XDG_RUNTIME_DIR", root.string());
    }
    void TearDown() override
    {
        platform::SetEnvironment("XDG_RUNTIME_DIR", before);
        fs::remove_all(root);
    }
    static ControlReply Ask(uint32_t processId, const Words &request)
    {
        const auto stream = host::ConnectToHost(processId);
        if (!stream || !host::SendRequest(stream.get(), request))
            return {-1, "nobody", {}};
        return host::ReceiveReply(stream.get(), 60000).value_or(ControlReply{-1, "no reply", {}});
    }

    fs::path root;
    std::string before;
};

TEST_F(Control, TheHostAnswersWhatItIsAsked)
{
    std::string error;
    const std::string folder = host::MakeHostFolder(&error);
    ASSERT_FALSE(folder.empty()) << error;
    struct stat facts {};
    ASSERT_EQ(stat(folder.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0700u);
    const auto server = host::ControlServer::Start(
        host::ControlSocketOf(folder),
        [](const Words &request) {
            ControlReply reply{7, "sen tence\n", {}};
            for (const std::string &word : request)
                reply.rows.push_back({word, ""});
            return reply;
        },
        &error);
    ASSERT_TRUE(server) << error;
    for (const uint32_t id : {0u, platform::CurrentProcessId()}) {
        const ControlReply reply = Ask(id, {"add", "/x\n\ny", ""});
        EXPECT_EQ(reply.code, 7);
        EXPECT_EQ(reply.sentence, "sen tence\n");
        EXPECT_EQ(reply.rows, std::vector<Words>({{"add", ""}, {"/x\n\ny", ""}, {"", ""}}));
    }
    EXPECT_EQ(Ask(1, {"list"}).sentence, "nobody");
    // One that says nonsense, or nothing, and goes or stays.
    const auto silent = host::ConnectToHost(0);
    const auto rude = host::ConnectToHost(0);
    const platform::ByteView nonsense = std::as_bytes(std::span("\x01\x02\n", 3));
    EXPECT_TRUE(rude->Write({&nonsense, 1}));
    EXPECT_EQ(host::ReceiveReply(rude.get(), 60000), std::nullopt);
    EXPECT_EQ(Ask(0, {"list"}).code, 7);
}

TEST_F(Control, AnEndingHostAnswersWhatIsUnderWay)
{
    std::string error;
    std::promise<void> asked, goOn;
    auto server = host::ControlServer::Start(
        host::ControlSocketOf(host::MakeHostFolder(&error)),
        [&](const Words &) {
            asked.set_value();
            goOn.get_future().wait();
            return ControlReply{3, "late", {}};
        },
        &error);
    const auto silent = host::ConnectToHost(0);
    auto reply = std::async(std::launch::async, [] { return Ask(0, {"add"}); });
    asked.get_future().wait();
    auto end = std::async(std::launch::async, [&] { server.reset(); });
    goOn.set_value();
    end.wait();
    EXPECT_EQ(reply.get().sentence, "late");
}

TEST_F(Control, WhatADeadHostLeftIsRemovedAndNoObstacle)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    std::string error;
    const fs::path own = host::MakeHostFolder(&error);
    const fs::path dead = own.parent_path() / std::to_string(child);
    fs::create_directory(dead);
    std::ofstream(dead / "control") << "left";
    std::ofstream(own / "control") << "left by an earlier process of our id";
    EXPECT_EQ(host::ConnectToHost(0), nullptr);
    EXPECT_EQ(host::MakeHostFolder(&error), own.string());
    EXPECT_FALSE(fs::exists(dead));
    EXPECT_FALSE(fs::exists(own / "control"));

    // A folder of somebody else's making isn't trusted.
    fs::remove_all(root / "fodr");
    fs::create_directory(root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "fodr");
    EXPECT_EQ(host::MakeHostFolder(&error), "");
    EXPECT_FALSE(error.empty());
}

} // namespace
} // namespace fodr::test
