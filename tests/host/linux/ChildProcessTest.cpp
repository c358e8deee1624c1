#include "platform/ChildProcess.h"

#include "host/TestAgent.h"
#include "platform/Files.h"

#include <csignal>
#include <gtest/gtest.h>

namespace fodr::test {
namespace {

using platform::ChildOptions;
using platform::ChildProcess;

class Child : public testing::Test {
protected:
    Child()
    {
        options.onErrorLine = [this](const std::string &line) { lines.Add(line); };
    }
    std::unique_ptr<ChildProcess> Start(const std::string &script)
    {
        options.arguments = {"sh", "-c", script};
        return ChildProcess::Start(options, &error);
    }

    Lines lines;
    ChildOptions options;
    std::string error;
};

TEST_F(Child, TellsHowItEnded)
{
    options.onErrorLine = nullptr; // ours is its, too
    const struct {
        const char *script;
        bool bySignal;
        int code;
    } cases[] = {{"exit 0", false, 0},
                 {"exit 7", false, 7},
                 {"kill -TERM $$", true, SIGTERM},
                 {"kill -KILL $$", true, SIGKILL}};
    for (const auto &test : cases) {
        const auto child = Start(test.script);
        const auto exit = child->Wait(-1);
        EXPECT_EQ(exit->bySignal, test.bySignal) << test.script;
        EXPECT_EQ(exit->code, test.code) << test.script;
        child->Kill(); // does nothing any more
        EXPECT_EQ(child->Wait(0)->code, test.code);
    }
    options.arguments = {"/nowhere/program"};
    EXPECT_FALSE(ChildProcess::Start(options, &error));
    EXPECT_EQ(error, "No such file or directory");
}

TEST_F(Child, SpeaksOverItsStandardStreams)
{
    options.withStream = true;
    options.environment = {{"FODR_TEST_WORD", "given"}};
    platform::SetEnvironment("FODR_TEST_WORD", "inherited");
    auto child = Start("echo $FODR_TEST_WORD; cat; echo last >&2; printf unended >&2");
    auto stream = child->TakeStream();
    const std::string said = "over\n";
    const platform::ByteView block = std::as_bytes(std::span(said));
    ASSERT_TRUE(stream->Write({&block, 1}));
    std::string heard;
    for (std::byte byte; heard.size() < 11 && stream->Read({&byte, 1}) == 1;)
        heard += static_cast<char>(byte);
    EXPECT_EQ(heard, "given\nover\n");
    EXPECT_FALSE(child->Wait(0));
    stream.reset(); // the end of its input
    EXPECT_EQ(child->Wait(-1)->code, 0);
    child.reset();
    EXPECT_EQ(lines.Take(2), "last\nunended\n");
}

TEST_F(Child, EndsWithItsChildrenInAGroupOfItsOwn)
{
    options.interrupts = ChildOptions::Interrupts::Own;
    auto child = Start("sleep 1000 & echo $! >&2; wait");
    const auto grandchild = static_cast<uint32_t>(std::stoul(lines.Next()));
    EXPECT_TRUE(platform::ProcessExists(grandchild));
    child->Terminate();
    EXPECT_TRUE(child->Wait(-1)->bySignal);
    child.reset(); // the pipe of the error lines has no writer left, or this would wait
}

TEST_F(Child, HasTheSignalsThatItShouldHave)
{
    // Blocked and ignored signals of ours must not reach it, except where asked for.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, SIG_DFL); // whoever started this one may have ignored it
    const std::pair<ChildOptions::Interrupts, uint32_t> cases[] = {
        {ChildOptions::Interrupts::Shared, 0}, {ChildOptions::Interrupts::Ignored, 6}}; // SIGINT, SIGQUIT
    for (const auto &[interrupts, ignored] : cases) {
        options.interrupts = interrupts;
        Start("grep -E 'Sig(Blk|Ign)' /proc/self/status >&2")->Wait(-1);
        for (const uint32_t wanted : {0u, ignored}) {
            const std::string line = lines.Next();
            // Below 32; those above are the C library's own.
            EXPECT_EQ(std::stoull(line.substr(line.find('\t')), nullptr, 16) & 0x7FFFFFFF, wanted) << line;
        }
    }
    EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_DFL); // ours are as they were
}

TEST_F(Child, LongLinesComeInPieces)
{
    Start("head -c 10000 /dev/zero | tr '\\0' x >&2; echo >&2; echo end >&2")->Wait(-1);
    std::string all;
    for (std::string line; (line = lines.Next()) != "end";)
        all += line;
    EXPECT_TRUE(all == std::string(10000, 'x')) << all.size();
}

} // namespace
} // namespace fodr::test
