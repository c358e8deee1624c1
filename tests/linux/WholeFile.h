// What a file holds at the moment, also while others have it open.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fodr::test {

inline std::string ReadWholeFile(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace fodr::test
