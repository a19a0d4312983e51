// The stop of an RTMPS source: its library frees what its streaming thread may be reading
// from, so that thread has to be out of it first.
#include "support/Fixture.h"
#include "support/LiveSource.h"
#include "support/Loopback.h"
#include "support/Watchdog.h"
#include "workarounds/AbandonedRtmpAttempt.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

namespace unit {

namespace {

class RtmpsStop : public SourceTest {
  protected:
    void SetUp() override {
        RegisterLiveSource();
        m_faults.Substitute("rtmpsrc", kLiveSource);
        m_faults.Substitute("flvdemux", "fakesink");
        Make(ClassOf(SOURCE_TYPE_RTMP));
    }
    void TearDown() override {
        SourceTest::TearDown();
        SetReadScript(nullptr);
    }

    bool Open() { return ClassOf(SOURCE_TYPE_RTMP).open(*m_source, "rtmps://127.0.0.1:9/live/stream"); }

    Watchdog m_watchdog{"stop of an RTMPS source"};
    std::atomic<int> m_reads{0};
};

}  // namespace

TEST_F(RtmpsStop, LiveStreamIsStoppedBetweenTwoReads) {
    SetReadScript([this](const std::atomic<bool> &) {
        ++m_reads;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return true;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads > 5; }));
    m_source->CloseLiveStream();
    EXPECT_FALSE(StoppedAmidRead());
    const int reads = m_reads;
    EXPECT_GT(reads, 5);
}

TEST_F(RtmpsStop, StalledReadIsEndedByItsSocket) {
    const Connection connection;
    ssize_t got = 1;
    SetReadScript([&](const std::atomic<bool> &) {
        ++m_reads;
        char byte = 0;
        got = recv(connection.ends[0], &byte, 1, 0);
        return got > 0;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads == 1; }));
    m_source->CloseLiveStream();
    EXPECT_EQ(0, got);
    EXPECT_FALSE(StoppedAmidRead());
}

TEST_F(RtmpsStop, ReadThatWaitsForNoSocketIsNotWaitedForForEver) {
    SetReadScript([this](const std::atomic<bool> &stop) {
        ++m_reads;
        while (!stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads == 1; }));
    m_source->CloseLiveStream();
    EXPECT_TRUE(StoppedAmidRead()) << "what cannot be ended is left to the element";
}

TEST_F(RtmpsStop, NoSourceIsNoneToWaitFor) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return SourceProbe::State(*m_source) == GST_STATE_PLAYING; }));
    m_source->CloseLiveStream();
    ASSERT_TRUE(row.build(*m_source));
    SourceProbe::State(*m_source) = GST_STATE_PLAYING;
    EXPECT_TRUE(row.stop(*m_source));
    // A link that fails as late as this leaves the state of a broken pipeline.
    SourceProbe::State(*m_source) = 0;
    EXPECT_TRUE(row.stop(*m_source));
    EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(*m_source));
    row.destroy(*m_source);
}

TEST_F(RtmpsStop, BreakingPipeOnTheStreamingThreadIsNoSignal) {
    static std::atomic<int> s_signals;
    s_signals = 0;
    struct sigaction count {};
    struct sigaction before {};
    count.sa_handler = [](int) { ++s_signals; };
    sigaction(SIGPIPE, &count, &before);
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    close(ends[0]);
    std::atomic<ssize_t> written{0};
    SetReadScript([&](const std::atomic<bool> &) {
        written = write(ends[1], "x", 1);
        ++m_reads;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return true;
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Eventually([this] { return m_reads > 2; }));
    m_source->CloseLiveStream();
    EXPECT_EQ(-1, written);
    EXPECT_EQ(0, s_signals);
    close(ends[1]);
    sigaction(SIGPIPE, &before, nullptr);
}

// ---- RTMP -------------------------------------------------------------------------------------------------------------------

namespace {

// A server that takes connections and says nothing.
class RtmpAttempt : public SourceTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, listen(m_listener, 16));
        Make(ClassOf(SOURCE_TYPE_RTMP));
    }
    void TearDown() override {
        SourceTest::TearDown();
        close(m_listener);
    }
    bool Open(const std::string &url) { return ClassOf(SOURCE_TYPE_RTMP).open(*m_source, url.c_str()); }
    std::string Url() const { return "rtmp://127.0.0.1:" + std::to_string(m_port) + "/live/stream"; }
    // The element's next connection, which has sent its first bytes. The caller closes it.
    int Accept() const {
        const int peer = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        char byte = 0;
        EXPECT_EQ(1, recv(peer, &byte, 1, 0));
        return peer;
    }

    Watchdog m_watchdog{"an RTMP connection attempt"};
    const int m_listener = BoundSocket(SOCK_STREAM);
    const int m_port = PortOf(m_listener);
};

bool ThreadIsNamed(const std::string &name) {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::any_of(begin(tasks), end(tasks), [&](const std::filesystem::directory_entry &task) {
        std::ifstream file(task.path() / "comm");
        std::string is;
        return std::getline(file, is) && is == name;
    });
}

}  // namespace

TEST_F(RtmpAttempt, IsOverBeforeTheElementIsReleased) {
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(Open(Url()));
        const int peer = Accept();
        const auto begin = std::chrono::steady_clock::now();
        m_source->CloseLiveStream();
        EXPECT_GT(std::chrono::seconds(5), std::chrono::steady_clock::now() - begin);
        char bytes[2048];
        while (recv(peer, bytes, sizeof bytes, 0) > 0) {
        }
        close(peer);
        ExpectNothingLives();
    }
    EXPECT_EQ(0U, m_log.Count(Warn("[CRtmpSource] A connection attempt does not end, its socket stays open!!! URL=" + Url())));
}

