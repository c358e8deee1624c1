#include "runtime/OVSocket.h"

#include "platform/ByteStream.h"
#include "runtime/LogCall.h"

namespace fodr {

int32_t OVSocket::socketUsers = 0;

// Never destroyed: a log may live as long as the process.
OVMutex &OVSocket::SocketMutex()
{
    static OVMutex *const mutex = new OVMutex;
    return *mutex;
}

OVSocket::~OVSocket()
{
    if (!platform::CloseInetSocket(socketHandle))
        LOG_ERROR("Close socket error.\n");
    socketHandle = platform::kNoSocket;
    if (!LeaveLibrary())
        LOG_ERROR("WSACleaup Failed.\n");
}

// These two log nothing: a log call may wait for a thread that waits for SocketMutex.
bool OVSocket::EnterLibrary()
{
    OVMutexLock guard(SocketMutex());
    if (socketUsers == 0) {
        if (!platform::StartSocketLibrary())
            return false;
        socketUsers = 1; // and no more for the sockets that follow
    }
    return true;
}

bool OVSocket::LeaveLibrary()
{
    OVMutexLock guard(SocketMutex());
    return --socketUsers != 0 || platform::StopSocketLibrary();
}

bool OVSocket::Init(int32_t type, int32_t protocol)
{
    if (initialized) {
        LOG_DEBUG("OVSocket is already initialized.\n");
        return true;
    }
    if (!EnterLibrary()) {
        LOG_ERROR("Unable to load WinSock DLL.\n");
        return false;
    }
    socketHandle = platform::OpenInetSocket(type, protocol);
    if (socketHandle < 0) {
        LOG_ERROR("Socket creation failed.\n");
        return false;
    }
    initialized = true;
    return true;
}

bool OVSocket::Connect(const std::string &hostName, uint16_t port)
{
    uint32_t address = 0;
    if (!platform::ResolveInetHost(hostName, address)) {
        LOG_ERROR("Failed to resolve name.\n");
        return false;
    }
    if (!platform::ConnectInetSocket(socketHandle, address, port)) {
        LOG_ERROR("Connect failed.\n");
        return false;
    }
    return true;
}

int32_t OVSocket::SendAll(const void *data, int32_t length)
{
    int32_t total = 0;
    while (total < length) {
        const int32_t sent = platform::SendOnSocket(socketHandle, data, length);
        if (sent < 0) {
            LOG_ERROR("SendAll() failed.\n");
            return sent;
        }
        total += sent;
    }
    return total;
}

} // namespace fodr
