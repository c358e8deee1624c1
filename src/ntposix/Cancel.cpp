#include "ntposix/HandleTable.h"
#include "ntposix/OpenFile.h"
#include "platform/Nt.h"

namespace fodr::nt {

namespace {

constexpr uint32_t ERROR_INVALID_HANDLE = 6;
constexpr uint32_t ERROR_NOT_FOUND = 1168;

} // namespace

uint32_t CancelIoEx(HANDLE file)
{
    const ntposix::OpenFileRef open = ntposix::HandleTable::Instance().Find(file);
    if (!open)
        return ERROR_INVALID_HANDLE;
    return open->services.blockedCalls.Cancel() ? 0 : ERROR_NOT_FOUND;
}

} // namespace fodr::nt
