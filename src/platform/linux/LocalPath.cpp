#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/LocalPath.h"

#include "lib/unicode/CodeSet.h"
#include "lib/unicode/NameMapping.h"

namespace fodr::platform {

bool LocalNamesEqual(std::string_view a, std::string_view b)
{
    return a == b;
}

std::string PathInSharedForm(const std::string &localPath)
{
    std::string all;
    size_t begin = 0;
    for (size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = localPath.find('/', begin);
        const std::string component = localPath.substr(begin, end == std::string::npos ? end : end - begin);
        std::string mapped;
        if (!Utf16ToUtf8(NtNameFromPosix(component), mapped))
            mapped = component;
        all += mapped;
        if (end != std::string::npos)
            all += '/';
    }
    return all;
}

} // namespace fodr::platform
