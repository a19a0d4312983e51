#include "http/connections.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tool {
namespace {

// A quarter of the descriptors that the process may open: its sources need theirs.
ConnectionLimits WithinDescriptors(ConnectionLimits limits) {
    rlimit open_files{};
    if (getrlimit(RLIMIT_NOFILE, &open_files) == 0 && open_files.rlim_cur != RLIM_INFINITY) {
        limits.connections = std::min<size_t>(limits.connections, std::max<size_t>(open_files.rlim_cur / 4, 1));
    }
    return limits;
}

bool WouldBlock(int error) {
    return error == EAGAIN || error == EINTR;
}

}  // namespace

struct Connections::Connection {
    // kLingering: all has been said; what the client still sends is thrown away, because closing with bytes unread
    // would take the answer from it.
    enum class State { kIdle, kReading, kAnswering, kLingering, kGone };

    explicit Connection(Fd socket) : fd(std::move(socket)) {}

    void Enter(State next, std::chrono::milliseconds longest) {
        state = next;
        since = Clock::now();
        deadline = since + longest;
    }

    Fd fd;
    State state = State::kReading;
    Clock::time_point since;
    Clock::time_point deadline;
    std::string in;
    std::string out;
    size_t sent = 0;
    size_t requests = 0;
    bool last = false;  // the answer under way closes the connection
};

Connections::Connections(Fd listener, Exchange::Answerer answerer, const ConnectionLimits &limits)
    : m_listener(std::move(listener)),
      m_exchange(std::move(answerer)),
      m_limits(WithinDescriptors(limits)),
      m_stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_stop) {
        throw std::runtime_error(std::string("cannot listen: ") + std::strerror(errno));
    }
    m_thread = std::thread([this] { Loop(); });
}

Connections::~Connections() {
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
}

void Connections::Loop() {
    while (!m_stopped) {
        PollAll();
        const auto now = Clock::now();
        for (Connection &connection : m_connections) {
            if (now >= connection.deadline) {
                connection.state = Connection::State::kGone;
            }
        }
        m_connections.remove_if([](const Connection &connection) { return connection.state == Connection::State::kGone; });
    }
}

int Connections::PollAll() {
    using State = Connection::State;
    std::vector<pollfd> ready{{m_stop.Get(), POLLIN, 0}, {m_full ? -1 : m_listener.Get(), POLLIN, 0}};
    // Deadlines are looked at this often. With no descriptor left a newcomer would wake this thread again at once.
    constexpr int kLookMs = 500;
    constexpr int kFullMs = 100;
    const int patience = m_full ? kFullMs : (m_connections.empty() ? -1 : kLookMs);
    for (const Connection &connection : m_connections) {
        const short events = connection.state == State::kAnswering ? POLLOUT : POLLIN;
        ready.push_back({connection.fd.Get(), events, 0});
    }
    m_full = false;
    const int count = poll(ready.data(), ready.size(), patience);
    if (count <= 0) {
        return count;
    }
    m_stopped = ready[0].revents != 0;
    size_t i = 2;
    for (Connection &connection : m_connections) {
        if (ready[i].revents != 0) {
            Serve(connection, ready[i].revents);
        }
        ++i;
    }
    if (ready[1].revents != 0) {
        Accept();
    }
    return count;
}

void Connections::Accept() {
    for (;;) {
        Fd fd(accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd) {
            m_full = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
            if (m_full) {
                MakeRoom();
            }
            return;
        }
        const int on = 1;
        setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (m_connections.size() >= m_limits.connections) {
            MakeRoom();
        }
        m_connections.emplace_back(std::move(fd));
        m_connections.back().Enter(Connection::State::kReading, m_limits.request);
    }
}

// Closes the one that has been in its state for the longest time. A client that works is done with a request at once.
void Connections::MakeRoom() {
    const auto oldest = std::min_element(m_connections.begin(), m_connections.end(),
                                         [](const Connection &a, const Connection &b) { return a.since < b.since; });
    if (oldest != m_connections.end()) {
        m_connections.erase(oldest);
    }
}

