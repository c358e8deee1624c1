// Every kind of stream, as two connected ends.
#pragma once

#include "platform/ByteStream.h"
#include "platform/Process.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

namespace fodr::test {

using platform::ByteStream;
using StreamPair = std::pair<std::unique_ptr<ByteStream>, std::unique_ptr<ByteStream>>;

enum class StreamKind { LocalPair, LocalSocket, LongPath, Tcp, Pipes };

inline bool Write(ByteStream *stream, platform::ByteView bytes)
{
    return stream->Write({&bytes, 1});
}

inline StreamPair MeetLocally(const std::string &path)
{
    const auto listener = platform::ListenLocal(path, nullptr);
    auto mine = platform::ConnectLocal(path, nullptr);
    return {std::move(mine), listener->Accept()};
}

// Two pipes, as standard input and output are.
StreamPair MakePipes();

inline StreamPair MakeStreams(StreamKind kind)
{
    const std::filesystem::path folder = testing::TempDir();
    const std::string name = "fodr-stream-" + std::to_string(platform::CurrentProcessId());
    switch (kind) {
    case StreamKind::LocalPair:
        return platform::MakeStreamPair();
    case StreamKind::LocalSocket:
        return MeetLocally((folder / name).string());
    case StreamKind::LongPath: {
        const std::filesystem::path deep = folder / (name + std::string(150, 'd'));
        std::filesystem::create_directories(deep);
        StreamPair streams = MeetLocally((deep / "socket").string());
        std::filesystem::remove_all(deep);
        return streams;
    }
    case StreamKind::Tcp: {
        const auto listener = platform::ListenTcp("127.0.0.1", 0, nullptr);
        auto mine = platform::ConnectTcp("localhost", listener->Port(), 10000, nullptr);
        return {std::move(mine), listener->Accept()};
    }
    default:
        return MakePipes();
    }
}

inline const auto kAllStreamKinds = testing::Values(StreamKind::LocalPair, StreamKind::LocalSocket,
                                                    StreamKind::LongPath, StreamKind::Tcp, StreamKind::Pipes);

} // namespace fodr::test
