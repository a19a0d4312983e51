#include "Ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "../../free_port.h"

namespace peers {
namespace {

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool InTable(const char *path, uint16_t port) {
    std::ifstream table(path);
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        fields >> slot >> local;
        const auto colon = local.rfind(':');
        if (colon != std::string::npos && std::strtoul(local.c_str() + colon + 1, nullptr, 16) == port) {
            return true;
        }
    }
    return false;
}

}  // namespace

uint16_t FreeTcpPort() {
    return free_port::Take(SOCK_STREAM);
}

uint16_t FreeUdpPort() {
    return free_port::Take(SOCK_DGRAM);
}

int ListenOnLoopback(uint16_t &port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        throw std::runtime_error("no socket that listens");
    }
    port = ntohs(address.sin_port);
    return fd;
}

bool TcpListening(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    const bool accepted = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return accepted;
}

bool UdpBound(uint16_t port) {
    return InTable("/proc/net/udp", port) || InTable("/proc/net/udp6", port);
}

}  // namespace peers
