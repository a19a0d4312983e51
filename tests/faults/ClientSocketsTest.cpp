// The sockets that are ended to help a stop: those of the source's own element, and never one of the host.
#include "../unit/support/Fixture.h"
#include "../unit/support/Loopback.h"
#include "../unit/support/Watchdog.h"
#include "StalledPeer.h"
#include "workarounds/ClientSockets.h"
#include "workarounds/HammeringSrtCaller.h"
#include "workarounds/StalledRtspRequest.h"

#include <gio/gio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace unit {

namespace {

using GSTREAMER::ClientSockets;

// A connection as GIO's client makes it, and the peer's end of it.
class ClientConnection {
  public:
    ClientConnection() {
        const int listener = BoundSocket(SOCK_STREAM);
        EXPECT_EQ(0, listen(listener, 1));
        GSocketClient *const client = g_socket_client_new();
        m_connection =
            g_socket_client_connect_to_host(client, "127.0.0.1", static_cast<guint16>(PortOf(listener)), nullptr, nullptr);
        EXPECT_NE(nullptr, m_connection);
        m_peer = accept(listener, nullptr, nullptr);
        g_object_unref(client);
        close(listener);
    }
    ~ClientConnection() {
        g_clear_object(&m_connection);
        close(m_peer);
    }
    ClientConnection(const ClientConnection &) = delete;
    ClientConnection &operator=(const ClientConnection &) = delete;

    // The peer would see the end of the stream.
    bool IsEnded() const {
        char byte = 0;
        return recv(m_peer, &byte, 1, MSG_DONTWAIT) == 0;
    }

  private:
    GSocketConnection *m_connection = nullptr;
    int m_peer = -1;
};

// A pipeline with a source element that says what a test lets it say.
class Announcing : public testing::Test {
  protected:
    Announcing() {
        gst_object_ref_sink(m_pipeline);
        gst_bin_add(GST_BIN(m_pipeline), m_source);
    }
    ~Announcing() override {
        // What nobody has read holds its element.
        GstBus *const bus = gst_element_get_bus(m_pipeline);
        gst_bus_set_flushing(bus, TRUE);
        gst_object_unref(bus);
        gst_object_unref(m_pipeline);
        ExpectNothingLives();
    }

    void Progress(GstProgressType type) const {
        gst_element_post_message(m_source, gst_message_new_progress(GST_OBJECT(m_source), type, "open", "a text"));
    }
    void Warn(GstElement *element) const {
        gst_element_post_message(element, gst_message_new_warning(GST_OBJECT(element), nullptr, "refused"));
    }

    Watchdog m_watchdog{"sockets of a client"};
    GstElement *const m_pipeline = gst_pipeline_new("pipeline");
    GstElement *const m_source = gst_element_factory_make("fakesrc", "source");
};

}  // namespace

TEST(ClientSockets, OwnOnesAreEndedAndNoOthers) {
    const Watchdog watchdog("own sockets and others");
    bool own = false;
    ClientSockets sockets([&] { return own; });
    EXPECT_EQ(ClientSockets::Stage::None, sockets.LastStage());
    const ClientConnection before;
    EXPECT_EQ(ClientSockets::Stage::None, sockets.LastStage());
    own = true;
    const ClientConnection first;
    const auto gone = std::make_unique<ClientConnection>();
    const ClientConnection second;
    EXPECT_EQ(ClientSockets::Stage::Ended, sockets.LastStage());
    own = false;
    const ClientConnection after;
    sockets.Shutdown();
    sockets.Shutdown();
    EXPECT_TRUE(first.IsEnded());
    EXPECT_TRUE(second.IsEnded());
    EXPECT_FALSE(before.IsEnded());
    EXPECT_FALSE(after.IsEnded());
}

TEST(ClientSockets, ConnectingOneIsEnded) {
    const Watchdog watchdog("a socket that is being connected");
    const StalledPeer peer(SOURCE_TYPE_RTSP, Stall::Dropping);
    ClientSockets sockets([] { return true; });
    const auto connected = std::async(std::launch::async, [&] {
        GSocketClient *const client = g_socket_client_new();
        GSocketConnection *connection =
            g_socket_client_connect_to_host(client, "127.0.0.1", static_cast<guint16>(peer.Port()), nullptr, nullptr);
        const bool made = connection != nullptr;
        g_clear_object(&connection);
        g_object_unref(client);
        return made;
    });
    EXPECT_TRUE(Eventually([&] { return peer.Reached(); }));
    EXPECT_EQ(ClientSockets::Stage::Connecting, sockets.LastStage());
    EXPECT_TRUE(Eventually([&] {
        sockets.Shutdown();
        return connected.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
    }));
}

// GLib lends the thread that served rtspsrc to the host afterwards.
TEST_F(Announcing, ThreadThatHasServedRtspsrcIsTheHostsAgain) {
    GSTREAMER::StalledRtspRequest workaround(m_source);
    workaround.Attach(m_pipeline);
    const ClientConnection before;
    Progress(GST_PROGRESS_TYPE_START);
    const ClientConnection opened;
    Progress(GST_PROGRESS_TYPE_CONTINUE);
    const ClientConnection redirected;
    Progress(GST_PROGRESS_TYPE_COMPLETE);
    const ClientConnection after;
    workaround.BeforeStop();
    EXPECT_TRUE(Eventually([&] { return opened.IsEnded() && redirected.IsEnded(); }));
    workaround.AfterStop();
    EXPECT_FALSE(before.IsEnded());
    EXPECT_FALSE(after.IsEnded());
}

TEST_F(Announcing, RefusedCallerWaitsUntilTheStopAtMost) {
    GSTREAMER::HammeringSrtCaller workaround(m_source);
    workaround.Attach(m_pipeline);
    std::atomic<int> asked{0};
    std::thread streaming([&] {
        for (int refusal = 0; refusal < 20; ++refusal) {
            Warn(m_source);
            ++asked;
        }
    });
    // Nothing before the second, 0.1 s before it, 0.2 s before the third, ...
    EXPECT_TRUE(Eventually([&] { return asked >= 3; }));
    EXPECT_GT(20, asked);
    // Without an end of the waits the others would take 16 s.
    const auto begin = std::chrono::steady_clock::now();
    workaround.BeforeStop();
    streaming.join();
    EXPECT_EQ(20, asked);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    // Others may warn as often as they like.
    Warn(m_pipeline);
}

}  // namespace unit
