// Directories whose disk fails while they are read.
#include "FailingCalls.h"
#include "ntposix/NtWords.h"

#include <cerrno>
#include <sys/syscall.h>

namespace fodr::nt {
namespace {

using test::FailFromNowOn;

constexpr Search kAll{.infoClass = FileBothDirectoryInformation, .length = 1 << 20, .restart = true};

Search Named(std::u16string_view pattern)
{
    Search search = kAll;
    search.pattern = pattern;
    return search;
}

using ReadErrors = NtFixture;

// Of 5000 entries one read of the directory gives a part.
TEST_F(ReadErrors, AListingThatIsCutShortNeverLooksComplete)
{
    for (int i = 0; i < 5000; ++i)
        MakeFile(std::to_string(i));
    for (const bool single : {false, true}) {
        NtFile folder = Folder("");
        Search on = kAll;
        on.restart = false;
        test::OnSpareThread([&] {
            for (int i = 0; i < 3; ++i) // "." and "..", and one for which the directory is read
                ASSERT_EQ(List(folder, {.length = 1024, .single = true}).status, STATUS_SUCCESS);
            FailFromNowOn(SYS_getdents64, EIO);
            size_t got = 0;
            on.single = single;
            Listed batch = List(folder, on);
            for (; batch.status == STATUS_SUCCESS; batch = List(folder, on))
                got += batch.names.size();
            EXPECT_GT(got, 0u); // what was read is told
            EXPECT_LT(got, 4999u);
            for (int again = 0; again < 2; ++again) {
                EXPECT_EQ(batch.status, STATUS_IO_DEVICE_ERROR);
                EXPECT_EQ(batch.names.size(), 0u);
                batch = List(folder, on);
            }
        });
        on.single = false;
        EXPECT_EQ(List(folder, on).status,
                  STATUS_IO_DEVICE_ERROR); // that the disk is well again is no matter
        size_t all = 0;
        for (Listed batch = List(folder, kAll); batch.status == STATUS_SUCCESS; batch = List(folder, on))
            all += batch.names.size();
        EXPECT_EQ(all, 5002u);
    }
}

TEST_F(ReadErrors, EntriesThatCannotBeLookedAtAreToldAsSuch)
{
    MakeFile("file", "content");
    MakeFolder("folder");
    MakeSymlink("file", "link");
    for (const int error : {EIO, EACCES, ELOOP}) {
        const NtFile folder = Folder("");
        test::OnSpareThread([&] {
            FailFromNowOn(SYS_statx, error);
            const Listed all = List(folder, kAll);
            ASSERT_EQ(all.names.size(), 5u);
            for (size_t i = 0; i < all.names.size(); ++i) {
                const bool isLink = all.names[i] == "link", isFile = all.names[i] == "file";
                const auto &[record, file] = all.records[i];
                EXPECT_EQ(file.FileId, 0u);
                EXPECT_EQ(file.Mode, isLink ? S_IFLNK : isFile ? S_IFREG : S_IFDIR);
                EXPECT_EQ(record.FileAttributes & ~FILE_ATTRIBUTE_HIDDEN,
                          isLink   ? FILE_ATTRIBUTE_REPARSE_POINT
                          : isFile ? FILE_ATTRIBUTE_ARCHIVE
                                   : FILE_ATTRIBUTE_DIRECTORY);
            }
            // One name that is asked for: whether it is there can't be said.
            EXPECT_EQ(List(folder, Named(u"file")).status, error == EIO ? STATUS_IO_DEVICE_ERROR
                                                           : error == EACCES
                                                               ? STATUS_ACCESS_DENIED
                                                               : STATUS_REPARSE_POINT_NOT_RESOLVED);
        });
    }
}

TEST_F(ReadErrors, ADirectoryThatCannotBeReadHasNoFoldedNames)
{
    MakeFile("Present");
    NtFile folder = Folder("");
    test::OnSpareThread([&] {
        FailFromNowOn(SYS_getdents64, EIO);
        EXPECT_EQ(Open("present").status, STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(Open("present", {.disposition = FILE_CREATE}).status, STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(List(folder, Named(u"PRESENT")).status, STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(Notify(Folder(""), FILE_NOTIFY_CHANGE_FILE_NAME, true), STATUS_IO_DEVICE_ERROR);
    });
    EXPECT_EQ(Open("present").status, STATUS_SUCCESS);
    EXPECT_EQ(List(folder, Named(u"PRESENT")).names, NameList{"Present"});
}

} // namespace
} // namespace fodr::nt
