#include "runtime/HexDump.h"

#include "runtime/StringUtils.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace fodr::StringUtils {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

char Printable(uint8_t byte)
{
    return byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
}

// Writes one line of `count` bytes, `perLine` wide, at `out`; where it ends. The caller saw to the room.
char *DumpLine(char *out, const char *prefix, size_t prefixLength, const uint8_t *bytes, size_t count,
               size_t perLine)
{
    memcpy(out, prefix, prefixLength);
    char *hex = out + prefixLength;
    char *text = hex + 3 * perLine;
    char *end = text + perLine;
    memset(hex, ' ', static_cast<size_t>(end - hex));
    for (size_t i = 0; i < count; ++i) {
        hex[3 * i] = kDigits[bytes[i] >> 4];
        hex[3 * i + 1] = kDigits[bytes[i] & 0xF];
        text[i] = Printable(bytes[i]);
    }
    *end++ = ' ';
    *end++ = '\n';
    return end;
}

size_t TooSmall(char *out, size_t room)
{
    return static_cast<size_t>(FormatBuffer(
        out, room, "%.*s\n", static_cast<int>(std::min<size_t>(room - 2, 64)), "BUFFER TOO SMALL"));
}

} // namespace

size_t HexDump(char *buffer, size_t size, const void *data, size_t length, int bytesPerLine, int indent)
{
    if (!buffer || size < 1 || (!data && length != 0))
        return 0;
    const auto *bytes = static_cast<const uint8_t *>(data);
    const size_t perLine = bytesPerLine > 0 ? static_cast<size_t>(bytesPerLine) : 1;
    const size_t columns = static_cast<size_t>(std::abs(static_cast<int64_t>(indent)));
    const size_t lineCost = perLine * 4 + 10 + columns;
    size_t linesLeft = (size - 1) / lineCost;
    size_t used = 0, shown = 0;
    for (; shown < length && linesLeft > 0; --linesLeft) {
        // Offsets of more than four digits make a line dearer than the reckoning above.
        char offset[32];
        const size_t offsetLength = static_cast<size_t>(
            FormatBuffer(offset, sizeof(offset), "0x%04llx: ", static_cast<unsigned long long>(shown)));
        const size_t lineColumns = indent < 0 && shown == 0 ? 0 : columns;
        if (lineColumns + offsetLength + perLine * 4 + 2 > size - 1 - used)
            break;
        memset(buffer + used, ' ', lineColumns);
        used += lineColumns;
        const size_t count = std::min(perLine, length - shown);
        const char *end = DumpLine(buffer + used, offset, offsetLength, bytes + shown, count, perLine);
        used = static_cast<size_t>(end - buffer);
        shown += count;
    }
    if (shown < length && size - used >= 3)
        return used + TooSmall(buffer + used, size - used);
    buffer[used] = 0;
    return used;
}

} // namespace fodr::StringUtils
