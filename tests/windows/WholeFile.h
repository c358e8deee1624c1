// What a file holds at the moment, also while others have it open: the C library's opens share no deletion.
#pragma once

#include <filesystem>
#include <string>

namespace fodr::test {

std::string ReadWholeFile(const std::filesystem::path &path);

} // namespace fodr::test
