// Facts of the machine, the process and its files as the log shows them. Any thread; never fails: an
// unknown fact is an empty text.
#pragma once

#include <cstdint>
#include <string>

namespace fodr {

namespace ProcessUtils {

// The desktop session of the calling thread's own identity, if it is asked for and there is one, else of the
// process. A known id is given back. 0xFFFFFFFF when it is unknown.
uint32_t GetSessionID(bool useThreadToken = false, uint32_t knownId = 0xFFFFFFFF);

} // namespace ProcessUtils

// The path of the library or program that holds this code, or of the program that runs.
std::string GetModulePath(bool thisModule);

// The last write, "Feb 29 2024 13:05:07", in the local time of *now*: of the other half of the year an hour
// off where clocks change. Empty for a file that can't be opened.
std::string GetFileTimeText(const std::string &path);

// "1.2.3 (Feb 29 2024 13:05:07)", "unknown (...)"; empty for a file without a version block.
std::string GetFileVersionText(const std::string &path);

// "Debian GNU/Linux 12 (bookworm), Version 6.1.0-13-amd64, Build #1 SMP ..., 64-bit". Made once.
std::string GetOsVersionText();
// The same, made anew.
std::string MakeOsVersionText();

} // namespace fodr