// What is the host's: a connection to the same server, and the
// context that waits for it while nobody runs it.
TEST_F(RtmpAttempt, HostThatConnectsToTheSameServerIsLeftAlone) {
    GMainContext *const context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GSocketClient *const client = g_socket_client_new();
    const auto store = [](GObject *object, GAsyncResult *result, gpointer user) {
        *static_cast<GSocketConnection **>(user) = g_socket_client_connect_finish(G_SOCKET_CLIENT(object), result, nullptr);
    };
    GSocketConnection *connection = nullptr;
    // The sources of rtmp2src are known by then.
    GstElement *kept = nullptr;
    m_faults.OnMade("rtmp2src", [&](GstElement *element) { kept = GST_ELEMENT(gst_object_ref(element)); });
    ASSERT_TRUE(Open(Url()));
    close(Accept());
    g_socket_client_connect_to_host_async(client, "127.0.0.1", static_cast<guint16>(m_port), nullptr, store, &connection);
    bool ran = false;
    GSource *const idle = g_idle_source_new();
    const GSourceFunc run = [](gpointer user) -> gboolean {
        *static_cast<bool *>(user) = true;
        return G_SOURCE_REMOVE;
    };
    g_source_set_callback(idle, run, &ran, nullptr);
    g_source_attach(idle, context);
    g_main_context_pop_thread_default(context);
    // The element does not go, whatever is done for it.
    m_faults.OnMade("rtmp2src", nullptr);
    m_source->CloseLiveStream();
    EXPECT_FALSE(ran) << "the host's context is the host's to run";
    while (connection == nullptr) {
        g_main_context_iteration(context, TRUE);
    }
    EXPECT_EQ(1, send(g_socket_get_fd(g_socket_connection_get_socket(connection)), "x", 1, MSG_NOSIGNAL));
    g_object_unref(connection);
    g_object_unref(client);
    g_source_unref(idle);
    g_main_context_unref(context);
    gst_object_unref(kept);
}

// Without a server in the location there is no connection to wait for: each of these took a second.
TEST_F(RtmpAttempt, NothingUnderWayIsNotWaitedFor) {
    constexpr int kRebuilds = 10;
    for (const char *url : {"rtmp:///app/s", "rtmp://127.0.0.1"}) {
        ASSERT_TRUE(Open(url));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(m_log.WaitFor(Info(std::string("[CRtmpSource] RTMP source reconnect...") + url), kRebuilds));
        EXPECT_GT(std::chrono::seconds(5), std::chrono::steady_clock::now() - begin) << url;
        m_source->CloseLiveStream();
        Make(ClassOf(SOURCE_TYPE_RTMP));
    }
}

TEST_F(RtmpAttempt, ThreadIsKnownByItsName) {
    std::string none = "?";
    EXPECT_NE(nullptr, GSTREAMER::AbandonedRtmpAttempt::Make("fakesrc", "source", none));
    EXPECT_EQ("", none) << "it makes no task";
    m_faults.FailFactory("rtmp2src");
    EXPECT_EQ(nullptr, GSTREAMER::AbandonedRtmpAttempt::Make("rtmp2src", "source", none));
    EXPECT_EQ("", none);
    m_faults.Forgive("rtmp2src");

    // Other threads make tasks as well, now and then.
    std::atomic<bool> enough{false};
    const auto make_tasks = [&] {
        while (!enough) {
            gst_object_unref(gst_task_new([](gpointer) {}, nullptr, nullptr));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    };
    const std::future<void> other = std::async(std::launch::async, make_tasks);
    for (int round = 0; round < 20; ++round) {
        std::string name;
        const GSTREAMER::ElementRef source = GSTREAMER::AbandonedRtmpAttempt::Make("rtmp2src", "source", name);
        EXPECT_NE("", name);
        EXPECT_FALSE(ThreadIsNamed(name));
        g_object_set(source.Get(), "location", Url().c_str(), nullptr);
        gst_element_set_state(source, GST_STATE_PAUSED);
        EXPECT_TRUE(Eventually([&] { return ThreadIsNamed(name); })) << name;
        // One that is stopped before its handshake has begun may stay for good.
        const int peer = Accept();
        gst_element_set_state(source, GST_STATE_NULL);
        close(peer);
    }
    enough = true;
}

TEST_F(SourceTest, RtmpElementThatDoesNotGoIsNotWaitedForForEver) {
    const Watchdog watchdog("close of an RTMP source");
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTMP);
    Make(row);
    GstElement *kept = nullptr;
    m_faults.OnMade("rtmp2src", [&](GstElement *element) { kept = GST_ELEMENT(gst_object_ref(element)); });
    OpenPretended(row);
    m_source->CloseLiveStream();
    EXPECT_EQ(1U,
              m_log.Count(Warn("[CRtmpSource] A connection attempt does not end, its socket stays open!!! URL=" + row.url)));
    EXPECT_EQ("stop", SourceProbe::StateText(*m_source));
    ASSERT_NE(nullptr, kept);
    gst_object_unref(kept);
    m_faults.OnMade("rtmp2src", nullptr);
    OpenPretended(row);
}

}  // namespace unit
