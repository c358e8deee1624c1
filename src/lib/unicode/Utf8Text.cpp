#include "lib/unicode/Utf8Text.h"

#include "lib/unicode/CodeSet.h"

#include <cstdlib>
#include <string>

namespace fodr {

Utf8Text::~Utf8Text()
{
    free(utf16);
}

Utf8Text &Utf8Text::operator=(const Utf8Text &other)
{
    if (this != &other) {
        Utf8TextBase::operator=(other);
        free(utf16);
        utf16 = nullptr;
        utf16Length = npos;
    }
    return *this;
}

const char16_t *Utf8Text::GetUtf16()
{
    if (!utf16)
        utf16 = static_cast<char16_t *>(UnicodeGetAllocated(c_str(), ENCODING_UTF16LE));
    return utf16;
}

size_t Utf8Text::GetUtf16Length()
{
    if (utf16Length == npos)
        utf16Length = std::char_traits<char16_t>::length(GetUtf16());
    return utf16Length;
}

} // namespace fodr
