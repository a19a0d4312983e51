// The same faults with everything real: a transport stream over UDP, the real elements, the framework's own
// streaming threads. The sink alone is a stand-in, which counts what reaches it.
#include "../unit/support/Fixture.h"
#include "../unit/support/Loopback.h"
#include "../unit/support/Watchdog.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace unit {

namespace {

// Sends the stream to a port again and again, somewhat faster than it plays.
class Sender {
  public:
    // Bound, since the kernel may give one that is not the very port that it sends to.
    Sender() : m_socket(BoundSocket(SOCK_DGRAM)), m_port(FreePort(SOCK_DGRAM)), m_thread([this] { Send(); }) {}
    ~Sender() {
        m_stop = true;
        m_thread.join();
        close(m_socket);
    }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;
    int Port() const { return m_port; }

  private:
    void Send() {
        constexpr std::size_t kDatagram = 7 * 188;
        gchar *data = nullptr;
        gsize size = 0;
        g_file_get_contents(std::getenv("FAULTS_STREAM"), &data, &size, nullptr);
        const std::string stream(data, size);
        g_free(data);
        sockaddr_in to = LoopbackAddress(m_port);
        for (std::size_t at = 0; !m_stop; at = at + kDatagram < stream.size() ? at + kDatagram : 0) {
            const std::string part = stream.substr(at, kDatagram);
            static_cast<void>(sendto(m_socket, part.data(), part.size(), 0, General(to), sizeof to));
            std::this_thread::sleep_for(std::chrono::microseconds(500));  // the pace of the stream
        }
    }

    const int m_socket;
    const int m_port;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Buffers that have reached the sinks since the last reset.
struct Reached {
    std::atomic<int> video{0};
    std::atomic<int> audio{0};

    void Reset() {
        video = 0;
        audio = 0;
    }
    bool Both() const { return video > 0 && audio > 0; }
};

GstPadProbeReturn CountBuffer(GstPad *, GstPadProbeInfo *, gpointer counter) {
    ++*static_cast<std::atomic<int> *>(counter);
    return GST_PAD_PROBE_OK;
}

void CountAt(GstElement *sink, Reached &reached) {
    const Uncounted uncounted;
    const bool video = std::string(GST_OBJECT_NAME(sink)) == "h26xshbsink";
    GstPad *pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, CountBuffer, video ? &reached.video : &reached.audio, nullptr);
    gst_object_unref(pad);
}

class UdpTorture : public testing::Test {
  protected:
    // Opens without a demultiplexer latency; what arrives goes through at once.
    static bool Open(CBaseSource &source, int port) {
        const std::string url = "udp://127.0.0.1:" + std::to_string(port);
        return static_cast<Tessaro::CUDPSource &>(source).OpenLiveStream(url.c_str(), 0, 0, 1492);
    }

    // False when both media arrived without the n-th call.
    static bool Run(int n) {
        const Watchdog watchdog("run " + std::to_string(n));
        Reached reached;
        FrameworkCall failed;
        {
            Faults faults;
            LogCapture log;
            faults.PollFast();
            faults.OnMade("shbsink", [&](GstElement *sink) { CountAt(sink, reached); });
            const Sender sender;
            int buffer = 0;
            const SourcePtr source(ClassOf(SOURCE_TYPE_UDP).create(&buffer, kChannel, kStream));
            faults.FailCall(n);
            if (Open(*source, sender.Port())) {
                EXPECT_TRUE(Eventually([&] { return !faults.FailedCall().function.empty() || reached.Both(); }));
            }
            failed = faults.FailedCall();
            const std::string what = "call " + std::to_string(n) + ": " + failed.function + " " + failed.detail;
            SCOPED_TRACE(what);
            // In the midst of what the failure sets off.
            source->CloseLiveStream();
            EXPECT_EQ("stop", SourceProbe::StateText(*source));
            faults.FailCall(0);
            reached.Reset();
            EXPECT_TRUE(Open(*source, sender.Port()));
            EXPECT_TRUE(Eventually([&] { return reached.Both(); }, 30)) << reached.video << " video, " << reached.audio;
            source->CloseLiveStream();
        }
        ExpectNothingLives();
        ForgetLiveObjects();
        return !failed.function.empty();
    }
};

TEST_F(UdpTorture, EachCallFailsInTurnWithDataFlowing) {
    ASSERT_NE(nullptr, std::getenv("FAULTS_STREAM"));
    int failed = 0;
    while (!HasFailure() && Run(failed + 1)) {
        ++failed;
    }
    // The end has to be the end of a run, with both branches built.
    EXPECT_LT(40, failed);
    RecordProperty("failed", failed);
    std::fprintf(stderr, "UDP with data flowing: %d calls failed in turn\n", failed);
}

// The session goes on, or comes again, by itself once the fault is over: what ends it is the next
// change of the stream or the host, never a crash.
TEST_F(UdpTorture, RebuildsAreMetByFaultsAsWell) {
    ASSERT_NE(nullptr, std::getenv("FAULTS_STREAM"));
    for (int n = 1; n <= 24 && !HasFailure(); ++n) {
        const Watchdog watchdog("rebuild " + std::to_string(n));
        Reached reached;
        Faults faults;
        LogCapture log;
        faults.PollFast();
        faults.OnMade("shbsink", [&](GstElement *sink) { CountAt(sink, reached); });
        const Sender sender;
        int buffer = 0;
        const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
        const SourcePtr source(row.create(&buffer, kChannel, kStream));
        ASSERT_TRUE(Open(*source, sender.Port()));
        ASSERT_TRUE(Eventually([&] { return reached.Both(); }, 30));
        faults.FailCall(n);
        PostOn(*source, gst_message_new_eos(nullptr));
        EXPECT_TRUE(Eventually([&] { return !faults.FailedCall().function.empty(); }));
        SCOPED_TRACE("call " + std::to_string(n) + ": " + faults.FailedCall().function + " " + faults.FailedCall().detail);
        faults.FailCall(0);
        // Either the worker has given up, as told, or it plays on.
        const Line exit = Info(row.exitMessage);
        const Line failure = row.BuildFailure(source->GetURL());
        EXPECT_TRUE(Eventually([&] { return log.Count(exit) != 0 || SourceProbe::State(*source) != GST_STATE_NULL; }));
        const std::size_t exits = log.Count(exit);
        EXPECT_LE(exits, log.Count(failure));
        source->CloseLiveStream();
        EXPECT_EQ("stop", SourceProbe::StateText(*source));
    }
}

}  // namespace

}  // namespace unit
