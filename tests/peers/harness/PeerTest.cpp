#include "PeerTest.h"

#include <glib.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace peers {
namespace {

size_t Units(double perSecond, Clock::duration span) {
    return static_cast<size_t>(perSecond * std::chrono::duration<double>(span).count());
}

// PCM has no frames of its own: the senders here pass the material's packets on as they are.
double AudioUnitsPerSecond(const Material &material) {
    return material.samplesPerFrame == 0 ? static_cast<double>(material.audioUnits.size()) / 95
                                         : static_cast<double>(material.sampleRate) / material.samplesPerFrame;
}

size_t VideoWanted(const Material &material, Clock::duration span) {
    return material.video == Codec::None ? 0 : Units(static_cast<double>(material.fps), span);
}

size_t AudioWanted(const Material &material, Clock::duration span) {
    return material.audio == Codec::None ? 0 : Units(AudioUnitsPerSecond(material), span);
}

// Criticals end the program, as G_DEBUG asks, but for three that are the framework's own. rtspsrc stopped in
// the midst of its handshake may set a sequence number that it has not got. tsdemux drops an array that a
// damaged ATSC table has not made, and arrays of that kind are used nowhere here. The demultiplexer of HLS
// takes a segment's source down on one thread while another is just bringing it up, when segments are refused
// and the stream is stopped at that moment: the bin and what is in it, by the names that only it gives.
void EndAtCriticals(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer) {
    if ((level & (G_LOG_LEVEL_DEBUG | G_LOG_LEVEL_INFO)) != 0) {
        return;
    }
    std::fprintf(stderr, "%s: %s\n", domain != nullptr ? domain : "", message);
    const auto holds = [message](const char *text) { return std::strstr(message, text) != nullptr; };
    const bool segment = holds(", but it is in READY") &&
                         (holds("Trying to dispose element srcbin-src_") || holds("Trying to dispose element souphttpsrc") ||
                          holds("Trying to dispose element queue"));
    const bool known = segment || holds("g_ptr_array_unref: assertion 'array' failed") ||
                       holds("gst_event_set_seqnum: assertion 'seqnum != GST_SEQNUM_INVALID' failed");
    if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0 && !known) {
        std::abort();
    }
}

#ifdef __SANITIZE_ADDRESS__
// The leak check stops all threads and reads their memory. At the end of the process it meets threads of
// SRT's library that are just being taken down, and does not survive that; here they all rest.
class LeakCheck : public testing::Environment {
  public:
    void TearDown() override { __lsan_do_leak_check(); }
};

const testing::Environment *const g_leakCheck = testing::AddGlobalTestEnvironment(new LeakCheck);
#endif

const GLogFunc g_previousLog = [] {
    g_log_set_always_fatal(G_LOG_LEVEL_ERROR);
    return g_log_set_default_handler(EndAtCriticals, nullptr);
}();

}  // namespace

void PeerTest::TearDown() {
    log.Restore();
    if (HasFailure()) {
        log.Dump();
    }
}

void PeerTest::OpenUdp(Host &host, uint16_t port) {
    ASSERT_TRUE(host.Open(UdpUrl(port), UdpOptions{}));
    ASSERT_TRUE(WaitFor([&] { return UdpBound(port); }));
}

bool PeerTest::WaitMedia(const Host &host, const Material &material, Clock::duration span) {
    return WaitFor([&] {
        // Two more than compared: the joining and the end may each cut one.
        return (material.video == Codec::None || host.CountOfEpoch(SHB_VIDEO) >= VideoWanted(material, span) + 2) &&
               (material.audio == Codec::None || host.CountOfEpoch(SHB_AUDIO) >= AudioWanted(material, span) + 2);
    });
}

void PeerTest::ExpectReconnects(const Host &host, size_t times) const {
    EXPECT_TRUE(log.WaitLine("INFO", host.ReconnectLine(), times));
    EXPECT_TRUE(host.SawState("reconnect"));
}

void PeerTest::ExpectPlays(const Host &host, const Material &material, Clock::duration span) {
    EXPECT_TRUE(WaitMedia(host, material, span))
        << "arrived: " << host.CountOfEpoch(SHB_VIDEO) << " video, " << host.CountOfEpoch(SHB_AUDIO) << " audio";
    ExpectTruth(material, host);
    if (material.video != Codec::None) {
        EXPECT_TRUE(SameVideo(material, host.Frames(SHB_VIDEO), VideoWanted(material, span)));
        EXPECT_TRUE(KeyFramesComplete(material, host.Frames(SHB_VIDEO), VideoWanted(material, span) > 50 ? 2 : 0));
    } else {
        EXPECT_EQ(host.Count(SHB_VIDEO), 0U);
    }
    if (material.audio != Codec::None) {
        EXPECT_TRUE(SameAudio(material, host.Frames(SHB_AUDIO), AudioWanted(material, span)));
    } else {
        EXPECT_EQ(host.Count(SHB_AUDIO), 0U);
    }
}

void PeerTest::ExpectPlaysAfter(uint64_t epoch, const Host &host, const Material &material) {
    EXPECT_TRUE(host.WaitEpochAfter(epoch));
    ExpectPlays(host, material, seconds(2));
}

void PeerTest::ExpectCloses(Host &host, Clock::duration bound) {
    std::atomic<bool> closed{false};
    std::thread closing([&] {
        EXPECT_TRUE(host.Close());
        closed = true;
    });
    const auto ended = [&] { return closed.load(); };
    EXPECT_TRUE(WaitFor(ended, bound)) << "close takes long";
    if (!WaitFor(ended)) {
        // The thread cannot be ended: nothing but the end of this program frees it.
        std::fputs("close hangs\n", stderr);
        std::abort();
    }
    closing.join();
    EXPECT_EQ(host.State(), "stop");
}

void PeerTest::ExpectStallWatchNotices(Host &host) const {
    // What was on its way still arrives.
    ASSERT_TRUE(WaitFor([&] { return host.Silence() > seconds(1); }));
    const size_t before = Reconnects(host);
    EXPECT_TRUE(HoldsFor([&] { return Reconnects(host) == before; }, seconds(3)));
    const size_t errors = log.Count("", "-------------GST_MESSAGE_ERROR");
    host.SetStallWatch(seconds(2));
    ExpectReconnects(host, before + 1);
    EXPECT_GT(log.Count("", "-------------GST_MESSAGE_ERROR"), errors);
}

}  // namespace peers
