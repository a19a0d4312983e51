// What an RTMPS session leaves of its process as it was. Nothing else in this program connects to anybody.
#include "support/Fixture.h"
#include "support/LiveSource.h"
#include "support/Loopback.h"
#include "support/Watchdog.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace unit {

namespace {

std::atomic<int> g_signals{0};

bool BlocksPipeSignal() {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, SIGPIPE) == 1;
}

class RtmpsPipe : public SourceTest {
  protected:
    void SetUp() override {
        struct sigaction count {};
        count.sa_handler = [](int) { ++g_signals; };
        sigaction(SIGPIPE, &count, nullptr);
        Make(ClassOf(SOURCE_TYPE_RTMP));
    }
    bool Open(int port) {
        return ClassOf(SOURCE_TYPE_RTMP).open(*m_source, ("rtmps://127.0.0.1:" + std::to_string(port) + "/a/b").c_str());
    }
    static void ExpectAsBefore() {
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        EXPECT_TRUE(now.sa_handler != SIG_IGN && now.sa_handler != SIG_DFL) << "the host's handler is in force";
        EXPECT_EQ(0, g_signals);
        EXPECT_FALSE(BlocksPipeSignal());
        EXPECT_EQ(0, raise(SIGPIPE));
        EXPECT_EQ(1, g_signals.exchange(0)) << "and is called";
    }

    Watchdog m_watchdog{"the process of an RTMPS source"};
};

}  // namespace

// Threads inherit the mask, and the pool that streaming threads come from is the process's.
TEST_F(RtmpsPipe, PoolOfThreadsIsAsBefore) {
    RegisterLiveSource();
    m_faults.Substitute("rtmpsrc", kLiveSource);
    m_faults.Substitute("flvdemux", "fakesink");
    std::atomic<bool> blocked{false};
    std::atomic<int> reads{0};
    SetReadScript([&](const std::atomic<bool> &) {
        blocked = BlocksPipeSignal();
        ++reads;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return true;
    });
    ASSERT_TRUE(Open(9));
    ASSERT_TRUE(Eventually([&] { return reads > 2; }));
    EXPECT_TRUE(blocked);
    m_source->CloseLiveStream();
    SetReadScript(nullptr);
    ExpectAsBefore();
    // As many as are at rest there, and some more.
    static std::atomic<int> s_blocked;
    static std::atomic<int> s_looked;
    static std::atomic<bool> s_enough;
    const auto look = [](gpointer, gpointer) {
        s_blocked += BlocksPipeSignal() ? 1 : 0;
        ++s_looked;
        EXPECT_TRUE(Eventually([] { return s_enough.load(); }));
    };
    GThreadPool *const pool = g_thread_pool_new(look, nullptr, -1, FALSE, nullptr);
    constexpr int kThreads = 8;
    for (int i = 1; i <= kThreads; ++i) {
        g_thread_pool_push(pool, GINT_TO_POINTER(i), nullptr);
    }
    EXPECT_TRUE(Eventually([] { return s_looked == kThreads; }));
    s_enough = true;
    g_thread_pool_free(pool, FALSE, TRUE);
    EXPECT_EQ(0, s_blocked);
}

TEST_F(RtmpsPipe, NothingOfTheProcessChanges) {
    const int listener = BoundSocket(SOCK_STREAM);
    ASSERT_EQ(0, listen(listener, 16));
    std::atomic<bool> stop{false};
    std::atomic<int> closed{0};
    // Reads the first message of the handshake and closes, with an error or without.
    std::thread server([&] {
        for (int count = 0; !stop; ++count) {
            const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            char bytes[2048];
            static_cast<void>(recv(peer, bytes, sizeof bytes, 0));
            const linger reset{1, 0};
            if (count % 2 == 1) {
                setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            }
            close(peer);
            ++closed;
        }
    });
    ASSERT_TRUE(Open(PortOf(listener)));
    EXPECT_TRUE(Eventually([&] { return closed >= 4; }));
    m_source->CloseLiveStream();
    ExpectAsBefore();
    stop = true;
    shutdown(listener, SHUT_RDWR);
    server.join();
    close(listener);
}

// Left alone, the element waits for as long as it may take to connect, and once more.
TEST_F(RtmpsPipe, ConnectIsEndedByItsSocket) {
    const int listener = BoundSocket(SOCK_STREAM);
    ASSERT_EQ(0, listen(listener, 16));
    ASSERT_TRUE(Open(PortOf(listener)));
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    char byte = 0;
    EXPECT_EQ(1, recv(peer, &byte, 1, 0));
    const auto begin = std::chrono::steady_clock::now();
    m_source->CloseLiveStream();
    EXPECT_GT(std::chrono::seconds(8), std::chrono::steady_clock::now() - begin);
    ExpectAsBefore();
    close(peer);
    close(listener);
}

}  // namespace unit
