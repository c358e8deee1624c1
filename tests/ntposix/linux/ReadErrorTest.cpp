// Directories whose disk fails while they are read.
#include "FailingCalls.h"
#include "ntposix/NtWords.h"

#include <cerrno>
#include <sys/syscall.h>

namespace fodr::nt {
namespace {

using test::FailFromNowOn;

struct Batch {
    NTSTATUS status;
    std::vector<std::string> names = {};
    std::vector<FODR_LISTED_FILE> files = {};
    std::vector<uint32_t> attributes = {};
};

class ReadErrors : public NtFixture {
protected:
    static Batch List(HANDLE folder, bool single, bool restart = false, std::u16string pattern = {})
    {
        std::vector<uint8_t> buffer(single ? 1024 : 1 << 20);
        const auto bytes = static_cast<uint16_t>(pattern.size() * 2);
        UNICODE_STRING text{bytes, bytes, pattern.data()};
        IO_STATUS_BLOCK io{};
        Batch batch{NtQueryDirectoryFile(folder, nullptr, nullptr, nullptr, &io, buffer.data(),
                                         static_cast<uint32_t>(buffer.size()), FileBothDirectoryInformation,
                                         single, bytes ? &text : nullptr, restart)};
        uint32_t next = io.Information != 0;
        for (const uint8_t *at = buffer.data(); next != 0; at += next) {
            FILE_BOTH_DIR_INFORMATION record;
            memcpy(&record, at, sizeof(record));
            next = record.NextEntryOffset;
            std::u16string name(record.FileNameLength / 2, u'\0');
            memcpy(name.data(), at + offsetof(FILE_BOTH_DIR_INFORMATION, FileName), record.FileNameLength);
            batch.names.push_back(Utf8(name));
            memcpy(&batch.files.emplace_back(), record.ShortName, sizeof(FODR_LISTED_FILE));
            batch.attributes.push_back(record.FileAttributes);
        }
        return batch;
    }
};

// Of 5000 entries one read of the directory gives a part.
TEST_F(ReadErrors, AListingThatIsCutShortNeverLooksComplete)
{
    for (int i = 0; i < 5000; ++i)
        MakeFile(std::to_string(i));
    for (const bool single : {false, true}) {
        NtFile folder = Folder("");
        test::OnSpareThread([&] {
            for (int i = 0; i < 3; ++i) // "." and "..", and one for which the directory is read
                ASSERT_EQ(List(folder, true).status, STATUS_SUCCESS);
            FailFromNowOn(SYS_getdents64, EIO);
            size_t got = 0;
            Batch batch = List(folder, single);
            for (; batch.status == STATUS_SUCCESS; batch = List(folder, single))
                got += batch.names.size();
            EXPECT_GT(got, 0u); // what was read is told
            EXPECT_LT(got, 4999u);
            for (int again = 0; again < 2; ++again) {
                EXPECT_EQ(batch.status, STATUS_IO_DEVICE_ERROR);
                EXPECT_EQ(batch.names.size(), 0u);
                batch = List(folder, single);
            }
        });
        EXPECT_EQ(List(folder, false).status,
                  STATUS_IO_DEVICE_ERROR); // that the disk is well again is no matter
        size_t all = 0;
        for (Batch batch = List(folder, false, true); batch.status == STATUS_SUCCESS;
             batch = List(folder, false))
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
            const Batch all = List(folder, false, true);
            ASSERT_EQ(all.names.size(), 5u);
            for (size_t i = 0; i < all.names.size(); ++i) {
                const bool isLink = all.names[i] == "link", isFile = all.names[i] == "file";
                EXPECT_EQ(all.files[i].FileId, 0u);
                EXPECT_EQ(all.files[i].Mode, isLink ? S_IFLNK : isFile ? S_IFREG : S_IFDIR);
                EXPECT_EQ(all.attributes[i] & ~FILE_ATTRIBUTE_HIDDEN, isLink   ? FILE_ATTRIBUTE_REPARSE_POINT
                                                                      : isFile ? FILE_ATTRIBUTE_ARCHIVE
                                                                               : FILE_ATTRIBUTE_DIRECTORY);
            }
            // One name that is asked for: whether it is there can't be said.
            EXPECT_EQ(List(folder, true, true, u"file").status, error == EIO ? STATUS_IO_DEVICE_ERROR
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
        EXPECT_EQ(List(folder, false, true, u"PRESENT").status, STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(Notify(Folder(""), FILE_NOTIFY_CHANGE_FILE_NAME, true), STATUS_IO_DEVICE_ERROR);
    });
    EXPECT_EQ(Open("present").status, STATUS_SUCCESS);
    EXPECT_EQ(List(folder, false, true, u"PRESENT").names, std::vector<std::string>{"Present"});
}

} // namespace
} // namespace fodr::nt
