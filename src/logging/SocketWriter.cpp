#include "logging/SocketWriter.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "logging/Logger.h"
#include "platform/Process.h"
#include "runtime/OVSocket.h"
#include "runtime/SettingNumber.h"
#include "runtime/StringUtils.h"
#include "runtime/TimeFormat.h"

#include <cstring>

namespace fodr {

namespace {

constexpr const char *kLocalMachine = "localhost";
constexpr const char *kNil = "-"; // RFC 5424 6: a field without a value
constexpr int32_t kDatagram = 2;  // socket type
constexpr int32_t kUdp = 17;      // protocol number

// As far as the field has room for it: a longer name is none.
std::string HostName()
{
    constexpr size_t kLongest = 15;
    std::string name;
    if (!Utf16ToUtf8(platform::ComputerName(), name) || name.empty() || name.size() > kLongest)
        return kNil;
    return name;
}

} // namespace

SocketWriter::SocketWriter() : LogWriter(LOG_WRITER_SOCKET), remoteAddress(kLocalMachine)
{
    SetBuffering(true);
}

SocketWriter::~SocketWriter() = default;

bool SocketWriter::SetValue(const std::string &name, const std::string &value)
{
    OVMutexLock held(LoggerMutex());
    if (name.empty() || value.empty() || (GetLogger() && GetLogger()->IsStarted()))
        return false;
    if (AsciiEqualsNoCase(name, "remoteAddress"))
        remoteAddress = value;
    else if (AsciiEqualsNoCase(name, "remotePort"))
        remotePort = static_cast<uint16_t>(ParseSettingNumber(value));
    return true;
}

bool SocketWriter::GetValue(const std::string &name, std::string &value)
{
    OVMutexLock held(LoggerMutex());
    if (AsciiEqualsNoCase(name, "remoteAddress"))
        value = remoteAddress;
    else if (AsciiEqualsNoCase(name, "remotePort"))
        value = StringUtils::Format("%u", static_cast<unsigned>(remotePort));
    else
        return LogWriter::GetValue(name, value);
    return true;
}

bool SocketWriter::OpenSink()
{
    socket = RCPtr<OVSocket>(new OVSocket);
    if (!socket->Init(kDatagram, kUdp)) {
        socket = nullptr;
        return false;
    }
    if (!socket->Connect(remoteAddress, remotePort))
        return false; // the socket stays until CloseSink
    if (GetLogger())
        appName = GetLogger()->LogToken();
    if (appName.empty())
        appName = kNil;
    return true;
}

bool SocketWriter::WriteMessage(const LogMessage &message)
{
    if (!IsOpen())
        return false;
    const char *text = message.TextToWrite();
    auto length = static_cast<int32_t>(strlen(text));
    return socket->SendAll(text, length) >= length;
}

bool SocketWriter::CloseSink()
{
    socket = nullptr;
    return true;
}

int SocketWriter::FormatPrefix(char *buffer, size_t size, const char *, int32_t)
{
    char stamp[64];
    StringUtils::FormatTimeStamp(stamp, sizeof(stamp), true);
    return StringUtils::FormatBuffer(buffer, size, "<1>1 %s %s %s - - ", stamp, HostName().c_str(),
                                     appName.c_str());
}

} // namespace fodr
