// What others do to the same names while one of them is taken away or moved. The system calls by which names
// change are ours here: an editor saves right before any of them, and file systems lack what some lack.
#include "ntposix/NtWords.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

namespace {

struct Tampering {
    int untilSave = -1; // calls before the one that others are quicker than; negative: none
    std::function<void()> save;
    bool noFreeNames = false; // no RENAME_NOREPLACE
    bool noLinks = false;
    bool noAside = false; // nothing can be moved to a hidden name, as on a full disk
    int untilStuck = -1;  // extended attributes that go before one that doesn't; negative: all go
};
thread_local Tampering *tampering = nullptr;

void LetOthersSave()
{
    if (tampering && tampering->untilSave-- == 0)
        tampering->save();
}

int Refuse(int error)
{
    errno = error;
    return -1;
}

int Call(long number, auto... arguments)
{
    return static_cast<int>(syscall(number, arguments...));
}

int Rename(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags)
{
    LetOthersSave();
    if (tampering && tampering->noFreeNames && flags != 0)
        return Refuse(EINVAL);
    if (tampering && tampering->noAside && std::string_view(to).starts_with(".fodr-deleted-"))
        return Refuse(ENOSPC);
    return Call(SYS_renameat2, fromFolder, from, toFolder, to, flags);
}

} // namespace

extern "C" {

int renameat2(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags) noexcept
{
    return Rename(fromFolder, from, toFolder, to, flags);
}

int renameat(int fromFolder, const char *from, int toFolder, const char *to) noexcept
{
    return Rename(fromFolder, from, toFolder, to, 0);
}

int linkat(int fromFolder, const char *from, int toFolder, const char *to, int flags) noexcept
{
    LetOthersSave();
    if (tampering && tampering->noLinks)
        return Refuse(EPERM);
    return Call(SYS_linkat, fromFolder, from, toFolder, to, flags);
}

int unlinkat(int folder, const char *name, int flags) noexcept
{
    LetOthersSave();
    return Call(SYS_unlinkat, folder, name, flags);
}

int removexattr(const char *path, const char *name) noexcept
{
    if (tampering && tampering->untilStuck-- == 0)
        return Refuse(EIO);
    return Call(SYS_removexattr, path, name);
}
}

