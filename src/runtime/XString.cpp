#include "runtime/XString.h"

#include "runtime/StringUtils.h"

#include <cstdlib>

namespace fodr::StringUtils {

XString::~XString()
{
    Clear();
}

void XString::Clear()
{
    if (ownsWide)
        free(const_cast<char16_t *>(wide));
    if (ownsNarrow)
        free(const_cast<char *>(narrow));
    wide = nullptr;
    narrow = nullptr;
    ownsWide = ownsNarrow = false;
}

void XString::SetNarrow(const char *text, bool takeOwnership)
{
    Clear();
    narrow = text ? text : "";
    ownsNarrow = text && takeOwnership;
}

void XString::SetWide(const char16_t *text, bool takeOwnership)
{
    Clear();
    wide = text ? text : u"";
    ownsWide = text && takeOwnership;
}

const char *XString::GetNarrow()
{
    char *converted;
    if (!narrow && wide && WideToUtf8(wide, &converted) == 0) {
        narrow = converted;
        ownsNarrow = true;
    }
    return narrow;
}

const char16_t *XString::GetWide()
{
    char16_t *converted;
    if (!wide && narrow && Utf8ToWide(narrow, &converted) == 0) {
        wide = converted;
        ownsWide = true;
    }
    return wide;
}

} // namespace fodr::StringUtils
