// Bytes as text, for the log. Any thread.
#pragma once

#include <cstddef>

namespace fodr::StringUtils {

// Lines of "0x0010: 41 42 43  ABC " with a newline each; the characters written, the terminator not counted.
// `indent` columns stand before each line; a negative indent spares the first line. What doesn't fit is left
// out in whole lines and the words BUFFER TOO SMALL stand at the end, as far as there is room for them.
size_t HexDump(char *buffer, size_t size, const void *data, size_t length, int bytesPerLine, int indent);

} // namespace fodr::StringUtils
