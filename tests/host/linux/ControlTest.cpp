#include "Mailbox.h"
#include "RealMount.h"
#include "host/ControlServer.h"
#include "platform/Process.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

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
    for (const Words &words : {Words{"add", "/a b", "ü"}, {""}, {"", ""}, {all, "%", "\t", "\n"}}) {
        const std::string line = host::EncodeWords(words);
        EXPECT_EQ(line.find('\n'), std::string::npos);
        EXPECT_EQ(host::DecodeWords(line), words);
    }
    for (const char *line :
         {"", "a\t", "\ta", "a\t\tb", "%0", "%zz", "%0g", "a%", "%%", "a b", "\x80", "%+1", "% 1"})
        EXPECT_EQ(host::DecodeWords(line), std::nullopt) << line;
}

class Control : public testing::Test {
protected:
    static ControlReply Ask(uint32_t processId, const Words &request)
    {
        const auto stream = host::ConnectToHost(processId);
        if (!stream || !host::SendRequest(stream.get(), request))
            return {-1, "nobody", {}};
        return host::ReceiveReply(stream.get(), 60000).value_or(ControlReply{-1, "no reply", {}});
    }

    const ScratchFolder root;
    const EnvironmentVariable runtime{"XDG_RUNTIME_DIR", root.Path().c_str()};
    std::string error;
    const fs::path folder = host::MakeHostFolder(&error);
    const std::string socket = host::ControlSocketOf(folder);
};

TEST_F(Control, TheHostAnswersWhatItIsAsked)
{
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << error;
    const auto echo = [](const Words &request) {
        ControlReply reply{7, "sen tence\n", {}};
        for (const std::string &word : request)
            reply.rows.push_back({word, ""});
        return reply;
    };
    const auto server = host::ControlServer::Start(socket, echo, &error);
    ASSERT_TRUE(server) << error;
    const std::vector<Words> rows = {{"add", ""}, {"/x\n\ny", ""}, {"", ""}};
    for (const uint32_t id : {0u, platform::CurrentProcessId()})
        EXPECT_EQ(Ask(id, {"add", "/x\n\ny", ""}), (ControlReply{7, "sen tence\n", rows}));
    EXPECT_EQ(Ask(1, {"list"}).sentence, "nobody");
    // One that says nonsense, or nothing, and goes or stays.
    const auto silent = host::ConnectToHost(0);
    const auto rude = host::ConnectToHost(0);
    const platform::ByteView nonsense = std::as_bytes(std::span("\x01\x02\n", 3));
    EXPECT_TRUE(rude->Write({&nonsense, 1}));
    EXPECT_EQ(host::ReceiveReply(rude.get(), 60000), std::nullopt);
    EXPECT_EQ(Ask(0, {"list"}).code, 7);
}

TEST_F(Control, SoManyVisitorsAreLetIn)
{
    const auto answer = [](const Words &) { return ControlReply{7, "", {}}; };
    const auto server = host::ControlServer::Start(socket, answer, &error);
    ASSERT_TRUE(server) << error;
    std::vector<std::unique_ptr<platform::ByteStream>> silent;
    for (size_t i = 0; i < host::ControlServer::kMaxVisitors; ++i)
        silent.push_back(host::ConnectToHost(0));
    std::byte unused;
    EXPECT_EQ(host::ConnectToHost(0)->Read({&unused, 1}), 0);
    silent.clear();
    while (Ask(0, {"list"}).code != 7)
        std::this_thread::yield(); // until it has noticed that they went
}

TEST_F(Control, AnEndingHostAnswersWhatIsUnderWay)
{
    Signal asked, goOn;
    const auto answer = [&](const Words &) {
        asked.Set();
        goOn.Wait();
        return ControlReply{3, "late", {}};
    };
    auto server = host::ControlServer::Start(socket, answer, &error);
    const auto silent = host::ConnectToHost(0);
    auto reply = std::async(std::launch::async, [] { return Ask(0, {"add"}); });
    asked.Wait();
    auto end = std::async(std::launch::async, [&] { server.reset(); });
    std::byte unused;
    EXPECT_LE(silent->Read({&unused, 1}), 0); // cut off
    goOn.Set();
    end.wait();
    EXPECT_EQ(reply.get().sentence, "late");
}

TEST_F(Control, WhatADeadHostLeftIsRemovedAndNoObstacle)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const fs::path dead = folder.parent_path() / std::to_string(child);
    fs::create_directory(dead);
    std::ofstream(dead / "control") << "left";
    std::ofstream(folder / "control") << "left by an earlier process of our id";
    EXPECT_EQ(host::ConnectToHost(0), nullptr);
    EXPECT_EQ(host::MakeHostFolder(&error), folder);
    EXPECT_FALSE(fs::exists(dead));
    EXPECT_FALSE(fs::exists(folder / "control"));

    // A folder of somebody else's making isn't trusted.
    fs::rename(root / "fodr", root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "fodr");
    EXPECT_EQ(host::MakeHostFolder(&error), "");
    EXPECT_FALSE(error.empty());
}

} // namespace
} // namespace fodr::test
