// What tests do with an open file, in short words.
#pragma once

#include "AtOnce.h"
#include "ntposix/NtFixture.h"

#include <algorithm>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

namespace fodr::nt {

using test::AtOnce;

struct Outcome {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    uint64_t information = 0;
    bool operator==(const Outcome &) const = default;
};

inline void PrintTo(const Outcome &outcome, std::ostream *out)
{
    *out << std::hex << "status " << static_cast<uint32_t>(outcome.status) << std::dec << ", information "
         << outcome.information;
}

inline Outcome WriteAt(HANDLE file, int64_t offset, std::string_view text)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER at{offset};
    const NTSTATUS status = NtWriteFile(file, nullptr, nullptr, nullptr, &io, text.data(),
                                        static_cast<uint32_t>(text.size()), &at, nullptr);
    EXPECT_EQ(status, io.Status);
    return {status, io.Information};
}

struct ReadResult {
    NTSTATUS status;
    std::string text;
};

inline ReadResult ReadAt(HANDLE file, int64_t offset, uint32_t length)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER at{offset};
    std::string text(length, '\0');
    const NTSTATUS status =
        NtReadFile(file, nullptr, nullptr, nullptr, &io, text.data(), length, &at, nullptr);
    EXPECT_EQ(status, io.Status);
    text.resize(io.Information);
    return {status, text};
}

template <typename Record> NTSTATUS Query(HANDLE file, uint32_t infoClass, Record *record)
{
    IO_STATUS_BLOCK io{};
    return NtQueryInformationFile(file, &io, record, sizeof(*record), infoClass);
}

// What a query that must succeed tells.
template <typename Record> Record Told(HANDLE file, uint32_t infoClass)
{
    Record record{};
    EXPECT_EQ(Query(file, infoClass, &record), STATUS_SUCCESS) << infoClass;
    return record;
}

inline FILE_STANDARD_INFORMATION StandardOf(HANDLE file)
{
    return Told<FILE_STANDARD_INFORMATION>(file, FileStandardInformation);
}

inline FILE_BASIC_INFORMATION BasicOf(HANDLE file)
{
    return Told<FILE_BASIC_INFORMATION>(file, FileBasicInformation);
}

// The inode number's part of a file's id.
constexpr uint64_t kInodeBits = (uint64_t{1} << 48) - 1;

inline uint64_t IdOf(HANDLE file)
{
    const auto told = Told<FILE_INTERNAL_INFORMATION>(file, FileInternalInformation);
    return static_cast<uint64_t>(told.IndexNumber);
}

template <typename Record> NTSTATUS Set(HANDLE file, uint32_t infoClass, const Record &record)
{
    IO_STATUS_BLOCK io{};
    return NtSetInformationFile(file, &io, &record, sizeof(record), infoClass);
}

inline NTSTATUS Delete(HANDLE file, bool wanted = true)
{
    return Set(file, FileDispositionInformation, FILE_DISPOSITION_INFORMATION{wanted});
}

enum class Existing { Keep, Replace };

inline NTSTATUS Rename(HANDLE file, const std::u16string &ntPath, Existing existing = Existing::Keep)
{
    FILE_RENAME_INFORMATION record{
        existing == Existing::Replace, 0, static_cast<uint32_t>(ntPath.size() * sizeof(char16_t)), {}};
    constexpr size_t kText = offsetof(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint8_t> buffer(kText + record.FileNameLength + 4);
    memcpy(buffer.data(), &record, kText);
    memcpy(buffer.data() + kText, ntPath.data(), record.FileNameLength);
    IO_STATUS_BLOCK io{};
    return NtSetInformationFile(file, &io, buffer.data(), static_cast<uint32_t>(buffer.size()),
                                FileRenameInformation);
}

inline NTSTATUS DeleteWith(HANDLE file, uint32_t flags)
{
    return Set(file, FileDispositionInformationEx, FILE_DISPOSITION_INFORMATION_EX{flags});
}

// The name goes at once.
inline NTSTATUS DeleteNow(HANDLE file)
{
    return DeleteWith(file, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_POSIX_SEMANTICS);
}

constexpr uint32_t kAsPosix = FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_POSIX_SEMANTICS;

inline NTSTATUS RenameInto(HANDLE file, HANDLE folder, std::u16string_view leaf, uint32_t flags = kAsPosix,
                           uint32_t infoClass = FileRenameInformationEx)
{
    constexpr size_t kText = offsetof(FILE_RENAME_INFORMATION_EX, FileName);
    const FILE_RENAME_INFORMATION_EX record{flags,
                                            reinterpret_cast<uintptr_t>(folder),
                                            static_cast<uint32_t>(leaf.size() * sizeof(char16_t)),
                                            {}};
    std::vector<uint8_t> buffer(kText + record.FileNameLength);
    memcpy(buffer.data(), &record, kText);
    memcpy(buffer.data() + kText, leaf.data(), record.FileNameLength);
    IO_STATUS_BLOCK io{};
    return NtSetInformationFile(file, &io, buffer.data(), static_cast<uint32_t>(buffer.size()), infoClass);
}

// The record has the same form.
inline NTSTATUS LinkInto(HANDLE file, HANDLE folder, std::u16string_view leaf, uint32_t replace = 0)
{
    return RenameInto(file, folder, leaf, replace, FileLinkInformation);
}

enum class WhenHeld { Fail, Wait };

inline NTSTATUS Lock(HANDLE file, uint64_t offset, uint64_t length, bool exclusive,
                     WhenHeld whenHeld = WhenHeld::Fail, uint32_t key = 0)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER start{static_cast<int64_t>(offset)}, size{static_cast<int64_t>(length)};
    const NTSTATUS status = NtLockFile(file, nullptr, nullptr, nullptr, &io, &start, &size, key,
                                       whenHeld == WhenHeld::Fail, exclusive);
    EXPECT_EQ(io.Status, status);
    return status;
}

