// The address that the HTTP side listens on, and the names under which browsers may ask for it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "fd.h"

namespace tool {

class ListenAddress {
  public:
    // "127.0.0.1:9090", "[::1]:9090"; port 0: the kernel chooses. Throws std::runtime_error with a line for people.
    explicit ListenAddress(const std::string &text);

    // No other machine reaches it.
    bool IsLoopback() const;
    // A socket that listens there. Throws std::runtime_error with a line for people.
    Fd Listen();
    // Of the socket; that of the text before.
    uint16_t Port() const;
    // "127.0.0.1:9090", with the port of the socket.
    std::string Text() const;
    // Whether the value of a Host header means this address. A page of another site that has given its own name
    // this address (DNS rebinding) sends that name. Only a loopback address is particular: others have a token.
    bool IsHost(const std::string &host) const;

  private:
    std::string Host() const;

    std::string m_text;
    sockaddr_storage m_storage{};
    socklen_t m_size = 0;
};

}  // namespace tool
