// Sockets on the loopback interface. What cannot be had ends the program: nothing can be tested then.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

namespace unit {

// 127.0.0.1 with that port; 0 lets the kernel choose.
sockaddr_in LoopbackAddress(int port = 0);
inline sockaddr *General(sockaddr_in &address) {
    return static_cast<sockaddr *>(static_cast<void *>(&address));
}

// A socket that is bound to a port of the kernel's choice (kind:
// SOCK_STREAM or SOCK_DGRAM). The caller closes it.
int BoundSocket(int kind);
int PortOf(int socket);
// A port that nothing listens on.
int FreePort(int kind);

// Both ends of a TCP connection.
struct Connection {
    Connection();
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int ends[2] = {-1, -1};
};

}  // namespace unit