inline NTSTATUS Unlock(HANDLE file, uint64_t offset, uint64_t length, uint32_t key = 0)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER start{static_cast<int64_t>(offset)}, size{static_cast<int64_t>(length)};
    return NtUnlockFile(file, &io, &start, &size, key);
}

// ---- Listings

struct ListingClass {
    uint32_t infoClass, nameOffset, minimum, idOffset; // no id: 0
};

inline constexpr ListingClass kListingClasses[] = {
    {FileDirectoryInformation, 64, 72, 0},          {FileFullDirectoryInformation, 68, 72, 0},
    {FileBothDirectoryInformation, 94, 96, 70},     {FileNamesInformation, 12, 16, 0},
    {FileIdBothDirectoryInformation, 104, 112, 96}, {FileIdFullDirectoryInformation, 80, 88, 72},
};

struct Search {
    std::u16string_view pattern = {};
    uint32_t infoClass = FileFullDirectoryInformation;
    uint32_t length = 65536;
    bool single = false;
    bool restart = false;
};

using NameList = std::vector<std::string>;

struct Listed {
    NTSTATUS status;
    uint64_t information = 0;
    NameList names = {};
    // Of the names: what the class tells of these fields, and the file's id, in class 3 with what is beside
    // it.
    std::vector<std::pair<FILE_FULL_DIR_INFORMATION, FODR_LISTED_FILE>> records = {};
};

template <typename T> T Get(const uint8_t *at, size_t size = sizeof(T))
{
    T value{};
    memcpy(&value, at, size);
    return value;
}

inline size_t IdSize(const ListingClass &row)
{
    return row.infoClass == FileBothDirectoryInformation ? sizeof(FODR_LISTED_FILE) : row.idOffset ? 8 : 0;
}

inline void Parse(const uint8_t *buffer, uint32_t infoClass, Listed *listing)
{
    const ListingClass &row = *std::ranges::find(kListingClasses, infoClass, &ListingClass::infoClass);
    for (uint64_t at = 0, next = 1; next != 0; at += next) {
        EXPECT_EQ(at % 8, 0u);
        ASSERT_LE(at + row.nameOffset, listing->information);
        const uint8_t *record = buffer + at;
        next = Get<uint32_t>(record);
        const auto nameLength = Get<uint32_t>(record + (infoClass == FileNamesInformation ? 8 : 60));
        const uint64_t end = at + row.nameOffset + nameLength;
        ASSERT_TRUE(next ? end <= at + next : end == listing->information) << "a name leaves its record";
        std::u16string name(nameLength / 2, u'\0');
        memcpy(name.data(), record + row.nameOffset, nameLength);
        listing->names.push_back(Utf8(name));
        listing->records.emplace_back(Get<FILE_FULL_DIR_INFORMATION>(record, std::min(row.nameOffset, 68u)),
                                      Get<FODR_LISTED_FILE>(record + row.idOffset, IdSize(row)));
    }
}

// One call. The buffer is a heap block of just that length, so that a byte too far is a fault.
inline Listed List(HANDLE folder, const Search &search = {})
{
    const auto buffer = std::make_unique<uint8_t[]>(search.length);
    std::u16string text(search.pattern);
    const auto bytes = static_cast<uint16_t>(text.size() * 2);
    UNICODE_STRING pattern{bytes, bytes, text.data()};
    IO_STATUS_BLOCK io{};
    const NTSTATUS status = NtQueryDirectoryFile(folder, nullptr, nullptr, nullptr, &io, buffer.get(),
                                                 search.length, search.infoClass, search.single,
                                                 text.empty() ? nullptr : &pattern, search.restart);
    EXPECT_EQ(io.Status, status);
    Listed listing{.status = status, .information = io.Information};
    if (status == STATUS_SUCCESS)
        Parse(buffer.get(), search.infoClass, &listing);
    return listing;
}

inline NTSTATUS Notify(HANDLE folder, uint32_t filter, bool tree = false)
{
    IO_STATUS_BLOCK io{};
    uint8_t scratch[32] = {};
    const NTSTATUS status = NtNotifyChangeDirectoryFile(folder, nullptr, nullptr, nullptr, &io, scratch,
                                                        sizeof(scratch), filter, tree);
    EXPECT_EQ(io.Status, status);
    EXPECT_EQ(io.Information, 0u);
    return status;
}

// Waits for a call of another thread on the handle, and cancels it.
inline void CancelCall(HANDLE file)
{
    while (CancelIoEx(file) != 0)
        std::this_thread::yield();
}

// Closes a handle under a call on it, again and again until the call had begun by then.
template <typename Open, typename Call> void ExpectCloseEnds(Open open, Call call, NTSTATUS ending)
{
    for (NTSTATUS status = STATUS_INVALID_HANDLE; status != ending;) {
        NtFile file = open();
        auto waiting = std::async(std::launch::async, call, HANDLE(file));
        std::this_thread::yield();
        file.Close();
        status = waiting.get();
        ASSERT_TRUE(status == ending || status == STATUS_INVALID_HANDLE) << std::hex << status;
    }
}

} // namespace fodr::nt
