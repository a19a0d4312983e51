#include "StalledPeer.h"

#include "../unit/support/Loopback.h"
#include "gst_source_api.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace unit {

namespace {

bool IsDatagram(int protocol) {
    return protocol == SOURCE_TYPE_UDP || protocol == SOURCE_TYPE_SRT;
}

[[noreturn]] void Give(const char *what) {
    std::perror(what);
    std::abort();
}

// One that waits for an answer to its first packet, by the system's own table.
bool IsConnectingTo(int port) {
    char wanted[32] = "";
    std::snprintf(wanted, sizeof wanted, "0100007F:%04X 02", static_cast<unsigned int>(port));
    std::ifstream table("/proc/net/tcp");
    std::stringstream text;
    text << table.rdbuf();
    std::size_t count = 0;
    for (std::size_t at = text.str().find(wanted); at != std::string::npos; at = text.str().find(wanted, at + 1)) {
        ++count;
    }
    return count != 0;
}

std::string HalfAnswer(int protocol) {
    switch (protocol) {
        case SOURCE_TYPE_RTSP:
            return "RTSP/1.0 200 OK\r\nCSeq: 1\r\nPublic: OPTIONS, DESC";
        case SOURCE_TYPE_RTMP:
            return "\x03" + std::string(700, 'r');  // version and the first half of the 1536 random bytes
        default:
            return "HTTP/1.1 200 OK\r\nContent-Type: application/vnd.apple.mpegurl\r\nContent-Length: "
                   "500\r\n\r\n#EXTM3U\n#EXT-X-";
    }
}

// The answer to the first handshake packet of an SRT caller
// (induction), which then sends its second one for nothing.
std::string InductionAnswer(const std::string &request) {
    constexpr std::size_t kHeader = 16;
    constexpr std::size_t kSocketId = kHeader + 24;
    std::string answer = request;
    answer.replace(12, 4, request, kSocketId, 4);             // to the caller's socket
    answer.replace(kHeader, 8, "\0\0\0\x05\0\0\x4A\x17", 8);  // version 5, "SRT"
    answer.replace(kSocketId, 8, "\0\0\x07\x77\x12\x34\x56\x78", 8);
    return answer;
}

}  // namespace

StalledPeer::StalledPeer(int protocol, Stall stall) : m_protocol(protocol), m_stall(stall) {
    const int kind = IsDatagram(protocol) ? SOCK_DGRAM : SOCK_STREAM;
    m_listener = BoundSocket(kind);
    m_port = PortOf(m_listener);
    sockaddr_in address = LoopbackAddress(m_port);
    if (protocol == SOURCE_TYPE_UDP || stall == Stall::Refusing) {
        // The source's own port in the one case, and nobody's in the other,
        // where TCP can even be kept from everybody else.
        if (IsDatagram(protocol)) {
            close(m_listener);
            m_listener = -1;
        }
        m_reached = true;
        return;
    }
    if (stall == Stall::Dropping) {
        if (listen(m_listener, 0) != 0) {
            Give("listen");
        }
        // What fits into the queue of a listener that accepts nobody; the next one is not answered any more.
        for (int i = 0; i < 4; ++i) {
            const int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (filler < 0) {
                Give("filler");
            }
            static_cast<void>(connect(filler, General(address), sizeof address));
            pollfd waiting{filler, POLLOUT, 0};
            const bool queued = poll(&waiting, 1, 200) == 1;
            m_fillers.push_back(filler);
            if (!queued) {
                break;
            }
        }
        // The one that was not answered goes: from now on it is the source that waits.
        close(m_fillers.back());
        m_fillers.pop_back();
        return;
    }
    if (kind == SOCK_STREAM && listen(m_listener, 16) != 0) {
        Give("listen");
    }
    m_thread = std::thread([this] { Serve(); });
}

StalledPeer::~StalledPeer() {
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    for (const int filler : m_fillers) {
        close(filler);
    }
    if (m_listener >= 0) {
        close(m_listener);
    }
}

bool StalledPeer::Reached() const {
    return m_reached || (m_stall == Stall::Dropping && IsConnectingTo(m_port));
}

void StalledPeer::Serve() {
    constexpr int kLookMs = 20;
    std::vector<int> clients;
    while (!m_stop) {
        pollfd waiting{m_listener, POLLIN, 0};
        if (poll(&waiting, 1, kLookMs) != 1) {
            continue;
        }
        char buffer[2048];
        if (IsDatagram(m_protocol)) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const ssize_t got = recvfrom(m_listener, buffer, sizeof buffer, 0, General(from), &size);
            if (m_stall == Stall::HalfAnswer && got >= 64 && buffer[16 + 20 + 3] == 1) {
                const std::string answer = InductionAnswer(std::string(buffer, static_cast<std::size_t>(got)));
                static_cast<void>(sendto(m_listener, answer.data(), answer.size(), 0, General(from), size));
            } else if (got > 0) {
                m_reached = true;  // silence: the first packet; half an answer: the one after it
            }
            continue;
        }
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        clients.push_back(client);
        // All that the source says before it waits for us.
        pollfd request{client, POLLIN, 0};
        while (!m_stop && poll(&request, 1, kLookMs) == 0) {
        }
        if (m_stop || recv(client, buffer, sizeof buffer, 0) <= 0) {
            continue;
        }
        if (m_stall == Stall::HalfAnswer) {
            const std::string answer = HalfAnswer(m_protocol);
            static_cast<void>(send(client, answer.data(), answer.size(), MSG_NOSIGNAL));
        }
        m_reached = true;
    }
    for (const int client : clients) {
        close(client);
    }
}

}  // namespace unit
