// What the fuzzers of packets share: folders to offer, and packets out of the fuzzer's bytes.
//
// What is offered is a folder of the fuzzer's own: "AllowedFolders" keeps everything else out of reach, and
// the size of a file is limited.
#pragma once

#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace fodr::fuzz {

inline std::string folder;

inline void FormatLogLine(const char *, int32_t, const char *format, va_list arguments)
{
    char line[1024];
    vsnprintf(line, sizeof(line), format, arguments);
}

inline void ResetFolder()
{
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(folder, ignored))
        std::filesystem::remove_all(entry, ignored);
    std::filesystem::create_directories(folder + "/a/sub", ignored);
    std::filesystem::create_directories(folder + "/b", ignored);
    std::ofstream(folder + "/a/file") << "some text";
    std::ofstream(folder + "/a/beside") << "not to be seen";
}

inline void MakeFolder()
{
    std::string pattern = std::filesystem::temp_directory_path() / "fodr-fuzz-XXXXXX";
    folder = mkdtemp(pattern.data());
    std::filesystem::create_directories(folder + ".settings");
    std::ofstream(folder + ".settings/HKEY_LOCAL_MACHINE.ini")
        << "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\nAllowedFolders=multi_sz:" << folder
        << ";\n";
    setenv("FODR_SETTINGS_DIR", (folder + ".settings").c_str(), 1);
    setenv("FODR_DRIVES", "", 1);
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
        std::filesystem::remove_all(folder + ".settings", ignored);
    });
    signal(SIGXFSZ, [](int) {}); // one that is ignored libFuzzer takes for a finding
    rlimit limit{1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    SetLogHandler(FormatLogLine);
    gLogLevel = LOG_LEVEL_TRACE;
}

inline const std::vector<uint8_t> kLoggedOn{0x72, 0x44, 0x4C, 0x55};

// What an honest agent says before shares are added.
inline const std::vector<std::vector<uint8_t>> kHandshake{
    {0xFE, 0xFF, 1, 0, 6, 0, 3, 0},                                                  // version, capabilities
    {0xFE, 0xFF, 2, 0, 16, 0, 0, 0, 1, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, // an empty policy
    kLoggedOn};

// The packet at `*at`, after its length in 2 bytes; `*at` moves behind it. False at the end.
inline bool NextPacket(const uint8_t *data, size_t size, size_t *at, std::vector<uint8_t> *packet)
{
    if (size - *at < 2)
        return false;
    const size_t length = std::min<size_t>(LoadLittle<uint16_t>(data + *at), size - *at - 2);
    packet->assign(data + *at + 2, data + *at + 2 + length);
    *at += 2 + length;
    return true;
}

inline bool IsRequest(const std::vector<uint8_t> &packet)
{
    return packet.size() >= kMinRequestSize &&
           LoadLittle<uint16_t>(&packet[2]) == PAKID_CORE_DEVICE_IOREQUEST;
}

// A request's device and file, unless their top bit is set, count the shares and the open files, so that the
// fuzzer needn't guess numbers.
inline DR_DEVICE_IOREQUEST Renumber(std::vector<uint8_t> &packet, const std::vector<uint32_t> &files)
{
    constexpr uint32_t kTopBit = 0x80000000;
    auto request = LoadRecord<DR_DEVICE_IOREQUEST>(&packet[kHeaderEnd]);
    if ((request.DeviceId & kTopBit) == 0)
        request.DeviceId = 0xFFFF + request.DeviceId % 4;
    if ((request.FileId & kTopBit) == 0 && !files.empty())
        request.FileId = files[request.FileId % files.size()];
    StoreRecord(request, &packet[kHeaderEnd]);
    return request;
}

} // namespace fodr::fuzz
