// What tests do with an open file, in short words.
#pragma once

#include "ntposix/NtFixture.h"

#include <cstring>
#include <vector>

namespace fodr::nt {

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

template <typename Record> Outcome Query(HANDLE file, uint32_t infoClass, Record *record)
{
    IO_STATUS_BLOCK io{};
    const NTSTATUS status = NtQueryInformationFile(file, &io, record, sizeof(*record), infoClass);
    return {status, io.Information};
}

template <typename Record> NTSTATUS Set(HANDLE file, uint32_t infoClass, const Record &record)
{
    IO_STATUS_BLOCK io{};
    return NtSetInformationFile(file, &io, &record, sizeof(record), infoClass);
}

inline FILE_STANDARD_INFORMATION StandardOf(HANDLE file)
{
    FILE_STANDARD_INFORMATION record{};
    EXPECT_EQ(Query(file, FileStandardInformation, &record).status, STATUS_SUCCESS);
    return record;
}

inline FILE_BASIC_INFORMATION BasicOf(HANDLE file)
{
    FILE_BASIC_INFORMATION record{};
    EXPECT_EQ(Query(file, FileBasicInformation, &record).status, STATUS_SUCCESS);
    return record;
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

} // namespace fodr::nt
