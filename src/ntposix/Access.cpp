#include "ntposix/Access.h"

namespace fodr::ntposix {

using namespace nt;

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
