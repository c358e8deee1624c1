#include "WholeFile.h"

#include "platform/windows/Win32.h"

namespace fodr::test {

std::string ReadWholeFile(const std::filesystem::path &path)
{
    const platform::OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                 nullptr, OPEN_EXISTING, 0, nullptr));
    std::string text;
    char buffer[4096];
    DWORD got = 0;
    while (file && ReadFile(file.Get(), buffer, sizeof(buffer), &got, nullptr) && got != 0)
        text.append(buffer, got);
    return text;
}

} // namespace fodr::test
