// What an agent may ask of a share that its owner has made read-only ("fodr share --read-only"). This is the
// owner's rule, whatever the agent's policy says. What it refuses ends in STATUS_MEDIA_WRITE_PROTECTED.
// Any thread.
#pragma once

#include "platform/Nt.h"

#include <cstdint>

namespace fodr {

// Whether the create would make, empty, replace or delete something, or open it for a change. FILE_OPEN_IF
// passes: it is to be carried out as FILE_OPEN. So do MAXIMUM_ALLOWED and FILE_WRITE_ATTRIBUTES, which agents
// ask for with every read: what is done with the handle then is asked of the operations below.
[[nodiscard]] bool IsChangingCreate(uint32_t desiredAccess, uint32_t createDisposition,
                                    uint32_t createOptions);
// All but what concerns the handle alone.
[[nodiscard]] bool IsChangingClass(uint32_t fileInfoClass);
// All but the controls that are known to read.
[[nodiscard]] bool IsChangingControl(uint32_t controlCode);
// Nothing was moved, and the status says why.
nt::NTSTATUS RefuseChange(nt::IO_STATUS_BLOCK *ioStatus);

} // namespace fodr
