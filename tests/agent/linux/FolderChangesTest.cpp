#include "agent/fuse/FolderChanges.h"

#include "agent/fuse/RecentNames.h"
#include "platform/Nt.h"
#include "platform/NtRecords.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fodr::agent {
namespace {

constexpr int64_t kSecond = 10'000'000;

// "name=id" of files, "name/=id" of folders; behind a comma what else is told of it: a size, "+N" seconds of
// its change after its write, "mN" its mode.
FolderEntries Entries(const std::string &text)
{
    FolderEntries entries;
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = std::min(text.find(' ', at), text.size());
        std::string word = text.substr(at, end - at);
        at = end + 1;
        FileFacts facts;
        facts.lastWriteTime = facts.changeTime = 1000 * kSecond;
        facts.mode = 0644;
        for (size_t comma; (comma = word.rfind(',')) != std::string::npos; word.resize(comma)) {
            const std::string detail = word.substr(comma + 1);
            if (detail[0] == '+')
                facts.changeTime += std::stoi(detail) * kSecond;
            else if (detail[0] == 't')
                facts.changeTime = facts.lastWriteTime = std::stoi(detail.substr(1)) * kSecond;
            else if (detail[0] == 'm')
                facts.mode = static_cast<uint32_t>(std::stoi(detail.substr(1), nullptr, 8));
            else
                facts.endOfFile = std::stoi(detail);
        }
        const size_t equal = word.find('=');
        facts.id = static_cast<uint64_t>(std::stoi(word.substr(equal + 1)));
        std::string name = word.substr(0, equal);
        if (name.back() == '/') {
            facts.attributes = nt::FILE_ATTRIBUTE_DIRECTORY;
            name.pop_back();
        }
        facts.mode |= facts.attributes ? S_IFDIR : S_IFREG;
        entries.emplace(name, facts);
    }
    return entries;
}

std::string Spelled(const std::vector<FolderEvent> &events)
{
    static const char *const kKinds[] = {"made",    "removed", "moved", "replaced",
                                         "changed", "touched", "many"};
    std::string text;
    for (const FolderEvent &event : events) {
        text += (text.empty() ? "" : "; ") + std::string(kKinds[static_cast<size_t>(event.kind)]);
        if (!event.name.empty())
            text += " " + event.name;
        if (event.newFolder)
            text += (event.overwrites ? " over " : " to ") + event.newName;
        if (event.newFolder && event.newFolder != event.folder)
            text += " elsewhere";
    }
    return text;
}

class Changes : public testing::Test {
protected:
    void Compare(const NodePtr &where, const std::string &before, const std::string &after)
    {
        changes.Compare(
            where, Entries(before), Entries(after), [](const std::string &name) { return name == "own"; },
            [](const std::string &name) { return name.starts_with("own"); }, 4);
    }
    const NodePtr folder = std::make_shared<Node>(1, NodeKind::Directory);
    const NodePtr other = std::make_shared<Node>(2, NodeKind::Directory);
    FolderChanges changes;
};

TEST_F(Changes, OfOneFolder)
{
    const struct {
        const char *before, *after, *events;
    } cases[] = {
        {"a=1 b=2", "a=1 b=2", ""},
        {"", "a=1", "made a"},
        {"a=1", "", "removed a"},
        {"a=1", "b=1", "moved a to b"},
        {"a=1", "b=1,5", "moved a to b; changed b"},
        {"a=1 b=2", "b=1", "moved a over b"},
        {"a/=1 b/=2", "b/=1", "removed b; moved a to b"}, // where b has gone to isn't known
        {"a=1 b=2", "b=1 c=2", "moved b to c; moved a to b"},
        {"a=1", "a=2", "replaced a"},
        {"a=1", "a/=2", "removed a; made a"},
        {"a/=1", "a/=2", "removed a; made a"},
        {"a=1 b/=1", "b=1", "removed b; moved a to b"}, // one number, but another kind
        {"a=0", "a=0,7", "changed a"},                  // of hosts without ids
        {"a=0", "b=0", "removed a; made b"},
        {"a=1", "a=1,7", "changed a"},
        {"a=1,t1000", "a=1,t1001", "changed a"},
        {"a=1,t1000", "a=1,+200,t900", "touched a"},
        {"a=1", "a=1,m600", "touched a"},
        {"a=1", "a=1,+9", ""},      // as when another of its names goes
        {"a/=1", "a/=1,t1001", ""}, // told where it happened
        {"a/=1", "a/=1,m700", "touched a"},
        {"own=1 a=2", "own=3 a=2,7", "changed a"},
        {"own=1", "", ""},
        {"own2=1", "own2=1,7", ""}, // the mount writes to it
        {"own2=1", "own2=2", "replaced own2"},
        {"", "a=1 b=2 c=3 d=4 e=5", "many"},
        {"a=1 b=2 c=3 d=4", "a=1,1 b=2,1 c=3,1 d=4,1 e=5", "many"},
    };
    for (const auto &sample : cases) {
        Compare(folder, sample.before, sample.after);
        EXPECT_EQ(Spelled(changes.Take()), sample.events) << sample.before << " -> " << sample.after;
        EXPECT_TRUE(changes.Empty());
    }
}

TEST_F(Changes, FilesThatChangePlacesReplaceEachOther)
{
    Compare(folder, "a=1 b=2", "a=2 b=1");
    const std::string events = Spelled(changes.Take());
    EXPECT_TRUE(events == "replaced a; replaced b" || events == "replaced b; replaced a") << events;
}

