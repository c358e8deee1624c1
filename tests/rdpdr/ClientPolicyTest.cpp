#include "rdpdr/ClientPolicy.h"

#include "AgentPackets.h"
#include "platform/Volumes.h"

#include <gtest/gtest.h>
#include <limits>
#include <map>

namespace fodr::test {
namespace {

// In a block of its own size on the heap, so that a read behind it is seen.
bool Parse(ClientPolicy &policy, const Bytes &block, int32_t version, std::optional<uint32_t> length = {})
{
    const Bytes exact(block);
    return policy.ParsePolicy(exact.data(), exact.size(),
                              length.value_or(static_cast<uint32_t>(block.size())), version);
}

std::vector<std::string> Paths(ClientPolicy &policy)
{
    std::vector<std::string> paths;
    for (const auto &folder : policy.Folders())
        paths.push_back(folder.path + ":" + std::to_string(folder.permission));
    return paths;
}

using Strings = std::vector<std::string>;
const std::string kDenied = "<vidpid>07815567";

TEST(ClientPolicy, EachVersionReadsTheBlockInItsOwnForm)
{
    const Policy full{.sharedByAgent = true,
                      .permission = 4,
                      .folders = {{0, "/a"}, {2, "C:\\b"}},
                      .exclude = "vid-0781_pid-5567"};
    for (int32_t version = 0; version <= 6; ++version) {
        SCOPED_TRACE(version);
        ClientPolicy policy;
        EXPECT_TRUE(Parse(policy, full.Block(version > 0 ? version : 5), version));
        EXPECT_TRUE(policy.IsEnabled() && policy.IsSharedByAgent() && policy.SetDevicePermission(1, 1));
        EXPECT_EQ(Paths(policy), version > 0 ? (Strings{"/a:4", "C:\\b:2"}) : Strings{}); // 0: unknown
        EXPECT_EQ(policy.HasDeviceFilter(), version >= 5);
        EXPECT_EQ(policy.IsAllowedByDeviceFilter(kDenied), version < 5);
    }
}

TEST(ClientPolicy, PermissionsOfTheOldestSharesAreForgotten)
{
    ClientPolicy policy;
    Parse(policy, Policy{}.Block(5), 5);
    for (uint32_t id = 1; id <= FodrPolicy::kMostPermissions + 2; ++id)
        policy.SetDevicePermission(id, 7);
    for (const auto &[id, permission] : std::map<uint32_t, uint32_t>{
             {1, 0}, {2, 0}, {3, 7}, {static_cast<uint32_t>(FodrPolicy::kMostPermissions) + 2, 7}})
        EXPECT_EQ(policy.GetDevicePermission(id), permission) << id;
}

TEST(ClientPolicy, PermissionsLeaveMarks)
{
    for (uint8_t permission = 0; permission <= 5; ++permission) {
        for (const Policy &block :
             {Policy{.permission = permission}, Policy{.folders = {{permission, "/a"}}}}) {
            ClientPolicy policy;
            Parse(policy, block.Block(5), 5);
            EXPECT_EQ(policy.HasReadOnlyMark(), permission == 1 || permission == 2) << int{permission};
            EXPECT_EQ(policy.HasSecondMark(), permission == 3 || permission == 4) << int{permission};
        }
    }
}

TEST(ClientPolicy, BrokenListsEndThemselvesAlone)
{
    const auto entry = [](size_t stated, const std::string &path) {
        Bytes bytes{1, 0, 0, 0};
        Policy::AppendSized(bytes, path, stated);
        return bytes;
    };
    const auto block = [](std::initializer_list<Bytes> parts, std::optional<size_t> folderLength = {}) {
        Bytes entries, rules, bytes{1, 0, 0, 0, 0, 0, 0, 0};
        for (const Bytes &part : parts)
            entries.insert(entries.end(), part.begin(), part.end());
        Policy::AppendSized(bytes, entries, folderLength);
        Policy::AppendSized(rules, std::string("vid-0781_pid-5567"));
        Policy::AppendSized(rules, std::string());
        Policy::AppendSized(bytes, rules);
        return bytes;
    };
    const uint32_t kHuge = std::numeric_limits<uint32_t>::max();
    const struct {
        Bytes block;
        Strings folders;
        bool filter; // found at its place
    } cases[] = {
        {block({}), {}, true},
        {block({entry(2, "/a"), entry(3, "/b")}), {"/a:1"}, true}, // one byte more than is left
        {block({entry(kHuge, "/a")}), {}, true},
        {block({entry(kHuge - 7, "/a")}), {}, true},
        {block({entry(2, "/a"), {1, 0, 0, 0}}), {"/a:1"}, true}, // no room for an entry
        {block({{1, 0, 0}}), {}, true},
        {block({entry(0, "")}), {":1"}, true},
        {block({entry(2, "/a")}, kHuge), {"/a:1", "vid-0781_pid-5567:25"}, false}, // all that there is
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        ClientPolicy policy;
        EXPECT_TRUE(Parse(policy, cases[i].block, 5));
        EXPECT_EQ(Paths(policy), cases[i].folders) << i;
        EXPECT_EQ(policy.HasDeviceFilter(), cases[i].filter) << i;
        EXPECT_TRUE(policy.SetDevicePermission(1, 1)) << i;
    }
    ClientPolicy small;
    EXPECT_FALSE(Parse(small, {1, 1, 1, 0, 0, 0, 0}, 5));
    EXPECT_FALSE(small.IsSharedByAgent() || small.SetDevicePermission(1, 1));
    EXPECT_TRUE(Parse(small, {1, 1, 0, 0, 0, 0, 0, 0}, 4)); // a header alone
    EXPECT_EQ(small.GetDefaultPermission(), 0u);
    EXPECT_TRUE(small.Folders().empty());
}

TEST(ClientPolicy, ALaterBlockReplacesFoldersAndRulesButNoMark)
{
    ClientPolicy policy;
    Parse(policy, Policy{.permission = 1, .folders = {{0, "/a"}}, .exclude = "vid-0781_pid-5567"}.Block(5),
          5);
    EXPECT_TRUE(policy.SetDevicePermission(7, 3));
    // A permission of 0 stands, also as the default of entries.
    Parse(policy, Policy{.permission = 0, .folders = {{0, "/b"}}, .include = "vid-0781_pid-****"}.Block(5),
          5);
    EXPECT_EQ(Paths(policy), Strings{"/b:0"});
    EXPECT_TRUE(policy.HasReadOnlyMark());
    EXPECT_FALSE(policy.HasSecondMark());
    EXPECT_EQ(policy.GetDevicePermission(7), 3u);
    EXPECT_EQ(policy.GetDevicePermission(8), 0u);
    EXPECT_TRUE(policy.IsAllowedByDeviceFilter(kDenied)); // by the new rule
    EXPECT_FALSE(policy.IsAllowedByDeviceFilter("<vidpid>abcd0000"));
    EXPECT_TRUE(policy.IsAllowedByDeviceFilter(""));
    Parse(policy, Policy{.exclude = "no rule"}.Block(5), 5);
    EXPECT_FALSE(policy.HasDeviceFilter());
}

TEST(ClientPolicy, AFolderIsInThePolicyWithAllThatLiesBelowIt)
{
    const struct {
        std::string entry;
        std::string path;
        bool matches;
    } cases[] = {
        {"*all", "anything", true},
        {"*all ", "anything", false},
        {"c", "c:\\x", true},
        {"c", "C:\\x", false}, // a letter alone is compared with case
        {"c", "C", true},
        {"c:", "c", true},
        {"c:", "C:", true},
        {"c", "cx", false},
        {"C:\\data\\", "c:\\DATA", true},
        {"C:\\data\\", "c:\\data\\x", true},
        {"C:\\data\\", "c:\\database", false},
        {"C:\\data", "C:\\dat", false},
        {"/srv/data", "/srv/data/x", true},
        {"/srv/data/", "/srv/data", true},
        {"/srv/data/", "/srv/database", false},
        {"/", "/srv", true},
        {std::string("/a\0b", 4), "/a", false},
    };
    for (const auto &c : cases) {
        if (c.entry.starts_with('/') && !platform::IsLocalSeparator('/'))
            continue; // the paths are those of another system
        ClientPolicy policy;
        Parse(policy, Policy{.folders = {{0, c.entry}}}.Block(5), 5);
        EXPECT_EQ(policy.IsFolderInPolicy(c.path), c.matches) << c.entry << " " << c.path;
    }
}

TEST(ClientPolicy, KeepsSoManyFoldersAndTheMarksOfAll)
{
    Policy block;
    for (size_t n = 0; n <= ClientPolicy::kMostFolders; ++n)
        block.folders.push_back({5, "/" + std::to_string(n)});
    block.folders[1].second = "/" + std::string(ClientPolicy::kLongestPath, 'x'); // too long by one
    ClientPolicy policy;
    Parse(policy, block.Block(6), 6);
    EXPECT_EQ(Paths(policy).size(), ClientPolicy::kMostFolders);
    block.folders.push_back({1, "/more"});
    Parse(policy, block.Block(6), 6);
    EXPECT_EQ(Paths(policy).size(), ClientPolicy::kMostFolders);
    EXPECT_TRUE(policy.HasReadOnlyMark());
}

} // namespace
} // namespace fodr::test
