#include "platform/Files.h"

#include "SettingsFixture.h"
#include "lib/misc/FileTime.h"
#include "platform/SystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>

namespace fodr::platform {
namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

class Files : public testing::Test {
protected:
    std::set<std::string> Names(const std::string &pattern) const
    {
        FolderIterator iterator(folder, pattern);
        std::set<std::string> names;
        for (FolderEntry entry; iterator.Next(entry);)
            EXPECT_TRUE(names.insert(entry.name).second);
        FolderEntry end;
        EXPECT_FALSE(iterator.Next(end));
        return names;
    }

    test::SettingsFixture settings; // a folder that goes with the test
    const std::string folder = settings.Folder();
};

TEST_F(Files, MakesAndRemovesFiles)
{
    const std::string path = folder + "/a.log";
    EXPECT_FALSE(PathExists(path));
    EXPECT_EQ(CreateEmptyFile(folder + "/none/a.log"), kErrorFileNotFound);
    EXPECT_EQ(CreateEmptyFile(path), kErrorSuccess);
    std::ofstream(path) << "kept";
    EXPECT_EQ(CreateEmptyFile(path), kErrorSuccess);
    int64_t size = 0;
    EXPECT_TRUE(PathExists(path) && SizeOfFile(path, size));
    EXPECT_EQ(size, 4);
    std::FILE *stream = OpenSharedFile(path, "a");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    std::fclose(stream);
    EXPECT_EQ(RemoveFile(path), kErrorSuccess);
    EXPECT_EQ(RemoveFile(path), kErrorFileNotFound);
    EXPECT_FALSE(PathExists(path) || SizeOfFile(path, size));
    EXPECT_EQ(OpenSharedFile(path, "r"), nullptr);
    EXPECT_EQ(LastSystemError(), kErrorFileNotFound);
}

TEST_F(Files, AFolderThatAnotherUserHasPutThereIsRefused)
{
    const std::string mine = folder + "/mine";
    EXPECT_EQ(CreateFolder(mine + "/"), kErrorSuccess);
    EXPECT_EQ(fs::status(mine).permissions(), fs::perms::owner_all);
    EXPECT_EQ(CreateFolder(mine), kErrorAlreadyExists);
    EXPECT_EQ(CreateFolder(folder + "/no/parent"), kErrorFileNotFound);
    fs::create_directory_symlink(mine, folder + "/link");
    std::ofstream(folder + "/file") << "x";
    for (const char *name : {"/link/", "/file"})
        EXPECT_EQ(CreateFolder(folder + name), kErrorAccessDenied) << name;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make another user's folder";
    const std::string theirs = folder + "/theirs";
    fs::create_directory(theirs);
    ASSERT_EQ(chown(theirs.c_str(), 12345, 12345), 0);
    EXPECT_EQ(CreateFolder(theirs), kErrorAccessDenied);
}

TEST_F(Files, ListsWhatMatchesAPattern)
{
    for (const char *name :
         {"orvane-x-1.log", "ORVANE-x-22(0001).LOG", "orvane-x.log.gz", "other.log", "a*b"})
        std::ofstream(folder + "/" + name) << "x";
    fs::create_directory(folder + "/orvane-x-folder.log");
    fs::create_symlink("nowhere", folder + "/orvane-x-dangling.log");
    EXPECT_THAT(Names("Orvane-x-*.log"),
                UnorderedElementsAre("orvane-x-1.log", "ORVANE-x-22(0001).LOG", "orvane-x-folder.log",
                                     "orvane-x-dangling.log"));
    EXPECT_THAT(Names("*x?log*"), UnorderedElementsAre("orvane-x.log.gz"));
    EXPECT_THAT(Names("A?B"), UnorderedElementsAre("a*b"));
    EXPECT_THAT(Names("*r.l*g*"), UnorderedElementsAre("orvane-x-folder.log", "other.log"));
    EXPECT_THAT(Names("?"), UnorderedElementsAre("."));
    EXPECT_THAT(Names(""), UnorderedElementsAre());
    FolderEntry entry;
    EXPECT_FALSE(FolderIterator(folder + "/none", "*").Next(entry));
}

TEST_F(Files, TellsTimesSince1601)
{
    const std::string path = folder + "/file";
    std::ofstream(path) << "x";
    const timespec times[2] = {{0, 0}, {1709211907, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    uint64_t time = 0;
    EXPECT_TRUE(LastWriteTimeOfFile(path, time));
    EXPECT_EQ(time, 133536855071234567u);
    FolderIterator iterator(folder, "file");
    FolderEntry entry;
    ASSERT_TRUE(iterator.Next(entry));
    EXPECT_EQ(entry.lastWriteTime, time);
    EXPECT_FALSE(entry.isFolder);
    EXPECT_FALSE(LastWriteTimeOfFile(folder, time));
    std::ofstream(path) << "newer";
    const uint64_t now = CurrentFileTime();
    EXPECT_TRUE(LastWriteTimeOfFile(path, time));
    EXPECT_LE(time, now);
    EXPECT_LT(now - time, uint64_t{3600} * kFileTimePerSecond);
}

} // namespace
} // namespace fodr::platform
