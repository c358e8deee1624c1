// What an agent may ask of a share that its owner has made read-only ("fodr share --read-only"). This is the
// owner's rule, whatever the agent's policy says. What it refuses ends in STATUS_MEDIA_WRITE_PROTECTED.
// Any thread.
#pragma once

#include "fileservice/FileCall.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace fodr {

inline constexpr uint32_t kChangingRights = nt::FILE_WRITE_DATA | nt::FILE_APPEND_DATA | nt::FILE_WRITE_EA |
                                            nt::FILE_DELETE_CHILD | nt::DELETE_ACCESS | nt::WRITE_DAC |
                                            nt::WRITE_OWNER | nt::GENERIC_WRITE | nt::GENERIC_ALL;

// MS-FSCC 2.3. Other reading controls are refused as well; no program needs them.
inline constexpr uint32_t kReadingControls[] = {nt::FSCTL_GET_REPARSE_POINT, nt::FSCTL_QUERY_ALLOCATED_RANGES,
                                                nt::FSCTL_GET_COMPRESSION, nt::FSCTL_FODR_QUERY_HOST};

// Whether the create would make, empty, replace or delete something, or open it for a change. FILE_OPEN_IF
// passes: it is to be carried out as FILE_OPEN. So do MAXIMUM_ALLOWED and FILE_WRITE_ATTRIBUTES, which agents
// ask for with every read: what is done with the handle then is asked of the operations below.
[[nodiscard]] inline bool IsChangingCreate(uint32_t desiredAccess, uint32_t createDisposition,
                                           uint32_t createOptions)
{
    const bool opens = createDisposition == nt::FILE_OPEN || createDisposition == nt::FILE_OPEN_IF;
    return !opens || (desiredAccess & kChangingRights) != 0 ||
           (createOptions & nt::FILE_DELETE_ON_CLOSE) != 0;
}

// All but what concerns the handle alone.
[[nodiscard]] inline bool IsChangingClass(uint32_t fileInfoClass)
{
    return fileInfoClass != nt::FilePositionInformation && fileInfoClass != nt::FileModeInformation;
}

// All but the controls that are known to read.
[[nodiscard]] inline bool IsChangingControl(uint32_t controlCode)
{
    return std::ranges::find(kReadingControls, controlCode) == std::end(kReadingControls);
}

// Nothing was moved, and the status says why.
inline nt::NTSTATUS RefuseChange(nt::IO_STATUS_BLOCK *ioStatus)
{
    Clear(ioStatus);
    return ioStatus->Status = nt::STATUS_MEDIA_WRITE_PROTECTED;
}

} // namespace fodr
