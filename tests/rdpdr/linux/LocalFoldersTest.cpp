// Shares of folders that differ in case alone, and of drives that come or go while they are added.
#include "SettingsFixture.h"
#include "ntposix/NtName.h"
#include "rdpdr/ManagerFixture.h"
#include "rdpdr/RedirectionSettings.h"
#include "runtime/CapturedLog.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <utility>

namespace fodr::test {
namespace {

class LocalFolders : public ManagerTest {
protected:
    std::string Files(const std::string &name, const Strings &files)
    {
        const std::string folder = Folder(name);
        for (const std::string &file : files)
            std::ofstream(folder + "/" + file) << name << file;
        return folder;
    }
    Strings AddFiles(const std::string &path, const Strings &files)
    {
        channel.TakeNotices();
        manager.AddSharedFolder(path, "c", false, 0, "(OVFCP)s", files);
        return channel.TakeNotices();
    }
    const Strings already{"c|FOLDER_REDIRECTION_CMD_STATUS,SUCCEEDED"};
};

TEST_F(LocalFolders, FilesOfTwoFoldersThatDifferInCaseStayApart)
{
    LogOn(6);
    const std::string big = Files("Docs", {"a", "b"}), small = Files("docs", {"a", "b"});
    EXPECT_EQ(AddFiles(big, {"a"}), Strings{});
    EXPECT_EQ(AddFiles(small, {"b"}), Strings{});
    EXPECT_EQ(TakeShares(), (Strings{"65535 (OVFCP)s (5)", "65536 (OVFCP)s (5)"}));
    const Strings both{"a", "b"};
    EXPECT_EQ(OpenedOf(manager, both, 65535), Strings{"a"});
    EXPECT_EQ(OpenedOf(manager, both, 65536), Strings{"b"});
    // Not on disk in this case: a share of its own, that shows nothing.
    EXPECT_EQ(AddFiles(root + "/DOCS", {"b"}), Strings{});
    EXPECT_EQ(TakeShares(), Strings{});
    EXPECT_EQ(OpenedOf(manager, both, 65535), Strings{"a"});
    // And a folder of two names is one share.
    std::filesystem::remove_all(small);
    std::filesystem::create_directory_symlink("Docs", root + "/dOCS");
    EXPECT_EQ(AddFiles(root + "/dOCS", {"b"}), already);
    EXPECT_EQ(OpenedOf(manager, both, 65535), both);
    // What was named in the folder that is gone isn't taken for the other's.
    EXPECT_EQ(OpenedOf(manager, both, 65536), Strings{});
    EXPECT_EQ(AddFiles(small, {"a"}), already);
    EXPECT_EQ(OpenedOf(manager, both, 65536), Strings{});
}

TEST_F(LocalFolders, NamesAndLinksGoByTheSettingsAtTheTimeOfTheShare)
{
    const std::string folder = Files("rules", {"Name"});
    std::filesystem::create_symlink("../other", folder + "/link");
    Files("other", {});
    const struct {
        uint32_t caseSensitivity, linksOutside;
        nt::NTSTATUS open, openIf, link;
    } rows[] = {
        {0, 0, nt::STATUS_SUCCESS, nt::STATUS_SUCCESS, nt::STATUS_ACCESS_DENIED},
        {1, 1, nt::STATUS_SUCCESS, nt::STATUS_OBJECT_NAME_COLLISION, nt::STATUS_SUCCESS},
        {2, 0, nt::STATUS_OBJECT_NAME_NOT_FOUND, nt::STATUS_SUCCESS, nt::STATUS_ACCESS_DENIED},
        {3, 2, nt::STATUS_SUCCESS, nt::STATUS_SUCCESS, nt::STATUS_SUCCESS},
    };
    for (const auto &row : rows) {
        settings.SetNumber("caseSensitivity", row.caseSensitivity);
        settings.SetNumber("linksOutside", row.linksOutside);
        auto fresh = Fresh({VersionExchange(1)});
        fresh->AddSharedFolder(folder, "c", false, 0, "");
        settings.SetNumber("caseSensitivity", 0);
        settings.SetNumber("linksOutside", 0);
        const auto status = [&](const char16_t *path, uint32_t disposition) {
            channel.TakePackets();
            FeedTo(*fresh, Open(65535, path, disposition, 0));
            return static_cast<nt::NTSTATUS>(StatusOf(channel.TakePackets().at(0)));
        };
        EXPECT_EQ(status(u"\\NAME", nt::FILE_OPEN), row.open) << row.caseSensitivity;
        EXPECT_EQ(status(u"\\NAME", nt::FILE_OPEN_IF), row.openIf) << row.caseSensitivity;
        EXPECT_EQ(status(u"\\link", nt::FILE_OPEN), row.link) << row.linksOutside;
        EXPECT_EQ(std::filesystem::remove(folder + "/NAME"), row.caseSensitivity == 2);
        fresh->Shutdown();
    }
}

TEST_F(LocalFolders, AShareIsReadOnlyByTheSettingAtItsTime)
{
    LogOn(6);
    const std::string folder = Files("protected", {"one"});
    for (const bool named : {false, true}) {
        settings.SetNumber("readOnlyShares", 1);
        auto fresh = Fresh({VersionExchange(1)});
        fresh->AddSharedFolder(folder, "c", false, 0, named ? "(OVFCP)protected" : "", {"one"});
        settings.SetNumber("readOnlyShares", 0);
        for (const uint32_t disposition : {nt::FILE_SUPERSEDE, nt::FILE_OVERWRITE}) {
            channel.TakePackets();
            FeedTo(*fresh, Open(65535, u"\\one", disposition, 0));
            EXPECT_EQ(static_cast<nt::NTSTATUS>(StatusOf(channel.TakePackets().at(0))),
                      nt::STATUS_MEDIA_WRITE_PROTECTED);
        }
        FeedTo(*fresh, Open(65535, u"\\one", nt::FILE_OPEN, 0));
        EXPECT_EQ(StatusOf(channel.TakePackets().at(0)), 0u);
        fresh->Shutdown();
    }
}

TEST_F(LocalFolders, TheMarkOfANamedFilesOriginIsReachedAndNotItsNeighbours)
{
    LogOn(6);
    const std::string folder = Files("a", {"one", "two"});
    const Strings marks{"one:zone.identifier", "two:Zone.Identifier", "one:other"};
    for (const char *file : {"/one", "/two"}) {
        for (const char *name : {"user.DosStream.Zone.Identifier:$DATA", "user.DosStream.other:$DATA"}) {
            if (setxattr((folder + file).c_str(), name, "x", 2, 0) != 0)
                GTEST_SKIP() << "no extended attributes here";
        }
    }
    settings.SetList("AllowedFolders", {folder + "/one"});
    AddFiles(folder, {"one"});
    EXPECT_EQ(OpenedOf(manager, marks), Strings{}); // a listed name is one in its very case
    EXPECT_EQ(OpenedOf(manager, {"one:Zone.Identifier", "two:Zone.Identifier"}),
              Strings{"one:Zone.Identifier"});
    // Where the whole folder is allowed, on any path.
    settings.SetList("AllowedFolders", {folder});
    auto fresh = Fresh({VersionExchange(1)});
    fresh->AddSharedFolder(folder, "c", false, 0, "(OVFCP)a", {"one"});
    EXPECT_EQ(OpenedOf(*fresh, {"two", "two:Zone.Identifier", "two:other"}), Strings{"two:Zone.Identifier"});
}

TEST_F(LocalFolders, FoldersThatDifferInCaseAreSharedAndRemovedEachForItself)
{
    LogOn(6);
    UseDrives("D=" + root + "/Docs");
    const std::string big = Folder("Docs"), small = Folder("docs"), only = Folder("Only");
    const struct {
        std::string path;
        bool add;
        Strings statuses, shares;
    } steps[] = {
        {big, true, {}, {"65535 Docs (5)"}},
        {small, true, {}, {"65536 docs(1) (5)"}},
        {small, true, {"SUCCEEDED"}, {}},
        {only, true, {}, {"65537 Only (5)"}},
        {root + "/ONLY", true, {"SUCCEEDED"}, {}}, // served from the one there is
        {small, false, {}, {"-65536"}},
        {small, false, {}, {}},                  // is there and isn't shared
        {root + "/DOCS", false, {}, {"-65535"}}, // the one that can be meant
        {root + "/only", false, {}, {"-65537"}},
        {"D:\\", true, {}, {"65538 D (5)"}},
        {"d", true, {"SUCCEEDED"}, {}},
        {"d:", false, {}, {"-65538"}},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.path);
        if (step.add)
            EXPECT_EQ(Add(step.path), step.statuses);
        else
            EXPECT_EQ(manager.RemoveSharedFolder(step.path, "", "c"), !step.shares.empty());
        EXPECT_EQ(TakeShares(), step.shares);
    }
}

TEST_F(LocalFolders, AFolderThatIsGoneIsNotTakenForItsNeighbour)
{
    LogOn(6);
    const std::string small = Files("docs", {"a"});
    Files("Docs", {"a", "b"});
    Files("Only", {"a"});
    Add(small);
    Add(root + "/ONLY"); // not there under this very name: it stands for the one that is
    const Strings asked{"", "a", "A", "b"};
    EXPECT_EQ(OpenedOf(manager, asked, 65535), (Strings{"", "a", "A"}));
    EXPECT_EQ(OpenedOf(manager, asked, 65536), (Strings{"", "a", "A"}));
    std::filesystem::remove_all(small);
    EXPECT_EQ(OpenedOf(manager, asked, 65535), Strings{});
    FeedTo(manager, Open(65535, u"\\new", nt::FILE_OPEN_IF, 0x40));
    EXPECT_FALSE(std::filesystem::exists(root + "/Docs/new"));
    Files("docs", {"b"}); // it is back
    EXPECT_EQ(OpenedOf(manager, asked, 65535), (Strings{"", "b"}));
    // With the share the rule ends.
    std::filesystem::remove_all(small);
    manager.RemoveSharedFolder(small, "", "c");
    EXPECT_EQ(Add(small), Strings{});
    EXPECT_EQ(OpenedOf(manager, asked, 65537), (Strings{"", "a", "A", "b"}));
}

// Stands for D, and lets things happen once while an add looks at the drive.
std::string folderOfD;
std::function<void()> meanwhile;
std::string FolderOfDrive(char)
{
    std::string seen = folderOfD;
    if (meanwhile)
        std::exchange(meanwhile, {})();
    return seen;
}

TEST_F(LocalFolders, ADriveThatComesOrGoesDuringAnAddIsSeen)
{
    const std::string drive = Folder("drive");
    for (const bool arrives : {true, false}) {
        auto fresh = Fresh({VersionExchange(1)});
        folderOfD = arrives ? "" : drive;
        meanwhile = [&] {
            folderOfD = arrives ? drive : "";
            EXPECT_TRUE(arrives ? fresh->OnDeviceAvailable('D') : fresh->OnDeviceUnavailable('D'));
        };
        ntposix::SetDriveLetterResolver(FolderOfDrive);
        EXPECT_TRUE(fresh->AddSharedFolder("D:\\", "c", false, 0, ""));
        EXPECT_FALSE(meanwhile);
        EXPECT_EQ(TakeShares(), arrives ? Strings{"65535 D (0)"} : Strings{});
        EXPECT_EQ(OpenedOf(*fresh, {""}), arrives ? Strings{""} : Strings{});
        // Such events are no news any more.
        EXPECT_TRUE(arrives ? fresh->OnDeviceAvailable('D') : fresh->OnDeviceUnavailable('D'));
        EXPECT_EQ(TakeShares(), Strings{});
        ntposix::SetDriveLetterResolver(platform::LocalPathOfDriveLetter);
    }
}

// What the settings file makes of the limit.

constexpr const char *kKey = "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";

TEST(LocalFolderLimit, WhatCantBeReadAllowsNothing)
{
    const std::string outside = " is outside of the folders that this machine allows.\n";
    const std::string unread = " is not shared, as the setting AllowedFolders can't be read.\n";
    const struct {
        const char *what;
        std::string store;
        std::string refusal; // of a folder; empty when it is allowed
    } rows[] = {
        {"no store", "", ""},
        {"no value", kKey, ""},
        {"another value", kKey + std::string("logLevel=dword:x\n"), ""},
        {"the folder", kKey + std::string("AllowedFolders=multi_sz:/f;\n"), ""},
        {"another folder", kKey + std::string("AllowedFolders=multi_sz:/g;\n"), outside},
        {"none", kKey + std::string("AllowedFolders=multi_sz:\n"), outside},
        {"a bad escape", kKey + std::string("AllowedFolders=multi_sz:/f\\x;\n"), unread},
        {"a bad escape elsewhere", kKey + std::string("AllowedFolders=multi_sz:/f;\nlogLevel=\\x\n"), ""},
        {"a bad line", kKey + std::string("AllowedFolders=multi_sz:/f;\nlogLevel\n"), unread},
        {"no settings file", "nonsense", unread},
    };
    const test::SettingsFixture settings;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        settings.Store(row.store);
        const CapturedLog log(LOG_LEVEL_WARN);
        const LocalFolderLimit limit;
        const bool allowed = row.refusal.empty();
        EXPECT_EQ(limit.Allows("/f"), allowed);
        const FolderOffer offer = limit.OfferOfFiles("/f", {"x"});
        EXPECT_EQ(offer.whole, allowed);
        EXPECT_EQ(offer.files.size(), allowed ? 1u : 0u);
        std::vector<std::string> refusals;
        for (const std::string &line : CapturedLog::Lines()) {
            if (line.find(" LocalFolderLimit::") != std::string::npos)
                refusals.push_back(line);
        }
        if (allowed)
            EXPECT_THAT(refusals, testing::IsEmpty());
        else
            EXPECT_THAT(refusals, testing::ElementsAre(testing::EndsWith("Folder /f" + row.refusal),
                                                       testing::EndsWith("x" + row.refusal)));
    }
    settings.Store("");
    std::filesystem::remove(settings.Folder() + "/HKEY_LOCAL_MACHINE.ini");
    std::filesystem::create_directory(settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"); // no file at all
    EXPECT_FALSE(LocalFolderLimit().Allows("/f"));
}

} // namespace
} // namespace fodr::test
