// Access rights of NT and what they mean to an open of a POSIX file. Any thread.
#pragma once

#include "platform/Nt.h"

#include <cstdint>

namespace fodr::ntposix {

// The generic rights replaced by what they stand for on a file (MS-SMB2 2.2.13.1.1). MAXIMUM_ALLOWED stays.
[[nodiscard]] uint32_t ResolveGenericRights(uint32_t access);

// What MAXIMUM_ALLOWED gives besides the data rights, which the file itself decides.
inline constexpr uint32_t kAttributeRights = nt::FILE_READ_ATTRIBUTES | nt::FILE_WRITE_ATTRIBUTES |
                                             nt::FILE_READ_EA | nt::FILE_WRITE_EA | nt::READ_CONTROL |
                                             nt::DELETE_ACCESS | nt::SYNCHRONIZE;
inline constexpr uint32_t kReadRights = nt::FILE_READ_DATA | nt::FILE_EXECUTE;
inline constexpr uint32_t kWriteRights = nt::FILE_WRITE_DATA | nt::FILE_APPEND_DATA;

// True when no data of the file is wanted, so that its permissions don't matter.
[[nodiscard]] bool IsAttributeOnly(uint32_t access);

} // namespace fodr::ntposix