TEST_F(Changes, BetweenFoldersInWhicheverOrderTheyAreSeen)
{
    for (const bool goneFirst : {true, false}) {
        if (goneFirst)
            Compare(folder, "a=1 d/=5", "");
        Compare(other, "b=2", "b=1 e/=5");
        if (!goneFirst)
            Compare(folder, "a=1 d/=5", "");
        EXPECT_TRUE(changes.MayPair());
        const std::string events = Spelled(changes.Take());
        EXPECT_TRUE(events == "moved a over b elsewhere; moved d to e elsewhere" ||
                    events == "moved d to e elsewhere; moved a over b elsewhere")
            << events;
    }
    // A second name in the same folder is the likelier one.
    Compare(folder, "a=1", "c=1");
    Compare(other, "b=1", "");
    EXPECT_EQ(Spelled(changes.Take()), "moved a to c; removed b");
}

TEST_F(Changes, ANameThatComesAndGoesBetweenTellingsIsNone)
{
    Compare(folder, "", "beside=2");
    Compare(folder, "beside=2", "");
    Compare(other, "kept=1", "kept=2");
    EXPECT_EQ(Spelled(changes.Take()), "replaced kept");
    Compare(folder, "a=1", "");
    Compare(folder, "", "a=1 b=2");
    Compare(folder, "a=1 b=2", "a=1 c=2");
    EXPECT_EQ(Spelled(changes.Take()), "made c");
}

using std::chrono::seconds;

constexpr seconds kSpan(10);

// An answer with files of the names' lengths.
std::vector<uint8_t> Listing(const std::vector<std::u16string> &names)
{
    constexpr size_t kHead = offsetof(nt::FILE_FULL_DIR_INFORMATION, FileName);
    std::vector<uint8_t> answer;
    for (const std::u16string &name : names) {
        nt::FILE_FULL_DIR_INFORMATION record{};
        record.FileNameLength = static_cast<uint32_t>(2 * name.size());
        record.NextEntryOffset =
            &name == &names.back() ? 0 : static_cast<uint32_t>(kHead + record.FileNameLength);
        record.EndOfFile = static_cast<int64_t>(name.size());
        const size_t at = answer.size();
        answer.resize(at + kHead + record.FileNameLength);
        memcpy(&answer[at], &record, kHead);
        memcpy(&answer[at + kHead], name.data(), record.FileNameLength);
    }
    return answer;
}

class RecentNamesTest : public testing::Test {
protected:
    // A lookup `at` seconds from the start. Whether it is served, and whether it is to ask.
    bool Serves(int at, bool mayAsk = true)
    {
        asks = mayAsk;
        return names.Recall(At(at), kSpan, &asks) != nullptr;
    }
    void Answer(int asked) { names.Answered(At(asked), Listing({u"a", u"other"}), FileIds::None); }
    static RecentNames::Clock::time_point At(int at)
    {
        return RecentNames::Clock::time_point(seconds(1000 + at));
    }

    RecentNames names;
    bool asks = false;
};

TEST_F(RecentNamesTest, AreAskedForWithTheSecondLookupAndServedForASpan)
{
    EXPECT_FALSE(Serves(0) || asks);
    EXPECT_FALSE(Serves(10) || asks); // too far from the first
    EXPECT_FALSE(Serves(19));
    EXPECT_TRUE(asks);
    EXPECT_FALSE(Serves(19) || asks); // it is under way
    Answer(19);
    EXPECT_TRUE(Serves(28));
    bool ask = true;
    const RecentNames::ToldPtr told = names.Recall(At(28), kSpan, &ask);
    EXPECT_FALSE(ask);
    EXPECT_EQ(At(19), told->asked);
    ASSERT_EQ(2u, told->names.size());
    EXPECT_EQ(5, told->names.at(u"other").endOfFile);
    EXPECT_FALSE(Serves(29));
    EXPECT_EQ(2u, told->names.size()); // who has it keeps it
}

TEST_F(RecentNamesTest, ThatServeFewLookupsAreAskedForMoreAndMoreSeldom)
{
    std::vector<int> asked;
    for (int at = -500; at < -10; at += 5)
        EXPECT_FALSE(Serves(at, false) || asks); // it isn't welcome, which counts for nothing
    for (int at = 0; at < 300; at += 5) {
        if (!Serves(at) && asks) {
            asked.push_back(at);
            Answer(at);
        }
    }
    EXPECT_EQ((std::vector<int>{5, 25, 65, 145}), asked);
    for (int i = 0; i < 4; ++i)
        names.NoteUse();
    for (int at = 300; asked.back() < 300; at += 5) {
        if (!Serves(at) && asks)
            asked.push_back(at);
        ASSERT_LT(at, 400);
    }
    EXPECT_EQ(300, asked.back()); // what has served is asked for again at once
    Answer(asked.back());
    for (int i = 0; i < 4; ++i)
        names.NoteUse();
    EXPECT_FALSE(Serves(asked.back() + 10) || asks); // a first lookup again
    EXPECT_FALSE(Serves(asked.back() + 11));
    EXPECT_TRUE(asks);
}

TEST_F(RecentNamesTest, DontOutliveAChange)
{
    Serves(0);
    Serves(1);
    names.Forget(At(2));
    Answer(1); // asked for before
    EXPECT_FALSE(Serves(3));
    Answer(4);
    bool ask = false;
    const RecentNames::ToldPtr told = names.Recall(At(5), kSpan, &ask);
    ASSERT_TRUE(told && !told->forgotten);
    names.Forget(At(6));
    EXPECT_TRUE(told->forgotten); // for who still has it
    EXPECT_FALSE(Serves(6));
    names.Answered(At(7), {}, FileIds::None); // the folder can't be listed
    EXPECT_FALSE(Serves(7));
    std::vector<uint8_t> torn = Listing({u"a", u"other"});
    torn.resize(torn.size() - 1);
    names.Answered(At(8), torn, FileIds::None);
    EXPECT_FALSE(Serves(8));
}

} // namespace
} // namespace fodr::agent
