#include "logging/LogSinks.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "logging/FileWriter.h"
#include "logging/Logger.h"
#include "platform/Process.h"
#include "runtime/LogCall.h"
#include "runtime/OVSocket.h"
#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace fodr {

bool StdOutWriter::WriteMessage(const LogMessage &message)
{
    platform::WriteStandardOutput(message.TextToWrite()); // whoever reads along sees the line now
    return true;
}

bool StdErrWriter::WriteMessage(const LogMessage &message)
{
    const char *text = message.TextToWrite();
    platform::WriteStandardError(text, strlen(text));
    return true;
}

bool DebugWriter::WriteMessage(const LogMessage &message)
{
    platform::DebugOutput(message.TextToWrite());
    return true;
}

// ---- Through a function of the process ----

namespace {

constexpr std::string_view kPrefix = "@PROXY/";

} // namespace

bool ProxyWriter::OpenSink()
{
    return true;
}

bool ProxyWriter::WriteMessage(const LogMessage &message)
{
    if (!logFunction)
        return false;
    std::string_view text = message.TextToWrite(); // ends with a zero, as does every end of it
    if (!text.starts_with(kPrefix)) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        logFunction("", LOG_LEVEL_ALWAYS, "%s", text.data());
        return true;
    }
    text.remove_prefix(kPrefix.size());
    if (text.empty())
        return false;
    int32_t level = text.front() - '0';
    text.remove_prefix(1);
    size_t end = text.find('/'); // a name that holds one is cut there
    if (end == std::string_view::npos)
        return false;
    std::string functionName(text.substr(0, end));
    logFunction(functionName.c_str(), level, "%s", text.substr(end + 1).data());
    return true;
}

bool ProxyWriter::CloseSink()
{
    logFunction = nullptr;
    return true;
}

int ProxyWriter::FormatPrefix(char *buffer, size_t size, const char *functionName, int32_t level)
{
    return StringUtils::FormatBuffer(buffer, size, "%s%c%s%c", kPrefix.data(), '0' + level,
                                     functionName ? functionName : "", '/');
}

// ---- Syslog ----

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

RCPtr<LogWriter> NewLogWriter(int32_t type)
{
    switch (type) {
    case LOG_WRITER_DEBUG:
        return new DebugWriter;
    case LOG_WRITER_FILE:
        return new FileWriter;
    case LOG_WRITER_PROXY:
        return new ProxyWriter;
    case LOG_WRITER_SOCKET:
        return new SocketWriter;
    case LOG_WRITER_STDOUT:
        return new StdOutWriter;
    case LOG_WRITER_STDERR:
        return new StdErrWriter;
    default:
        return nullptr;
    }
}

} // namespace fodr
