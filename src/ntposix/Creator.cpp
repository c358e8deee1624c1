#include "ntposix/Creator.h"

#include "ntposix/HandleTable.h"

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

namespace {

struct GenericRight {
    uint32_t generic;
    uint32_t rights;
};

constexpr GenericRight kGenericRights[] = {
    {GENERIC_READ, FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | READ_CONTROL | SYNCHRONIZE},
    {GENERIC_WRITE,
     FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | READ_CONTROL | SYNCHRONIZE},
    {GENERIC_EXECUTE, FILE_EXECUTE | FILE_READ_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE},
    {GENERIC_ALL, 0x1F01FF},
};

} // namespace

uint32_t ResolveGenericRights(uint32_t access)
{
    for (const GenericRight &right : kGenericRights) {
        if (access & right.generic)
            access = (access & ~right.generic) | right.rights;
    }
    return access;
}

bool IsAttributeOnly(uint32_t access)
{
    return (access & (FILE_READ_DATA | kWriteRights | MAXIMUM_ALLOWED)) == 0;
}

} // namespace fodr::ntposix
