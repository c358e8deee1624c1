// A connected socket of the IPv4 family.
#pragma once

#include "lib/misc/Mutex.h"
#include "runtime/OVMutex.h"
#include "runtime/RCObject.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr {

// One thread at a time. Closed with its end.
//
// The socket library is started with the first socket and stopped when as many sockets have gone as counted:
// one. A second socket that lives on then goes without it, which only matters on Windows.
class OVSocket : public RCObject {
public:
    OVSocket() = default;
    ~OVSocket() override;

    // `type` and `protocol` as in platform/ByteStream.h. Once; true again on a socket that is initialised.
    bool Init(int32_t type, int32_t protocol);
    bool Connect(const std::string &hostName, uint16_t port);
    // The bytes sent, or a negative number. After a short send the data is sent again *from its start*: meant
    // for datagrams, which go whole or not at all.
    int32_t SendAll(const void *data, int32_t length);

private:
    static OVMutex &SocketMutex();
    static bool EnterLibrary();
    static bool LeaveLibrary();
    static int32_t socketUsers GUARDED_BY(SocketMutex()); // live starts of the socket library

    int32_t socketHandle = -1;
    bool initialized = false;
};

} // namespace fodr