void Connections::Serve(Connection &connection, short events) {
    using State = Connection::State;
    if (connection.state == State::kAnswering) {
        Write(connection);
    } else {
        Read(connection);
    }
    // Requests that came in one go. Each answer is written before the next one is made.
    while (connection.state == State::kReading && TakeRequest(connection)) {
    }
    if ((events & (POLLERR | POLLNVAL)) != 0) {
        connection.state = State::kGone;
    }
}

void Connections::Read(Connection &connection) {
    using State = Connection::State;
    std::array<char, kMostHead> part{};
    const ssize_t got = recv(connection.fd.Get(), part.data(), part.size(), 0);
    if (got <= 0) {
        if (got == 0 || !WouldBlock(errno)) {
            connection.state = State::kGone;
        }
        return;
    }
    if (connection.state == State::kLingering) {
        return;
    }
    if (connection.state == State::kIdle) {
        connection.Enter(State::kReading, m_limits.request);
    }
    connection.in.append(part.data(), static_cast<size_t>(got));
}

// Answers the next one of what has come. False while it is not whole.
bool Connections::TakeRequest(Connection &connection) {
    // Some clients send an empty line behind a request.
    connection.in.erase(0, connection.in.find_first_not_of("\r\n"));
    const auto size = HeadSize(std::string_view(connection.in).substr(0, kMostHead));
    Head head;
    if (size) {
        head = CheckHead(std::string_view(connection.in).substr(0, *size));
    } else if (connection.in.size() < kMostHead) {
        return false;
    } else {
        head.status = connection.in.find('\n') < kMostHead ? 431 : 414;
        head.message = "the request is too long";
    }
    if (head.status == 0) {
        if (connection.in.size() < *size + head.body) {
            return false;
        }
        // No path takes anything from a body.
        connection.in.erase(0, *size + head.body);
    }
    Answer(connection, head);
    return true;
}

void Connections::Answer(Connection &connection, const Head &head) {
    const bool last = ++connection.requests >= Exchange::kMostRequests;
    Exchange::Result result = m_exchange.Answer(head, last);
    connection.out = std::move(result.bytes);
    connection.sent = 0;
    connection.last = result.close;
    connection.Enter(Connection::State::kAnswering, m_limits.answer);
    while (Pending() > m_limits.pending) {
        const auto oldest =
            std::min_element(m_connections.begin(), m_connections.end(), [](const Connection &a, const Connection &b) {
                return std::make_pair(a.out.empty(), a.since) < std::make_pair(b.out.empty(), b.since);
            });
        // It may stand in the middle of the list that is being served: the loop takes it out.
        oldest->out = std::string();
        oldest->state = Connection::State::kGone;
    }
    if (connection.state == Connection::State::kAnswering) {
        Write(connection);
    }
}

size_t Connections::Pending() const {
    size_t bytes = 0;
    for (const Connection &connection : m_connections) {
        bytes += connection.out.size();
    }
    return bytes;
}

void Connections::Write(Connection &connection) {
    using State = Connection::State;
    while (connection.sent < connection.out.size()) {
        const ssize_t sent = send(connection.fd.Get(), connection.out.data() + connection.sent,
                                  connection.out.size() - connection.sent, MSG_NOSIGNAL);
        if (sent < 0) {
            if (!WouldBlock(errno)) {
                connection.state = State::kGone;
            }
            return;
        }
        connection.sent += static_cast<size_t>(sent);
    }
    connection.out = std::string();
    if (connection.last) {
        Linger(connection);
        return;
    }
    connection.Enter(connection.in.empty() ? State::kIdle : State::kReading,
                     connection.in.empty() ? m_limits.idle : m_limits.request);
}

void Connections::Linger(Connection &connection) {
    constexpr std::chrono::seconds kLongest{2};
    shutdown(connection.fd.Get(), SHUT_WR);
    connection.in = std::string();
    connection.Enter(Connection::State::kLingering, kLongest);
}

}  // namespace tool
