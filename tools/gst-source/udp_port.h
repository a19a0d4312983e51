// Who else receives on a UDP port of this machine. The system lets two processes bind one port, and each
// datagram goes to one of them alone.
#pragma once

#include <optional>
#include <string>

namespace tool {

struct PortUser {
    int pid = 0;       // 0: a process that this user may not look into
    std::string name;  // of its program; empty likewise
};

// Another process with a socket on this port and address, where "0.0.0.0" and "::" overlap with every
// address. Nothing for multicast addresses, which may be shared, and for names.
std::optional<PortUser> WhoHasUdpPort(const std::string &address, unsigned port);

// The same for a UDP location, in one sentence; nothing when the port is free, and for other locations.
std::optional<std::string> UdpPortTaken(const std::string &url);

}  // namespace tool
