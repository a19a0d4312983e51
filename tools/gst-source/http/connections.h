// The connections of all clients, in one thread: one that is slow costs memory for its request and its answer, and nobody waits
// for it.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "fd.h"
#include "http/exchange.h"

namespace tool {

struct ConnectionLimits {
    size_t connections = 512;                   // a newcomer beyond takes the place of the one that has waited longest
    size_t pending = size_t{64} << 20U;         // bytes of answers that clients have not taken yet, likewise
    std::chrono::milliseconds request{10'000};  // from a request's first byte to its last
    std::chrono::milliseconds idle{Exchange::kIdleS * 1000};
    std::chrono::milliseconds answer{30'000};  // until the client has taken all of it
};

class Connections {
  public:
    // `listener` is non-blocking. `answerer` is called in the thread of this object.
    Connections(Fd listener, Exchange::Answerer answerer, const ConnectionLimits &limits = {});
    // Closes all connections at once.
    ~Connections();
    Connections(const Connections &) = delete;
    Connections &operator=(const Connections &) = delete;

  private:
    using Clock = std::chrono::steady_clock;
    struct Connection;
    using Position = std::list<Connection>::iterator;

    void Loop();
    int PollAll();
    void Accept();
    void MakeRoom();
    void Serve(Connection &connection, short events);
    void Read(Connection &connection);
    bool TakeRequest(Connection &connection);
    void Answer(Connection &connection, const Head &head);
    void Write(Connection &connection);
    void Linger(Connection &connection);
    size_t Pending() const;

    const Fd m_listener;
    Exchange m_exchange;
    const ConnectionLimits m_limits;
    const Fd m_stop;
    std::list<Connection> m_connections;
    bool m_stopped = false;
    bool m_full = false;  // the process has no descriptor left
    std::thread m_thread;
};

}  // namespace tool
