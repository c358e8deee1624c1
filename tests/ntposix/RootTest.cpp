// Shares: what lies in them, and what doesn't.
#include "ntposix/NtWords.h"
#include "ntposix/ShareRoots.h"

#include <fcntl.h>
#include <stdio.h>

#include <atomic>

namespace fodr::nt {

namespace {

constexpr uint32_t kAttributes = FILE_READ_ATTRIBUTES;

class Roots : public NtFixture, public testing::WithParamInterface<bool> {
protected:
    Roots()
    {
        shareRoot.reset(); // there are others here
        ntposix::UseOpenat2(GetParam());
        MakeFolder("s/x/y");
        MakeFile("s/f", "inside");
        MakeFile("s/x/y/f", "inside");
        MakeFolder("beside");
        MakeFile("beside/secret", "outside");
        MakeFolder("s-neighbour");
        MakeFile("s-neighbour/secret", "outside");
    }
    ~Roots() override { ntposix::UseOpenat2(std::getenv("FODR_WITHOUT_OPENAT2") == nullptr); }

    std::unique_ptr<ShareRoot> ShareOf(std::string_view folder, const ShareRules &rules = {}) const
    {
        std::u16string name;
        EXPECT_TRUE(Utf8ToUtf16("\\??\\" + Path(folder), name));
        return std::make_unique<ShareRoot>(name, rules);
    }
    // Names of a share are that of its root and what is asked for.
    NtFile In(std::string_view folder, std::string_view name, const OpenOptions &how = {}) const
    {
        return {NtPathIn(folder, name), how};
    }
    std::u16string NtPathIn(std::string_view folder, std::string_view name) const
    {
        std::u16string path;
        EXPECT_TRUE(Utf8ToUtf16("\\??\\" + Path(folder) + "\\" + std::string(name), path));
        return path;
    }
    std::string ReadIn(std::string_view folder, std::string_view name) const
    {
        return ReadAt(In(folder, name), 0, 100).text;
    }
    void LinkTo(const std::string &target, std::string_view name) const { MakeSymlink(target.c_str(), name); }
};
INSTANTIATE_TEST_SUITE_P(Openat2, Roots, testing::Bool(), [](const auto &suite) {
    return std::string(suite.param ? "WithOpenat2" : "StepByStep");
});

TEST_P(Roots, LinksLeadNowhereButIntoTheShare)
{
    const auto share = ShareOf("s");
    LinkTo("../..", "s/x/y/up");
    EXPECT_EQ(In("s", "x\\y\\up\\f").status, STATUS_SUCCESS);
    OthersMove("s/x/y/up", "s/up2");
    const NTSTATUS denied = STATUS_ACCESS_DENIED;
    const struct {
        const char *link;
        std::string target;
        const char *asked;
        NTSTATUS status;
        NTSTATUS unconfined = STATUS_SUCCESS;
    } cases[] = {
        {"s/rel", "x/y/f", "rel", STATUS_SUCCESS},
        {"s/rel-folder", "./x//y/", "rel-folder\\f", STATUS_SUCCESS},
        {"s/abs", Path("s/x/y/f"), "abs", STATUS_SUCCESS},
        {"s/abs-folder", Path("s/x/"), "abs-folder\\y\\f", STATUS_SUCCESS},
        {"s/abs-root", Path("s"), "abs-root\\f", STATUS_SUCCESS},
        {"s/chain", "abs", "CHAIN", STATUS_SUCCESS},
        {"s/x/back", "../f", "x\\back", STATUS_SUCCESS},
        {"s/x/y/around", "../../x/../f", "x\\y\\around", STATUS_SUCCESS},
        {"s/rel-out", "../beside/secret", "rel-out", denied},
        {"s/abs-out", Path("beside/secret"), "abs-out", denied},
        {"s/abs-trick", Path("s/../beside/secret"), "abs-trick", denied},
        {"s/abs-neighbour", Path("s-neighbour/secret"), "abs-neighbour", denied},
        {"s/chain-out", "rel-out", "chain-out", denied},
        {"s/back-out", "abs-root/../beside/secret", "back-out", denied},
        {"s/folder-out", "../beside", "folder-out\\secret", denied},
        {"s/folder-none", "../beside", "folder-none\\none", denied, STATUS_OBJECT_NAME_NOT_FOUND},
        {"s/return", "../s/f", "return", denied},
        {"s/up", "..", "up\\s\\f", denied},
        {nullptr, "", "up2\\beside\\secret", denied, STATUS_OBJECT_PATH_NOT_FOUND},
        {"s/process", "/proc/self/root", "process\\tmp", denied},
        {"s/dangling", "none", "dangling", STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_NAME_NOT_FOUND},
        {"s/abs-dangling", Path("s/none"), "abs-dangling", STATUS_OBJECT_NAME_NOT_FOUND,
         STATUS_OBJECT_NAME_NOT_FOUND},
        {"s/loop", "x/loop", "x\\loop", STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_NAME_NOT_FOUND},
        {"s/x/loop", "../loop", "x\\loop", STATUS_REPARSE_POINT_NOT_RESOLVED,
         STATUS_REPARSE_POINT_NOT_RESOLVED},
    };
    for (const auto &test : cases) {
        if (test.link)
            LinkTo(test.target, test.link);
        {
            const std::string asked = std::string("s/") + test.asked; // a name of no share
            EXPECT_EQ(Open(asked).status, test.unconfined) << asked;
        }
        for (const uint32_t access : {GENERIC_READ, kAttributes, MAXIMUM_ALLOWED}) {
            EXPECT_EQ(In("s", test.asked, {.access = access}).status, test.status) << test.asked << access;
        }
        // What is outside shows in no answer, be it there or not; a link in the share is there itself.
        const bool isLink = test.link && std::string_view(test.asked).find('\\') == std::string_view::npos;
        const NTSTATUS created = isLink ? STATUS_OBJECT_NAME_COLLISION : denied;
        if (test.status == denied) {
            EXPECT_EQ(In("s", test.asked, {.disposition = FILE_CREATE}).status, created) << test.asked;
        }
    }
    EXPECT_FALSE(PathFileExists(NtPathIn("s", "folder-out\\secret").c_str()));
    EXPECT_TRUE(PathFileExists(NtPathIn("s", "folder-out").c_str())); // the link itself
    for (const char *name : {"rel-out", "folder-out", "loop"})
        EXPECT_EQ(In("s", name, {.access = kAttributes, .options = FILE_OPEN_REPARSE_POINT}).status,
                  STATUS_SUCCESS);
    EXPECT_EQ(In("s", "folder-out\\new", {.disposition = FILE_OPEN_IF}).status, denied);
    EXPECT_EQ(Rename(In("s", "f", {.access = DELETE_ACCESS}), NtPathIn("s", "folder-out\\f")), denied);
    EXPECT_FALSE(Exists("beside/new") || Exists("beside/f"));
}

TEST_P(Roots, ARuleLetsLinksLeadAnywhere)
{
    auto share = ShareOf("s", {.linksOutside = true});
    LinkTo("../beside", "s/out");
    LinkTo(Path("beside/secret"), "s/file");
    EXPECT_EQ(ReadIn("s", "out\\secret"), "outside");
    EXPECT_EQ(ReadIn("s", "FILE"), "outside");
    EXPECT_EQ(In("s", "out\\none").status, STATUS_OBJECT_NAME_NOT_FOUND);
    // Of two shares of the folder the stricter one counts, as long as there are two.
    auto strict = ShareOf("s");
    EXPECT_EQ(In("s", "out\\secret").status, STATUS_ACCESS_DENIED);
    strict.reset();
    EXPECT_EQ(ReadIn("s", "out\\secret"), "outside");
    // It counts at once, also while another thread looks for the folder.
    std::atomic<int> left = 1000;
    AtOnce(2, [&](int who) {
        while (left > 0) {
            const auto other = who == 0 ? ShareOf("s") : nullptr;
            const NTSTATUS status = In("s", "out\\secret").status;
            EXPECT_TRUE(who == 1 || status == STATUS_ACCESS_DENIED) << left;
            left -= who == 0;
        }
    });
}

// By whatever name it was opened, and also where its name is free for another.
TEST_P(Roots, TheRootItselfIsNeitherTakenAwayNorTaken)
{
    const auto share = ShareOf("e");
    MakeFolder("e");
    LinkTo(".", "s/self");
    const auto outer = ShareOf("s");
    for (const auto &[folder, name] : {std::pair("e", ""), std::pair("s", "self")}) {
        const NtFile top = In(folder, name, {.access = DELETE_ACCESS});
        ASSERT_EQ(top.status, STATUS_SUCCESS) << name;
        EXPECT_EQ(Delete(top), STATUS_CANNOT_DELETE) << name;
        EXPECT_EQ(DeleteNow(top), STATUS_CANNOT_DELETE) << name;
        EXPECT_EQ(Rename(top, NtPathIn("s", "x\\new")), STATUS_ACCESS_DENIED) << name;
        EXPECT_EQ(In(folder, name, {.access = DELETE_ACCESS, .options = FILE_DELETE_ON_CLOSE}).status,
                  STATUS_CANNOT_DELETE);
    }
    EXPECT_TRUE(Exists("e") && Exists("s/f"));
    const NtFile file = In("s", "f", {.access = DELETE_ACCESS});
    std::filesystem::rename(Path("s"), Path("away"));
    for (const char *target : {"", "\\"})
        EXPECT_TRUE(IsError(Rename(file, NtPathIn("s", target))));
    EXPECT_FALSE(Exists("s"));
}

// While another thread exchanges a folder for a link that leads out.
TEST_P(Roots, ALinkThatComesInBetweenLeadsNowhereEither)
{
    const auto share = ShareOf("s");
    MakeFolder("s/door");
    MakeFile("s/door/secret", "inside");
    LinkTo("../beside", "s/other");
    std::atomic<bool> done{false};
    int inside = 0;
    AtOnce(2, [&](int i) {
        if (i == 0) {
            while (!done)
                renameat2(AT_FDCWD, Path("s/door").c_str(), AT_FDCWD, Path("s/other").c_str(),
                          RENAME_EXCHANGE);
            return;
        }
        for (int round = 0; round < 3000; ++round) {
            const NtFile file = In("s", "door\\secret", {.access = round % 2 ? GENERIC_READ : kReadWrite});
            if (file.status == STATUS_SUCCESS) {
                EXPECT_EQ(ReadAt(file, 0, 9).text, "inside");
                ++inside;
            }
            EXPECT_NE(In("s", "door\\new", {.disposition = FILE_OPEN_IF}).status, STATUS_OBJECT_NAME_INVALID);
        }
        done = true;
    });
    EXPECT_GT(inside, 0);
    EXPECT_FALSE(Exists("beside/new"));
}

TEST_P(Roots, OfSharesInOneAnotherEachNameHasItsOwn)
{
    const auto outer = ShareOf("s");
    const auto inner = ShareOf("s/x", {.names = CaseRule::Exact});
    LinkTo("../f", "s/x/link");
    EXPECT_EQ(In("s", "x\\link").status, STATUS_SUCCESS);
    EXPECT_EQ(In("s", "X\\Y\\F").status, STATUS_SUCCESS);
    EXPECT_EQ(In("s/x", "link").status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(In("s/x", "Y").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(In("s/x", "y\\f").status, STATUS_SUCCESS);
}

TEST_P(Roots, TheRootOfAllAndDrivesAreShares)
{
    const std::string below = root.string().substr(1);
    LinkTo(Path("beside/secret"), "s/abs");
    for (const std::u16string prefix : {u"\\??\\", u"\\??\\C:"}) {
        const ShareRoot share(prefix, {.names = CaseRule::Exact});
        auto open = [&](const std::string &path) {
            std::u16string text;
            EXPECT_TRUE(Utf8ToUtf16(path, text));
            return NtFile(prefix + u"\\" + text, {}).status;
        };
        EXPECT_EQ(open(below + "/s/f"), STATUS_SUCCESS);
        EXPECT_EQ(open(below + "/S/f"), STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_EQ(open(below + "/s/abs"), STATUS_SUCCESS);
        EXPECT_EQ(open(""), STATUS_SUCCESS);
        EXPECT_EQ(open("proc/self/status"), STATUS_SUCCESS);
        EXPECT_EQ(open("proc/self/exe"), STATUS_REPARSE_POINT_NOT_RESOLVED);
        EXPECT_EQ(open("proc/self/root/tmp"), STATUS_REPARSE_POINT_NOT_RESOLVED);
    }
}

TEST_P(Roots, AFolderThatIsGoneIsNotReplacedByANeighbour)
{
    const auto share = ShareOf("s", {.exactRoot = true});
    const NtFile old = In("s", "f");
    ASSERT_EQ(old.status, STATUS_SUCCESS);
    std::filesystem::remove_all(root / "s");
    MakeFolder("S");
    MakeFile("S/f", "another's");
    EXPECT_EQ(In("s", "f").status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(In("s", "").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(In("s", "new", {.disposition = FILE_CREATE}).status, STATUS_OBJECT_PATH_NOT_FOUND);
    MakeFolder("s");
    MakeFile("s/f", "again");
    EXPECT_EQ(ReadIn("s", "f"), "again");
    EXPECT_EQ(In("s", "new", {.disposition = FILE_CREATE}).status, STATUS_SUCCESS);
    EXPECT_TRUE(Exists("s/new"));
    EXPECT_EQ(ReadAt(old, 0, 9).text, "inside"); // what is open goes on

    // One that was moved goes on until the root itself is looked at.
    OthersMove("s", "moved");
    EXPECT_EQ(ReadIn("s", "f"), "again");
    EXPECT_EQ(In("s", "").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(In("s", "f").status, STATUS_OBJECT_PATH_NOT_FOUND);
    OthersMove("beside", "s");
    EXPECT_EQ(ReadIn("s", "secret"), "outside");
}

TEST_P(Roots, HaveARuleForCase)
{
    constexpr NTSTATUS kThere = STATUS_SUCCESS, kNone = STATUS_OBJECT_NAME_NOT_FOUND,
                       kMeets = STATUS_OBJECT_NAME_COLLISION;
    const struct {
        uint32_t disposition;
        NTSTATUS anyCase, noMerge, exact; // of a file that is there in another case
        uint64_t exactInformation;
    } cases[] = {
        {FILE_OPEN, kThere, kThere, kNone, FILE_DOES_NOT_EXIST},
        {FILE_OVERWRITE, kThere, kThere, kNone, FILE_DOES_NOT_EXIST},
        {FILE_CREATE, kMeets, kMeets, kThere, FILE_CREATED},
        {FILE_OPEN_IF, kThere, kMeets, kThere, FILE_CREATED},
        {FILE_OVERWRITE_IF, kThere, kMeets, kThere, FILE_CREATED},
        {FILE_SUPERSEDE, kThere, kMeets, kThere, FILE_CREATED},
    };
    for (const CaseRule rule : {CaseRule::AnyCase, CaseRule::AnyCaseNoMerge, CaseRule::Exact}) {
        const auto share = ShareOf("s", {.names = rule});
        for (const auto &test : cases) {
            MakeFile("s/x/Name", "kept");
            const NTSTATUS expected = rule == CaseRule::AnyCase ? test.anyCase
                                      : rule == CaseRule::Exact ? test.exact
                                                                : test.noMerge;
            const OpenOptions how{.access = kReadWrite, .disposition = test.disposition};
            const NtFile file = In("s", "x\\NAME", how);
            EXPECT_EQ(file.status, expected) << test.disposition;
            if (rule == CaseRule::Exact) {
                EXPECT_EQ(file.information, test.exactInformation);
            }
            if (expected != kThere || rule == CaseRule::Exact) {
                EXPECT_EQ(Content("s/x/Name"), "kept") << test.disposition;
            }
            EXPECT_EQ(Exists("s/x/NAME"), rule == CaseRule::Exact && expected == kThere);
            std::filesystem::remove(root / "s/x/NAME");
            // The own name is no other's.
            EXPECT_EQ(In("s", "x\\Name", how).status, test.disposition == FILE_CREATE ? kMeets : kThere);
        }
        EXPECT_EQ(Told<FILE_CASE_SENSITIVE_INFORMATION>(In("s", "x"), FileCaseSensitiveInformation).Flags,
                  rule == CaseRule::Exact ? FILE_CS_FLAG_CASE_SENSITIVE_DIR : 0);
        FODR_HOST_INFORMATION host{};
        IO_STATUS_BLOCK io{};
        EXPECT_EQ(NtDeviceIoControlFile(In("s", "x"), nullptr, nullptr, nullptr, &io, FSCTL_FODR_QUERY_HOST,
                                        nullptr, 0, &host, sizeof(host)),
                  STATUS_SUCCESS);
        EXPECT_EQ((host.Features & FODR_HOST_CASE_SENSITIVE) != 0, rule == CaseRule::Exact);
        EXPECT_EQ(In("s", "X\\y\\f").status,
                  rule == CaseRule::Exact ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_SUCCESS);
    }
}

TEST_P(Roots, NamesThatAreTooLongAreCalledSo)
{
    const std::string bytes(256, 'n'), wide = [] {
        std::string text;
        for (int i = 0; i < 128; ++i)
            text += "\u00E4"; // two bytes each
        return text;
    }();
    for (const CaseRule rule : {CaseRule::AnyCase, CaseRule::Exact}) {
        const auto share = ShareOf("s", {.names = rule});
        for (const uint32_t disposition : {FILE_OPEN, FILE_OPEN_IF, FILE_CREATE}) {
            for (const std::string &name : {bytes, wide, bytes + "\\f", "x\\" + wide})
                EXPECT_EQ(In("s", name, {.disposition = disposition}).status, STATUS_NAME_TOO_LONG) << name;
        }
    }
}

} // namespace

} // namespace fodr::nt
