// Ports of this machine for servers and receivers of tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>

namespace free_port {

inline bool Bind(int family, int type, const void *address, socklen_t size, bool keep) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    const bool bound = fd >= 0 && bind(fd, static_cast<const sockaddr *>(address), size) == 0;
    if (fd >= 0 && !(bound && keep)) {
        close(fd);
    }
    return bound;
}

inline bool Free(int type, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return Bind(AF_INET, type, &address, sizeof address, false);
}

// Keeps the port from other programs of the tests until this one ends.
inline bool Claim(int type, uint16_t port) {
    const std::string name =
        std::string("gst-source-") + (type == SOCK_DGRAM ? "udp" : "tcp") + "-port-" + std::to_string(port);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return Bind(AF_UNIX, SOCK_STREAM, &address, size, true);
}

// A port that is free and stays so. The kernel gives ports of its own range to any socket that has not been
// bound, and one of those could take a port that its owner has yet to bind. So these lie below that range.
inline uint16_t Take(int type) {
    static std::mutex mutex;
    static std::mt19937 random(std::random_device{}());
    const std::lock_guard<std::mutex> lock(mutex);
    unsigned first = 32768;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> first;
    std::uniform_int_distribution<unsigned> below(first / 2, first - 1);
    for (;;) {
        const auto port = static_cast<uint16_t>(below(random));
        if (Free(type, port) && Claim(type, port)) {
            return port;
        }
    }
}

}  // namespace free_port
