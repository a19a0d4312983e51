#include "Loopback.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace unit {

namespace {

// The result of a call that does not fail.
int Checked(const char *call, int result) {
    if (result < 0) {
        std::perror(call);
        std::abort();
    }
    return result;
}

}  // namespace

sockaddr_in LoopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int BoundSocket(int kind) {
    const int bound = Checked("socket", socket(AF_INET, kind | SOCK_CLOEXEC, 0));
    sockaddr_in address = LoopbackAddress();
    Checked("bind", bind(bound, General(address), sizeof address));
    return bound;
}

int PortOf(int socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    Checked("getsockname", getsockname(socket, General(address), &size));
    return ntohs(address.sin_port);
}

int FreePort(int kind) {
    const int bound = BoundSocket(kind);
    const int port = PortOf(bound);
    close(bound);
    return port;
}

Connection::Connection() {
    const int listener = BoundSocket(SOCK_STREAM);
    Checked("listen", listen(listener, 1));
    sockaddr_in address = LoopbackAddress(PortOf(listener));
    ends[0] = Checked("socket", socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Checked("connect", connect(ends[0], General(address), sizeof address));
    ends[1] = Checked("accept", accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    close(listener);
}

Connection::~Connection() {
    close(ends[0]);
    close(ends[1]);
}

}  // namespace unit
