#include "agent/fuse/RecentNames.h"

#include "platform/NtRecords.h"

#include <cstring>
#include <gtest/gtest.h>

namespace fodr::agent {
namespace {

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
