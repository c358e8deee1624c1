#include "lib/unicode/CodeSet.h"

#include "lib/misc/ByteBuffer.h"
#include "lib/misc/Panic.h"
#include "lib/unicode/CaseFolding.h"

#include <bit>
#include <cstring>

namespace fodr {

static_assert(std::endian::native == std::endian::little, "strings of char16_t are taken for UTF-16LE");

namespace {

constexpr size_t kFailed = SIZE_MAX;

// Units at `data`, possibly unaligned, to at most 3 bytes each at `out`. The count of bytes, or kFailed.
size_t ConvertToUtf8(const uint8_t *data, size_t units, uint8_t *out)
{
    uint8_t *end = out;
    for (size_t i = 0; i < units;) {
        if (units - i >= 4 && FourAsciiUnits(data + 2 * i)) {
            for (size_t k = 0; k < 4; ++k)
                end[k] = data[2 * (i + k)];
            end += 4;
            i += 4;
            continue;
        }
        DecodedCodePoint decoded = DecodeUtf16(data, i, units);
        if (!decoded.taken)
            return kFailed;
        end += EncodeUtf8(decoded.codePoint, end);
        i += decoded.taken;
    }
    return static_cast<size_t>(end - out);
}

// `length` bytes at `data` to at most one unit each at `out`. The count of bytes written, or kFailed.
size_t ConvertToUtf16(const uint8_t *data, size_t length, uint8_t *out)
{
    uint8_t *end = out;
    for (size_t i = 0; i < length;) {
        if (length - i >= 8 && EightAsciiBytes(data + i)) {
            for (size_t k = 0; k < 8; ++k) {
                end[2 * k] = data[i + k];
                end[2 * k + 1] = 0;
            }
            end += 16;
            i += 8;
            continue;
        }
        DecodedCodePoint decoded = DecodeUtf8(data + i, length - i);
        if (!decoded.taken)
            return kFailed;
        end += 2 * EncodeUtf16(decoded.codePoint, end);
        i += decoded.taken;
    }
    return static_cast<size_t>(end - out);
}

using Converter = size_t (*)(const uint8_t *data, size_t count, uint8_t *out);

// Converts into a buffer for the longest possible result and hands it out cut to size, two zero bytes added.
bool ConvertAllocated(Converter convert, const void *data, size_t count, size_t longest, char **out,
                      size_t *outLength)
{
    *out = nullptr;
    if (outLength)
        *outLength = 0;
    ByteBuffer buffer;
    uint8_t *text = buffer.Reserve(longest + 2);
    if (!text)
        return false;
    size_t written = convert(static_cast<const uint8_t *>(data), count, text);
    if (written == kFailed)
        return false;
    text[written] = text[written + 1] = 0;
    buffer.Commit(written + 2);
    if (outLength)
        *outLength = written;
    *out = reinterpret_cast<char *>(buffer.Detach().Release());
    return true;
}

const uint8_t *Bytes(const char *text)
{
    return reinterpret_cast<const uint8_t *>(text);
}

bool IsValidUtf8(const uint8_t *text, size_t length)
{
    for (size_t i = 0; i < length;) {
        DecodedCodePoint decoded = DecodeUtf8(text + i, length - i);
        if (!decoded.taken)
            return false;
        i += decoded.taken;
    }
    return true;
}

char32_t Fold(char32_t codePoint)
{
    return codePoint < 0x10000 ? FoldUnit(static_cast<char16_t>(codePoint)) : codePoint;
}

} // namespace

bool CodeSetUtf16leToUtf8(const void *data, size_t byteLength, char **out, size_t *outLength)
{
    if (byteLength % 2 != 0 || byteLength > SIZE_MAX / 4) {
        *out = nullptr;
        if (outLength)
            *outLength = 0;
        return false;
    }
    const size_t units = byteLength / 2;
    return ConvertAllocated(ConvertToUtf8, data, units, units * 3, out, outLength);
}

bool CodeSetUtf8ToUtf16le(const void *data, size_t byteLength, char **out, size_t *outLength)
{
    if (byteLength > SIZE_MAX / 4) {
        *out = nullptr;
        if (outLength)
            *outLength = 0;
        return false;
    }
    return ConvertAllocated(ConvertToUtf16, data, byteLength, byteLength * 2, out, outLength);
}

void *UnicodeGetAllocated(const char *text, Encoding encoding)
{
    if (!text)
        return nullptr;
    const size_t length = strlen(text);
    if (encoding == ENCODING_UTF16LE) {
        char *converted;
        if (!CodeSetUtf8ToUtf16le(text, length, &converted, nullptr))
            PanicNotImplemented("lib/unicode/unicodeSimpleBase", 741);
        return converted;
    }
    if (encoding == ENCODING_US_ASCII) {
        for (size_t i = 0; i < length; ++i) {
            if (Bytes(text)[i] >= 0x80)
                return nullptr;
        }
    }
    MallocBuffer copy = MallocBuffer::Allocate(length + 1);
    if (copy)
        memcpy(copy.Data(), text, length + 1);
    return copy.Release();
}

int UnicodeCompare(const char *first, const char *second, bool ignoreCase)
{
    if (!first || !second)
        return -1;
    const size_t firstLength = strlen(first), secondLength = strlen(second);
    // Code point by code point: that is the order wanted, and it saves making both UTF-16 forms. What comes
    // after a difference is still looked at, since an invalid text is never equal to or above anything.
    for (size_t i = 0, k = 0;;) {
        if (i == firstLength && k == secondLength)
            return 0;
        DecodedCodePoint a{0, 0}, b{0, 0};
        if (i < firstLength && (a = DecodeUtf8(Bytes(first) + i, firstLength - i)).taken == 0)
            return -1;
        if (k < secondLength && (b = DecodeUtf8(Bytes(second) + k, secondLength - k)).taken == 0)
            return -1;
        i += a.taken;
        k += b.taken;
        if (ignoreCase) {
            a.codePoint = Fold(a.codePoint);
            b.codePoint = Fold(b.codePoint);
        }
        if (a.codePoint != b.codePoint) {
            if (!IsValidUtf8(Bytes(first) + i, firstLength - i) ||
                !IsValidUtf8(Bytes(second) + k, secondLength - k))
                return -1;
            return a.codePoint < b.codePoint ? -1 : 1;
        }
    }
}

bool Utf16ToUtf8(std::u16string_view text, std::string &out)
{
    out.resize(text.size() * 3);
    size_t written = ConvertToUtf8(reinterpret_cast<const uint8_t *>(text.data()), text.size(),
                                   reinterpret_cast<uint8_t *>(out.data()));
    out.resize(written == kFailed ? 0 : written);
    return written != kFailed;
}

bool Utf8ToUtf16(std::string_view text, std::u16string &out)
{
    out.resize(text.size());
    size_t written = ConvertToUtf16(Bytes(text.data()), text.size(), reinterpret_cast<uint8_t *>(out.data()));
    out.resize(written == kFailed ? 0 : written / 2);
    return written != kFailed;
}

} // namespace fodr
