#include "fileservice/ReadOnlyShare.h"

#include "fileservice/FileCall.h"
#include "platform/NtRecords.h"

#include <algorithm>
#include <iterator>

namespace fodr {

using namespace nt;

namespace {

constexpr uint32_t kChangingRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA | FILE_DELETE_CHILD |
                                     DELETE_ACCESS | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

// MS-FSCC 2.3. Other reading controls are refused as well; no program needs them.
constexpr uint32_t kReadingControls[] = {FSCTL_GET_REPARSE_POINT, FSCTL_QUERY_ALLOCATED_RANGES,
                                         FSCTL_GET_COMPRESSION, FSCTL_FODR_QUERY_HOST};

} // namespace

bool IsChangingCreate(uint32_t desiredAccess, uint32_t createDisposition, uint32_t createOptions)
{
    const bool opens = createDisposition == FILE_OPEN || createDisposition == FILE_OPEN_IF;
    return !opens || (desiredAccess & kChangingRights) != 0 || (createOptions & FILE_DELETE_ON_CLOSE) != 0;
}

bool IsChangingClass(uint32_t fileInfoClass)
{
    return fileInfoClass != FilePositionInformation && fileInfoClass != FileModeInformation;
}

bool IsChangingControl(uint32_t controlCode)
{
    return std::find(std::begin(kReadingControls), std::end(kReadingControls), controlCode) ==
           std::end(kReadingControls);
}

NTSTATUS RefuseChange(IO_STATUS_BLOCK *ioStatus)
{
    Clear(ioStatus);
    return ioStatus->Status = STATUS_MEDIA_WRITE_PROTECTED;
}

} // namespace fodr
