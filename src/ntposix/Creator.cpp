#include "ntposix/Creator.h"

#include "ntposix/DescriptorLimit.h"

namespace fodr::ntposix {

using namespace nt;

namespace {

constexpr int kAttempts = 16;

} // namespace

NTSTATUS Creator::RunAttempts(std::unique_ptr<OpenFile> *file)
{
    NTSTATUS status = STATUS_SHARING_VIOLATION;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        raced = false;
        information = 0;
        status = RunOnce();
        if (status == STATUS_TOO_MANY_OPENED_FILES && RaiseDescriptorLimit())
            continue;
        if (!raced)
            break;
    }
    if (status == STATUS_SUCCESS)
        *file = std::move(opened);
    else if (information != FILE_EXISTS && information != FILE_DOES_NOT_EXIST)
        information = 0;
    return status;
}

bool Creator::IsOverwriting() const
{
    return request.disposition == FILE_SUPERSEDE || request.disposition == FILE_OVERWRITE ||
           request.disposition == FILE_OVERWRITE_IF;
}

bool Creator::MayCreate() const
{
    return request.disposition != FILE_OPEN && request.disposition != FILE_OVERWRITE;
}

} // namespace fodr::ntposix
