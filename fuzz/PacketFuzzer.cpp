// The whole channel manager over real folders: any packets, in any order, against shares that exist.
//
// Input: one byte of options (bit 0: begin with a handshake and three shares, one of them of named files),
// then packets, each after its length in 2 bytes. Packets are handled one after the other on this thread,
// except for those that may wait for something: they go to the pool. A request's device and file, unless
// their top bit is set, count the shares and the open files, so that the fuzzer needn't guess numbers.
//
// What is offered is a folder of the fuzzer's own: "AllowedFolders" keeps everything else out of reach, and
// the size of a file is limited.
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/wire/IRdpdrChannel.h"
#include "rdpdr/wire/RdpdrRecords.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <vector>

using namespace fodr;

namespace {

std::string folder;

class CheckingChannel : public IRdpdrChannel {
public:
    bool NotifyODPObserver(const char *cookie, const char *message) override
    {
        return (cookie ? strlen(cookie) : 0) + strlen(message) > 0;
    }
    bool WriteChannel(RdpdrStream *packet) override
    {
        if (packet->Size() < 8)
            std::abort();
        auto header = LoadRecord<RDPDR_HEADER>(packet->Base());
        if (header.PacketId == PAKID_CORE_DEVICE_IOCOMPLETION && creating)
            files.push_back(LoadLittle<uint32_t>(packet->Base() + kCompletionBody));
        // Reads every byte that would be sent.
        static volatile uint8_t sum;
        for (int32_t i = 0; i < packet->Size(); ++i)
            sum = static_cast<uint8_t>(sum + packet->Base()[i]);
        return true;
    }

    static thread_local bool creating; // the packet in hand opens a file: on the fuzzer's own thread
    std::vector<uint32_t> files;       // used by that thread alone
};

thread_local bool CheckingChannel::creating = false;

void FormatLogLine(const char *, int32_t, const char *format, va_list arguments)
{
    char line[1024];
    vsnprintf(line, sizeof(line), format, arguments);
}

void ResetFolder()
{
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(folder, ignored))
        std::filesystem::remove_all(entry, ignored);
    std::filesystem::create_directories(folder + "/a/sub", ignored);
    std::filesystem::create_directories(folder + "/b", ignored);
    std::ofstream(folder + "/a/file") << "some text";
    std::ofstream(folder + "/a/beside") << "not to be seen";
}

bool MayWait(const DR_DEVICE_IOREQUEST &request)
{
    return request.MajorFunction == IRP_MJ_LOCK_CONTROL ||
           (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
            request.MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY);
}

void Handle(RdpdrChannelManager &manager, CheckingChannel &channel, std::vector<uint8_t> packet)
{
    bool waits = false;
    if (packet.size() >= kMinRequestSize && LoadLittle<uint16_t>(&packet[2]) == PAKID_CORE_DEVICE_IOREQUEST) {
        constexpr uint32_t kTopBit = 0x80000000;
        auto request = LoadRecord<DR_DEVICE_IOREQUEST>(&packet[kHeaderEnd]);
        if ((request.DeviceId & kTopBit) == 0)
            request.DeviceId = 0xFFFF + request.DeviceId % 4;
        if ((request.FileId & kTopBit) == 0 && !channel.files.empty())
            request.FileId = channel.files[request.FileId % channel.files.size()];
        StoreRecord(request, &packet[kHeaderEnd]);
        waits = MayWait(request);
        channel.creating = request.MajorFunction == IRP_MJ_CREATE;
    }
    RdpdrStream *stream = RdpdrStream::Create(packet.size());
    if (!stream)
        return;
    stream->Write(packet.data(), packet.size());
    stream->SetPosition(0);
    if (waits && manager.OnDataReceived(stream))
        return;
    manager.ProcessData(stream);
    channel.creating = false;
    RdpdrStream::Free(&stream);
}

void BeginWithShares(RdpdrChannelManager &manager, CheckingChannel &channel)
{
    Handle(manager, channel, {0xFE, 0xFF, 1, 0, 6, 0, 3, 0}); // version and capabilities
    Handle(manager, channel,                                  // an empty policy
           {0xFE, 0xFF, 2, 0, 16, 0, 0, 0, 1, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    Handle(manager, channel, {0x72, 0x44, 0x4C, 0x55}); // logged on
    manager.AddSharedFolder(folder + "/a", "1", false, 0, "");
    manager.AddSharedFolder(folder + "/b", "2", false, 0, "(OVFR)b");
    manager.AddSharedFolder(folder + "/a", "3", false, 0, "(OVFCP)a", {"file", "sub"});
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
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
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    SetLogHandler(FormatLogLine);
    gLogLevel = LOG_LEVEL_TRACE;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    ResetFolder();
    CheckingChannel channel;
    RdpdrChannelManager manager;
    manager.Initialize(&channel, nullptr);
    if (data[0] & 1)
        BeginWithShares(manager, channel);
    for (size_t at = 1; size - at >= 2;) {
        size_t length = std::min<size_t>(LoadLittle<uint16_t>(data + at), size - at - 2);
        Handle(manager, channel, std::vector<uint8_t>(data + at + 2, data + at + 2 + length));
        at += 2 + length;
    }
    manager.Shutdown();
    return 0;
}
