#include "http/address.h"

#include <arpa/inet.h>
#include <strings.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace tool {
namespace {

template <typename Address>
Address As(const sockaddr_storage &storage) {
    Address address{};
    std::memcpy(&address, &storage, sizeof address);
    return address;
}

bool IsLoopbackV4(in_addr address) {
    constexpr uint32_t kNet = 127;
    constexpr unsigned kHostBits = 24;
    return ntohl(address.s_addr) >> kHostBits == kNet;
}

// Both parts of "HOST:PORT"; the brackets of IPv6 are left out. No port: empty.
struct HostAndPort {
    std::string host;
    std::string port;
    bool bracketed = false;
    bool has_port = false;
};

HostAndPort Split(const std::string &text) {
    HostAndPort parts;
    size_t end = text.rfind(':');
    if (!text.empty() && text.front() == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':')) {
            return parts;
        }
        parts.bracketed = true;
        parts.host = text.substr(1, close - 1);
        end = close + 1 < text.size() ? close + 1 : std::string::npos;
    } else {
        parts.host = text.substr(0, end);
    }
    parts.has_port = end != std::string::npos;
    parts.port = parts.has_port ? text.substr(end + 1) : "";
    return parts;
}

uint16_t ParsePort(const std::string &text, const std::string &whole) {
    constexpr size_t kDigits = 5;
    const bool digits = !text.empty() && text.size() <= kDigits && text.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long port = digits ? std::stoul(text) : std::numeric_limits<unsigned long>::max();
    if (port > std::numeric_limits<uint16_t>::max()) {
        throw std::runtime_error("\"" + whole + "\": the port is a number from 0 to 65535");
    }
    return static_cast<uint16_t>(port);
}

}  // namespace

ListenAddress::ListenAddress(const std::string &text) : m_text(text) {
    const HostAndPort parts = Split(text);
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const bool is_v4 = !parts.bracketed && inet_pton(AF_INET, parts.host.c_str(), &v4.sin_addr) == 1;
    const bool is_v6 = parts.bracketed && inet_pton(AF_INET6, parts.host.c_str(), &v6.sin6_addr) == 1;
    if (!parts.has_port || !(is_v4 || is_v6) || text.find('\0') != std::string::npos) {
        throw std::runtime_error("\"" + text + "\" is no address to listen on, such as 127.0.0.1:9090 or [::1]:9090");
    }
    const in_port_t port = htons(ParsePort(parts.port, text));
    if (is_v4) {
        v4.sin_family = AF_INET;
        v4.sin_port = port;
        m_size = sizeof v4;
        std::memcpy(&m_storage, &v4, sizeof v4);
    } else {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = port;
        m_size = sizeof v6;
        std::memcpy(&m_storage, &v6, sizeof v6);
    }
}

bool ListenAddress::IsLoopback() const {
    if (m_storage.ss_family == AF_INET) {
        return IsLoopbackV4(As<sockaddr_in>(m_storage).sin_addr);
    }
    const in6_addr address = As<sockaddr_in6>(m_storage).sin6_addr;
    return std::memcmp(&address, &in6addr_loopback, sizeof address) == 0;
}

Fd ListenAddress::Listen() {
    Fd fd(socket(m_storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    // A restart must not wait for connections of the run before.
    if (fd) {
        setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    const auto *address = reinterpret_cast<const sockaddr *>(&m_storage);
    if (!fd || bind(fd.Get(), address, m_size) != 0 || listen(fd.Get(), SOMAXCONN) != 0) {
        throw std::runtime_error("cannot listen on " + m_text + ": " + std::strerror(errno));
    }
    socklen_t size = sizeof m_storage;
    if (getsockname(fd.Get(), reinterpret_cast<sockaddr *>(&m_storage), &size) != 0) {
        throw std::runtime_error("cannot listen on " + m_text + ": " + std::strerror(errno));
    }
    return fd;
}

uint16_t ListenAddress::Port() const {
    return ntohs(m_storage.ss_family == AF_INET ? As<sockaddr_in>(m_storage).sin_port : As<sockaddr_in6>(m_storage).sin6_port);
}

std::string ListenAddress::Host() const {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (m_storage.ss_family == AF_INET) {
        const in_addr address = As<sockaddr_in>(m_storage).sin_addr;
        inet_ntop(AF_INET, &address, text.data(), text.size());
    } else {
        const in6_addr address = As<sockaddr_in6>(m_storage).sin6_addr;
        inet_ntop(AF_INET6, &address, text.data(), text.size());
    }
    return text.data();
}

std::string ListenAddress::Text() const {
    const std::string host = m_storage.ss_family == AF_INET ? Host() : "[" + Host() + "]";
    return host + ":" + std::to_string(Port());
}

bool ListenAddress::IsHost(const std::string &host) const {
    const HostAndPort parts = Split(host);
    if (parts.host.empty()) {
        return false;
    }
    if (!IsLoopback()) {
        return true;
    }
    in_addr v4{};
    in6_addr v6{};
    if (parts.bracketed) {
        return inet_pton(AF_INET6, parts.host.c_str(), &v6) == 1 && std::memcmp(&v6, &in6addr_loopback, sizeof v6) == 0;
    }
    return strcasecmp(parts.host.c_str(), "localhost") == 0 ||
           (inet_pton(AF_INET, parts.host.c_str(), &v4) == 1 && IsLoopbackV4(v4));
}

}  // namespace tool
