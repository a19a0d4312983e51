// Ending the waits of other threads for their sockets, and nothing else of theirs.
#include "CGstUtils.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/LogCapture.h"

namespace unit {

namespace {

using namespace std::chrono_literals;

sockaddr *General(sockaddr_in &address) {
    return static_cast<sockaddr *>(static_cast<void *>(&address));
}

// Both ends of a connection over loopback.
struct Connection {
    Connection() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(0, bind(listener, General(address), size));
        EXPECT_EQ(0, listen(listener, 1));
        EXPECT_EQ(0, getsockname(listener, General(address), &size));
        ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(ends[0], General(address), size));
        ends[1] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        close(listener);
    }
    ~Connection() {
        close(ends[0]);
        close(ends[1]);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int ends[2] = {-1, -1};
};

// A thread that waits for something until that comes.
class Waiter {
  public:
    explicit Waiter(std::function<void()> wait)
        : m_thread([this, wait = std::move(wait)] {
              m_id = gettid();
              wait();
              m_over = true;
          }) {}
    ~Waiter() { m_thread.join(); }
    Waiter(const Waiter &) = delete;
    Waiter &operator=(const Waiter &) = delete;

    pid_t Id() const {
        EXPECT_TRUE(Eventually([this] { return m_id != 0; }));
        return m_id;
    }
    bool IsOver() const { return m_over; }

  private:
    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

TEST(SocketWait, ReceivingIsEnded) {
    const Connection connection;
    ssize_t got = -1;
    {
        const Waiter waiter([&] {
            char byte = 0;
            got = recv(connection.ends[0], &byte, 1, 0);
        });
        EXPECT_TRUE(Eventually([&] { return GSTREAMER::EndSocketWait(waiter.Id()); }));
        EXPECT_TRUE(Eventually([&] { return waiter.IsOver(); }));
    }
    EXPECT_EQ(0, got) << "the end of the connection";
}

TEST(SocketWait, PollingIsEndedAndWhatWakesTheThreadStaysWhole) {
    const Connection connection;
    int pair[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    pollfd polled[2] = {{pair[0], POLLIN, 0}, {connection.ends[0], POLLIN, 0}};
    {
        const Waiter waiter([&] { poll(polled, 2, -1); });
        EXPECT_TRUE(Eventually([&] { return GSTREAMER::EndSocketWait(waiter.Id()); }));
        EXPECT_TRUE(Eventually([&] { return waiter.IsOver(); }));
    }
    EXPECT_EQ(0, polled[0].revents);
    EXPECT_NE(0, polled[1].revents & POLLIN);
    EXPECT_EQ(1, send(pair[1], "x", 1, MSG_NOSIGNAL));
    close(pair[0]);
    close(pair[1]);
}

TEST(SocketWait, NothingElseIsTouched) {
    int pair[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    ssize_t got = -1;
    {
        const Waiter waiter([&] {
            pollfd polled = {pair[0], POLLIN, 0};
            poll(&polled, 1, -1);
            char byte = 0;
            got = recv(pair[0], &byte, 1, 0);
        });
        const auto end = std::chrono::steady_clock::now() + 200ms;
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_FALSE(GSTREAMER::EndSocketWait(waiter.Id()));
        }
        EXPECT_FALSE(waiter.IsOver());
        EXPECT_EQ(1, send(pair[1], "x", 1, MSG_NOSIGNAL));
    }
    EXPECT_EQ(1, got);
    close(pair[0]);
    close(pair[1]);
    // A thread that there is not.
    EXPECT_FALSE(GSTREAMER::EndSocketWait(0x7FFFFFFF));
}

TEST(StopPatience, HelpsWhatTakesTooLongAndNothingElse) {
    std::atomic<int> helped{0};
    {
        const GSTREAMER::StopPatience patience(60s, [&] { ++helped; });
    }
    EXPECT_EQ(0, helped);
    {
        const GSTREAMER::StopPatience patience(1ms, [&] { ++helped; });
        EXPECT_TRUE(Eventually([&] { return helped > 2; })) << "again and again";
    }
}

}  // namespace

}  // namespace unit
