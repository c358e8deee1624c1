// One text in up to two forms, UTF-8 and UTF-16; the second is made when asked for. One thread at a time:
// reading may write the kept form.
#pragma once

namespace fodr::StringUtils {

class XString {
public:
    XString() = default;
    XString(const XString &) = delete;
    XString &operator=(const XString &) = delete;
    virtual ~XString();

    // Forget both forms and store this one. With `takeOwnership` the text is from malloc and freed here,
    // otherwise it must outlive this. Null stores an empty text.
    void SetNarrow(const char *text, bool takeOwnership);
    void SetWide(const char16_t *text, bool takeOwnership);

    // Null when nothing is stored, or when the other form can't be converted.
    const char *GetNarrow();
    const char16_t *GetWide();

private:
    void Clear();

    const char16_t *wide = nullptr;
    bool ownsWide = false;
    const char *narrow = nullptr;
    bool ownsNarrow = false;
};

} // namespace fodr::StringUtils