namespace fodr::nt {

namespace {

// On the disk and in memory.
class NameRaces : public NtFixture, public testing::WithParamInterface<const char *> {
protected:
    NameRaces()
    {
        std::error_code error;
        std::string name = std::string(GetParam()) + "/fodr-races-XXXXXX";
        if (!mkdtemp(name.data()))
            return;
        std::filesystem::remove_all(root, error);
        root = name;
    }
    void Clear() const
    {
        for (const auto &entry : std::filesystem::directory_iterator(root))
            std::filesystem::remove_all(entry.path());
    }
    // As editors do it: the whole new file comes in one step.
    void Save(const char *name, std::string_view content) const
    {
        MakeFile("new~", content);
        ASSERT_EQ(rename(Path("new~").c_str(), Path(name).c_str()), 0);
    }
    // Under how many names that others see.
    int Copies(std::string_view content) const
    {
        int copies = 0;
        for (const std::string &name : Listing()) {
            EXPECT_FALSE(name.starts_with(".fodr-deleted-")) << name;
            copies += !name.starts_with(".fodr-deleted-") && Content(name) == content;
        }
        return copies;
    }
};

struct Deed {
    const char *what;
    const char *file; // that it is done with
    std::function<NTSTATUS(NtFile &, HANDLE folder)> act;
    bool replaces = false; // so that what was saved under the new name just before may go
};

const std::vector<Deed> kDeeds = {
    {"deletion with the last handle", "file",
     [](NtFile &file, HANDLE) {
         const NTSTATUS status = Delete(file);
         file.Close();
         return status;
     }},
    {"deletion at once", "file", [](NtFile &file, HANDLE) { return DeleteNow(file); }},
    {"rename", "file", [](NtFile &file, HANDLE folder) { return RenameInto(file, folder, u"to", 0); }},
    {"rename over what is there", "file",
     [](NtFile &file, HANDLE folder) { return RenameInto(file, folder, u"to"); }, true},
    {"rename over what nobody has open", "file",
     [](NtFile &file, HANDLE folder) {
         return RenameInto(file, folder, u"to", FILE_RENAME_REPLACE_IF_EXISTS);
     },
     true},
    {"merge of two links", "file",
     [](NtFile &file, HANDLE folder) {
         return RenameInto(file, folder, u"link", FILE_RENAME_REPLACE_IF_EXISTS);
     }},
    {"spelling", "file", [](NtFile &file, HANDLE folder) { return RenameInto(file, folder, u"FILE", 0); }},
};

TEST_P(NameRaces, ASaveBeforeAnyStepIsNotLost)
{
    const struct {
        const char *what;
        bool noFreeNames, noLinks;
    } systems[] = {{"all", false, false}, {"no free names", true, false}, {"no links either", true, true}};
    for (const Deed &deed : kDeeds) {
        for (const auto &system : systems) {
            for (const char *saved : {"file", "to", "link", "FILE"}) {
                bool everyStep = false;
                for (int step = 0; !everyStep; ++step) {
                    Clear();
                    MakeFile("file", "old");
                    if (std::string_view(deed.what).starts_with("merge"))
                        std::filesystem::create_hard_link(root / "file", root / "link");
                    NtFile file = Doomed("file");
                    const NtFile folder = Folder("");
                    Tampering others{step, [&] { Save(saved, "saved"); }, system.noFreeNames, system.noLinks};
                    tampering = &others;
                    const NTSTATUS status = deed.act(file, folder);
                    tampering = nullptr;
                    everyStep = others.untilSave >= 0;
                    if (everyStep)
                        break;
                    file.Close();
                    const bool mayGo =
                        saved != std::string_view("file") &&
                        (deed.replaces || (system.noLinks && saved == std::string_view("to")) ||
                         (system.noLinks && saved == std::string_view("FILE")));
                    const int copies = Copies("saved");
                    EXPECT_TRUE(copies == 1 || (mayGo && copies == 0))
                        << deed.what << ", system with " << system.what << ", save of " << saved
                        << " before step " << step << ": " << copies << " copies, status " << std::hex
                        << status << " " << testing::PrintToString(Listing());
                }
            }
        }
    }
}

TEST_P(NameRaces, EverySystemRenamesAndDeletes)
{
    for (int lacks = 0; lacks < 8; ++lacks) {
        Tampering system{-1, {}, (lacks & 1) != 0, (lacks & 2) != 0, (lacks & 4) != 0};
        Clear();
        MakeFile("file", "content");
        MakeFolder("folder/inner");
        MakeFile("taken");
        NtFile file = Doomed("file");
        NtFile folder = Doomed("folder");
        const NtFile above = Folder("");
        tampering = &system;
        EXPECT_EQ(RenameInto(file, above, u"taken", 0), STATUS_OBJECT_NAME_COLLISION) << lacks;
        EXPECT_EQ(RenameInto(folder, above, u"taken", 0), STATUS_OBJECT_NAME_COLLISION) << lacks;
        EXPECT_EQ(RenameInto(folder, folder, u"inside", 0), STATUS_INVALID_PARAMETER) << lacks;
        EXPECT_EQ(RenameInto(file, above, u"file 2", 0), STATUS_SUCCESS) << lacks;
        EXPECT_EQ(RenameInto(folder, above, u"folder 2", 0), STATUS_SUCCESS) << lacks;
        EXPECT_EQ(Listing(), (NameSet{"file 2", "folder 2", "taken"})) << lacks;
        EXPECT_EQ(Content("file 2"), "content") << lacks;
        EXPECT_TRUE(Exists("folder 2/inner")) << lacks;
        EXPECT_EQ(DeleteNow(file), STATUS_SUCCESS) << lacks;
        tampering = nullptr;
        EXPECT_EQ(Listing(), (NameSet{"folder 2", "taken"})) << lacks;
    }
}

// Two saves while the file is aside: the first is in the way of nobody and stays.
TEST_P(NameRaces, WhatCantBePutBackIsKept)
{
    MakeFile("file", "old");
    NtFile file = Doomed("file");
    Tampering second{0, [&] { Save("file", "second"); }};
    Tampering first{0, [&] {
                        Save("file", "first");
                        tampering = &second;
                        second.untilSave = 0;
                    }};
    tampering = &first;
    EXPECT_EQ(DeleteNow(file), STATUS_FILE_DELETED);
    tampering = nullptr;
    EXPECT_EQ(Content("file"), "second");
    EXPECT_EQ(Copies("first"), 1);
    EXPECT_TRUE(std::ranges::any_of(
        Listing(), [](const std::string &name) { return name.starts_with("file.fodr-kept-"); }));
}

TEST_P(NameRaces, ThousandsOfSavesAreNeverLost)
{
    constexpr int kRounds = 250; // of each deed
    for (const Deed &deed : kDeeds) {
        if (std::string_view(deed.what).starts_with("merge"))
            continue;
        for (int round = 0; round < kRounds && !HasFailure(); ++round) {
            MakeFile("file", "old");
            MakeFile("new~", "saved");
            NtFile file = Doomed("file");
            const NtFile folder = Folder("");
            AtOnce(2, [&](int who) {
                if (who == 0)
                    deed.act(file, folder);
                else
                    EXPECT_EQ(rename(Path("new~").c_str(), Path("file").c_str()), 0);
            });
            file.Close();
            EXPECT_EQ(Copies("saved"), 1) << deed.what << " " << testing::PrintToString(Listing());
            Clear();
        }
    }
}

// What a create has made and can't keep goes; what others have put in its place doesn't.
TEST_P(NameRaces, AFailedCreateRemovesItsOwnFileAlone)
{
    constexpr OpenOptions kTooMuch{
        .access = kReadWrite, .disposition = FILE_CREATE, .allocation = int64_t{1} << 55};
    EXPECT_EQ(Open("file", kTooMuch).status, STATUS_DISK_FULL);
    EXPECT_EQ(Listing(), NameSet{});
    for (int step = 0; step < 2; ++step) {
        Tampering others{step, [&] { Save("file", "saved"); }};
        tampering = &others;
        EXPECT_EQ(Open("file", kTooMuch).status, STATUS_DISK_FULL);
        tampering = nullptr;
        EXPECT_LT(others.untilSave, 0);
        EXPECT_EQ(Copies("saved"), 1);
        Clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Places, NameRaces, testing::Values("/tmp", "/dev/shm"));

using Overwrites = NtFixture;

TEST_F(Overwrites, ThatCantTakeAStreamAwayLeaveThemAll)
{
    MakeFile("file", "content");
    const char *const names[] = {"user.DosStream.a:$DATA", "user.DosStream.b:$DATA"};
    for (const char *name : names) {
        if (setxattr(Path("file").c_str(), name, name, strlen(name) + 1, 0) != 0)
            GTEST_SKIP() << "no streams here";
    }
    for (const bool stuck : {true, false}) {
        Tampering system;
        system.untilStuck = stuck ? 1 : -1;
        tampering = &system;
        const NTSTATUS status = Open("file", {.access = kReadWrite, .disposition = FILE_OVERWRITE}).status;
        tampering = nullptr;
        EXPECT_EQ(status, stuck ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS);
        EXPECT_EQ(Content("file"), stuck ? "content" : "");
        for (const char *name : names) {
            char value[64] = {};
            const ssize_t length = getxattr(Path("file").c_str(), name, value, sizeof(value));
            EXPECT_STREQ(value, stuck ? name : "");
            EXPECT_EQ(length > 0, stuck);
        }
    }
}

class FullDisk : public NtFixture {
protected:
    FullDisk()
    {
        MakeFolder("small");
        mounted = mount("fodr-test", Path("small").c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~FullDisk() override
    {
        if (mounted)
            umount2(Path("small").c_str(), MNT_DETACH);
    }
    bool mounted;
};

TEST_F(FullDisk, AnOverwriteThatWantsTooMuchKeepsTheContent)
{
    if (!mounted)
        GTEST_SKIP() << "only root can mount a small disk";
    const std::string old(16 * 1024, 'o');
    MakeFile("small/file", old);
    MakeFile("small/filler", std::string(40 * 1024, 'f'));
    for (const uint32_t disposition : {FILE_OVERWRITE, FILE_OVERWRITE_IF, FILE_SUPERSEDE}) {
        const OpenOptions tooMuch{.access = kReadWrite, .disposition = disposition, .allocation = 48 * 1024};
        EXPECT_EQ(Open("small\\file", tooMuch).status, STATUS_DISK_FULL);
        EXPECT_EQ(Content("small/file"), old);
    }
    const OpenOptions fits{.access = kReadWrite, .disposition = FILE_OVERWRITE, .allocation = 16 * 1024};
    EXPECT_EQ(Open("small\\file", fits).status, STATUS_SUCCESS);
    EXPECT_EQ(Content("small/file"), "");
}

} // namespace

} // namespace fodr::nt
