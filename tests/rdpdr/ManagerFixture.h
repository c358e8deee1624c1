// A channel manager over real folders, with settings, drives and log lines of its own.
#pragma once

#include "AgentPackets.h"
#include "SettingsFixture.h"
#include "platform/Files.h"
#include "platform/Volumes.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "runtime/CapturedLog.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace fodr::test {

using Strings = std::vector<std::string>;

// How many lines "LEVEL TEXT" a CapturedLog has, whichever function wrote them.
inline size_t Logged(const std::string &line)
{
    const Strings lines = CapturedLog::Lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&line](const std::string &kept) {
        return kept[0] == line[0] && kept.ends_with(": " + line.substr(2));
    }));
}

constexpr const char *kStatus = "FOLDER_REDIRECTION_CMD_STATUS,";

class ManagerTest : public ::testing::Test {
protected:
    ManagerTest()
    {
        Folder("");
        settings.CreateKey(); // without "RedirectAll": nothing is shared unasked
        UseDrives("");
        manager.Initialize(&channel, nullptr);
    }
    ~ManagerTest() override
    {
        manager.Shutdown();
        platform::SetEnvironment("FODR_DRIVES", "");
    }

    // Sets the letters that stand for something; without it there are none.
    void UseDrives(const std::string &table) { platform::SetEnvironment("FODR_DRIVES", table); }

    std::string Folder(const std::string &name)
    {
        const std::string folder = root + platform::LocalSeparator() + name;
        std::filesystem::create_directories(folder);
        return folder;
    }
    static bool FeedTo(RdpdrChannelManager &fed, Bytes packet)
    {
        RdpdrStream stream(packet.data(), static_cast<int32_t>(packet.size()));
        return fed.ProcessData(&stream);
    }
    bool Feed(const Bytes &packet) { return FeedTo(manager, packet); }
    // As the channel does it: the packets are served by other threads.
    void Receive(const std::vector<Bytes> &packets)
    {
        for (const Bytes &packet : packets) {
            RdpdrStream *stream = RdpdrStream::Create(packet.size());
            stream->Write(packet.data(), packet.size());
            EXPECT_TRUE(manager.OnDataReceived(stream));
        }
    }
    // Another manager on the same channel, that has handled the packets.
    std::unique_ptr<RdpdrChannelManager> Fresh(const std::vector<Bytes> &packets = {})
    {
        auto fresh = std::make_unique<RdpdrChannelManager>();
        fresh->Initialize(&channel, nullptr);
        for (const Bytes &packet : packets)
            FeedTo(*fresh, packet);
        return fresh;
    }
    // What the channel got by feeding the packet.
    std::vector<Bytes> Answers(const Bytes &packet)
    {
        channel.TakePackets();
        Feed(packet);
        return channel.TakePackets();
    }
    void LogOn(uint16_t version, const Policy &policy = {}, uint16_t capabilities = 0)
    {
        Feed(VersionExchange(version, capabilities));
        Feed(PolicyPacket(policy.Block(version)));
        Feed(UserLoggedOn());
        channel.TakeNotices();
        channel.TakePackets();
    }
    // The status texts that an add leads to, without what they all begin with.
    Strings AddTo(RdpdrChannelManager &to, const std::string &path, const std::string &shareName,
                  uint32_t permission, const std::string &cookie)
    {
        channel.TakeNotices();
        to.AddSharedFolder(path, cookie, false, permission, shareName);
        const std::string begin = cookie + "|" + kStatus;
        Strings texts;
        for (const std::string &notice : channel.TakeNotices()) {
            EXPECT_TRUE(notice.starts_with(begin)) << notice;
            texts.push_back(notice.substr(begin.size()));
        }
        return texts;
    }
    Strings Add(const std::string &path, const std::string &shareName = "", uint32_t permission = 0,
                const std::string &cookie = "c")
    {
        return AddTo(manager, path, shareName, permission, cookie);
    }

    // What happened to the shares since the last look, as "ID NAME (PERMISSION)" and what lies behind the
    // name's zero, or "-ID" of one that was withdrawn. Waits until `count` packets came.
    Strings TakeShares(size_t count = 0)
    {
        Strings list;
        for (const Bytes &packet : channel.TakePackets(count)) {
            const uint16_t packetId = LoadRecord<RDPDR_HEADER>(packet.data()).PacketId;
            if (packetId == PAKID_CORE_DEVICELIST_REMOVE)
                list.push_back("-" + std::to_string(LoadLittle<uint32_t>(packet.data() + 8)));
            if (packetId != PAKID_CORE_DEVICELIST_ANNOUNCE)
                continue;
            const auto share = LoadRecord<DEVICE_ANNOUNCE>(packet.data() + 8);
            const auto name = packet.begin() + 28, end = name + share.DeviceDataLength;
            EXPECT_EQ(end[-1], 0);
            list.push_back(std::to_string(share.DeviceId & kDeviceNumberMask) + " " +
                           std::string(name, end - 1) + " (" + std::to_string(share.DeviceId >> 24) + ")" +
                           std::string(end, packet.end()));
        }
        return list;
    }

    // Of the names, those that can be opened in the share.
    Strings OpenedOf(RdpdrChannelManager &asked, const Strings &names, uint32_t deviceId = 65535)
    {
        Strings opened;
        channel.TakePackets();
        for (const std::string &name : names) {
            const std::u16string path = u"\\" + std::u16string(name.begin(), name.end());
            FeedTo(asked, Open(deviceId, path, nt::FILE_OPEN, 0));
            if (StatusOf(channel.TakePackets().at(0)) == 0)
                opened.push_back(name);
        }
        return opened;
    }

    SettingsFixture settings;
    const std::string root = settings.Folder() + platform::LocalSeparator() + "shares";
    RecordingChannel channel;
    RdpdrChannelManager manager;
};

} // namespace fodr::test
