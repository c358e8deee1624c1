// The whole channel manager over real folders: any packets, in any order, against shares that exist.
//
// Input: one byte of options (bit 0: begin with a handshake and three shares, one of them of named files),
// then packets, each after its length in 2 bytes. Packets are handled one after the other on this thread,
// except for those that may wait for something: they go to the pool. A request's device and file, unless
// their top bit is set, count the shares and the open files, so that the fuzzer needn't guess numbers.
#include "FuzzFolder.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "rdpdr/wire/RdpdrStream.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace fodr;
using namespace fodr::fuzz;

namespace {

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

bool MayWait(const DR_DEVICE_IOREQUEST &request)
{
    return request.MajorFunction == IRP_MJ_LOCK_CONTROL ||
           (request.MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
            request.MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY);
}

void Handle(RdpdrChannelManager &manager, CheckingChannel &channel, std::vector<uint8_t> packet)
{
    bool waits = false;
    if (IsRequest(packet)) {
        const DR_DEVICE_IOREQUEST request = Renumber(packet, channel.files);
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
    for (const std::vector<uint8_t> &packet : kHandshake)
        Handle(manager, channel, packet);
    manager.AddSharedFolder(folder + "/a", "1", false, 0, "");
    manager.AddSharedFolder(folder + "/b", "2", false, 0, "(OVFR)b");
    manager.AddSharedFolder(folder + "/a", "3", false, 0, "(OVFCP)a", {"file", "sub"});
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    MakeFolder();
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
    std::vector<uint8_t> packet;
    for (size_t at = 1; NextPacket(data, size, &at, &packet);)
        Handle(manager, channel, packet);
    manager.Shutdown();
    return 0;
}
