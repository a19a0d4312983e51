// Free loopback ports, and whether somebody has taken them.
#pragma once

#include <cstdint>

namespace peers {

uint16_t FreeTcpPort();
uint16_t FreeUdpPort();

// A socket that listens on loopback, the caller's to close.
int ListenOnLoopback(uint16_t &port);

// Whether something on loopback accepts TCP connections at `port`.
bool TcpListening(uint16_t port);
// Whether a UDP socket of this machine is bound to `port`; sending to find out would disturb the receiver.
bool UdpBound(uint16_t port);

}  // namespace peers
