// UTF-8 string that makes its UTF-16 form once and keeps it. Not safe for several threads: a reading access
// may write the kept form.
#pragma once

#include "lib/unicode/CodeSet.h"

#include <cstddef>
#include <cstdlib>
#include <string>

#if __has_include(<glibmm/ustring.h>)
#include <glibmm/ustring.h>
#endif

namespace fodr {

#if __has_include(<glibmm/ustring.h>)
using Utf8TextBase = Glib::ustring;
#else
using Utf8TextBase = std::string;
#endif

class Utf8Text : public Utf8TextBase {
public:
    // Null gives an empty string.
    Utf8Text(const char *text = nullptr) : Utf8TextBase(text ? text : "") {}
    // A copy makes its own UTF-16 form when asked.
    Utf8Text(const Utf8Text &other) : Utf8TextBase(other) {}
    Utf8Text &operator=(const Utf8Text &other);
    ~Utf8Text();

    // UTF-16LE with a terminator; lives until this is destroyed or assigned to. The text must not be changed
    // through the base class after that. A text that isn't valid UTF-8 ends the process.
    const char16_t *GetUtf16();
    // In units, up to the terminator.
    size_t GetUtf16Length();

private:
    char16_t *utf16 = nullptr;               // owned, null until asked for
    size_t utf16Length = Utf8TextBase::npos; // until measured
};

inline Utf8Text::~Utf8Text()
{
    free(utf16);
}

inline Utf8Text &Utf8Text::operator=(const Utf8Text &other)
{
    if (this != &other) {
        Utf8TextBase::operator=(other);
        free(utf16);
        utf16 = nullptr;
        utf16Length = npos;
    }
    return *this;
}

inline const char16_t *Utf8Text::GetUtf16()
{
    if (!utf16)
        utf16 = static_cast<char16_t *>(UnicodeGetAllocated(c_str(), ENCODING_UTF16LE));
    return utf16;
}

inline size_t Utf8Text::GetUtf16Length()
{
    if (utf16Length == npos)
        utf16Length = std::char_traits<char16_t>::length(GetUtf16());
    return utf16Length;
}

} // namespace fodr
