// A channel manager over real folders, with settings, drives and log lines of its own.
#pragma once

#include "AgentPackets.h"
#include "SettingsFixture.h"
#include "platform/Process.h"
#include "platform/UserFolders.h"
#include "platform/Volumes.h"
#include "rdpdr/RdpdrChannelManager.h"
#include "runtime/LogCall.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace fodr::test {

// Keeps every log line up to TRACE while it lives.
class LogCapture {
public:
    LogCapture()
    {
        Lines().clear();
        oldLevel = gLogLevel.exchange(LOG_LEVEL_TRACE);
        SetLogHandler([](const char *, int32_t level, const char *format, va_list arguments) {
            char text[1024];
            vsnprintf(text, sizeof(text), format, arguments);
            std::lock_guard held(Mutex());
            Lines().push_back("AEWIDTVN"[level] + std::string(" ") + text);
        });
    }
    ~LogCapture()
    {
        SetLogHandler(nullptr);
        gLogLevel = oldLevel;
    }
    // How many lines are "LEVEL TEXT"; counting forgets all lines.
    size_t Count(const std::string &line)
    {
        std::lock_guard held(Mutex());
        auto count = std::count(Lines().begin(), Lines().end(), line);
        Lines().clear();
        return static_cast<size_t>(count);
    }

private:
    static std::mutex &Mutex()
    {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<std::string> &Lines()
    {
        static std::vector<std::string> lines;
        return lines;
    }
    int32_t oldLevel;
};

constexpr const char *kStatus = "FOLDER_REDIRECTION_CMD_STATUS,";

class ManagerTest : public ::testing::Test {
protected:
    ManagerTest()
    {
        static int made = 0;
        const std::string name =
            "fodr-shares-" + std::to_string(platform::CurrentProcessId()) + "-" + std::to_string(++made);
        root = (std::filesystem::temp_directory_path() / name).string();
        std::filesystem::remove_all(root); // of a process that was killed
        std::filesystem::create_directories(root);
        settings.CreateKey(); // without "RedirectAll": nothing is shared unasked
        UseDrives("");
        manager.Initialize(&channel, nullptr);
    }
    ~ManagerTest() override
    {
        manager.Shutdown();
        platform::SetEnvironment("FODR_DRIVES", "");
        std::filesystem::remove_all(root);
    }

    static inline const bool kHasDriveTable = platform::LocalSeparator() == '/';

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
    std::vector<std::string> AddTo(RdpdrChannelManager &to, const std::string &path,
                                   const std::string &shareName, uint32_t permission,
                                   const std::string &cookie)
    {
        channel.TakeNotices();
        to.AddSharedFolder(path, cookie, false, permission, shareName);
        std::vector<std::string> texts;
        for (const Notice &notice : channel.TakeNotices()) {
            EXPECT_EQ(notice.cookie, cookie);
            EXPECT_TRUE(notice.message.starts_with(kStatus)) << notice.message;
            texts.push_back(notice.message.substr(strlen(kStatus)));
        }
        return texts;
    }
    std::vector<std::string> Add(const std::string &path, const std::string &shareName = "",
                                 uint32_t permission = 0, const std::string &cookie = "c")
    {
        return AddTo(manager, path, shareName, permission, cookie);
    }

    struct Announced {
        uint32_t id;
        uint32_t permission;
        std::string name;
        Bytes extension;
        bool operator==(const Announced &) const = default;
    };
    // The shares announced, and the ids withdrawn, since the last look; other packets are left out.
    std::vector<Announced> TakeAnnounced()
    {
        std::vector<Announced> list;
        removed.clear();
        for (const Bytes &packet : channel.TakePackets()) {
            auto header = LoadRecord<RDPDR_HEADER>(packet.data());
            if (header.PacketId == PAKID_CORE_DEVICELIST_REMOVE)
                removed.push_back(LoadLittle<uint32_t>(packet.data() + 8));
            if (header.PacketId != PAKID_CORE_DEVICELIST_ANNOUNCE)
                continue;
            auto announce = LoadRecord<DEVICE_ANNOUNCE>(packet.data() + 8);
            auto data = packet.begin() + 28;
            auto extension = data + announce.DeviceDataLength;
            EXPECT_EQ(extension[-1], 0);
            list.push_back({announce.DeviceId & kDeviceNumberMask, announce.DeviceId >> 24,
                            std::string(data, extension - 1), Bytes(extension, packet.end())});
        }
        return list;
    }
    std::vector<std::string> TakeAnnouncedNames()
    {
        std::vector<std::string> names;
        for (const Announced &share : TakeAnnounced())
            names.push_back(share.name);
        return names;
    }

    SettingsFixture settings;
    std::string root;
    RecordingChannel channel;
    RdpdrChannelManager manager;
    std::vector<uint32_t> removed;
};

using Strings = std::vector<std::string>;

} // namespace fodr::test
