// Records of reparse points (MS-FSCC 2.1.2), as file calls take and give them. Any thread.
#pragma once

#include "lib/unicode/NameMapping.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace fodr::nt {

// IO_REPARSE_TAG_SYMLINK. `target` is a POSIX path, mapped as names are.
inline std::vector<uint8_t> SymbolicLinkRecord(std::string_view target)
{
    const bool absolute = target.starts_with('/');
    const std::u16string print = NtPathFromPosix(target);
    const std::u16string names = (absolute ? u"\\??\\" + print : print) + print;
    const auto bytesOf = [](size_t units) { return static_cast<uint16_t>(units * sizeof(char16_t)); };
    SYMBOLIC_LINK_REPARSE_DATA head{};
    head.ReparseTag = IO_REPARSE_TAG_SYMLINK;
    head.SubstituteNameLength = bytesOf(names.size() - print.size());
    head.PrintNameOffset = head.SubstituteNameLength;
    head.PrintNameLength = bytesOf(print.size());
    head.Flags = absolute ? 0 : 1;
    head.ReparseDataLength =
        static_cast<uint16_t>(sizeof(head) - sizeof(REPARSE_DATA_HEAD) + bytesOf(names.size()));
    std::vector<uint8_t> record(sizeof(head) + bytesOf(names.size()));
    memcpy(record.data(), &head, sizeof(head));
    memcpy(&record[sizeof(head)], names.data(), bytesOf(names.size()));
    return record;
}

// IO_REPARSE_TAG_LX_SYMLINK with its target's bytes; of other tags, without a target.
inline std::vector<uint8_t> LxRecord(uint32_t tag, std::string_view target = {})
{
    std::string data;
    if (tag == IO_REPARSE_TAG_LX_SYMLINK)
        data.append(reinterpret_cast<const char *>(&LX_SYMLINK_VERSION), sizeof(LX_SYMLINK_VERSION));
    data += target;
    const REPARSE_DATA_HEAD head{
        .ReparseTag = tag, .ReparseDataLength = static_cast<uint16_t>(data.size()), .Reserved = 0};
    std::vector<uint8_t> record(sizeof(head) + data.size());
    memcpy(record.data(), &head, sizeof(head));
    std::copy(data.begin(), data.end(), record.begin() + sizeof(head));
    return record;
}

} // namespace fodr::nt
