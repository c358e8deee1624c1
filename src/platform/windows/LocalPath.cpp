#include "platform/LocalPath.h"

#include "platform/windows/WideText.h"
#include "platform/windows/Win32.h"

namespace fodr::platform {

bool LocalNamesEqual(std::string_view a, std::string_view b)
{
    std::wstring wideA;
    std::wstring wideB;
    if (!Widen(a, wideA) || !Widen(b, wideB))
        return a == b;
    return CompareStringOrdinal(wideA.data(), static_cast<int>(wideA.size()), wideB.data(),
                                static_cast<int>(wideB.size()), TRUE) == CSTR_EQUAL;
}

std::string PathInSharedForm(const std::string &localPath)
{
    return localPath;
}

} // namespace fodr::platform
