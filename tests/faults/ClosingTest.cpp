// Close and destroy at every moment of a source's life, with the real elements as far as a peer can be had in
// this process: a hang is ended by a watchdog that shows all stacks.
#include "../unit/support/FakeDemux.h"
#include "../unit/support/Fixture.h"
#include "../unit/support/Watchdog.h"
#include "HttpServer.h"
#include "StalledPeer.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace unit {

namespace {

enum class Way { Close, CloseOnAnotherThread, Destroy, DestroyOnAnotherThread };
const Way kWays[] = {Way::Close, Way::CloseOnAnotherThread, Way::Destroy, Way::DestroyOnAnotherThread};

class Closing : public ClassTest {
  protected:
    void SetUp() override { m_faults.SleepReally(); }
    void TearDown() override {
        SetDemuxScript(nullptr);
        SourceTest::TearDown();
    }

    void OpenAt(CBaseSource &source, int port) const {
        const std::string url = Row().UrlAt(port);
        if (Row().type == SOURCE_TYPE_RTSP) {
            // Without a time-out of rtspsrc's that could end anything.
            EXPECT_TRUE(static_cast<Tessaro::CRtspSource &>(source).OpenLiveStream(url.c_str(), 200, 4, 2000, 0, "", ""));
        } else {
            EXPECT_TRUE(Row().open(source, url.c_str()));
        }
    }
    // Ends the source in that way. Whatever it was doing: closed is closed.
    static void End(SourcePtr source, Way way) {
        const bool destroys = way == Way::Destroy || way == Way::DestroyOnAnotherThread;
        void *const handle = destroys ? source.release() : source.get();
        int closed = -1;
        const auto end = [&] {
            if (destroys) {
                gst_source_destroy(handle);
            } else {
                closed = gst_source_close_live_stream(handle);
            }
        };
        if (way == Way::CloseOnAnotherThread || way == Way::DestroyOnAnotherThread) {
            std::thread(end).join();
        } else {
            end();
        }
        if (!destroys) {
            EXPECT_EQ(0, closed);
            EXPECT_EQ("stop", SourceProbe::StateText(*source));
            EXPECT_EQ(nullptr, SourceProbe::Pipeline(*source));
        }
    }
    // Opens a source at such a peer and ends it once `await` is back: in all ways
    // side by side, each on a thread that is its host.
    void EndInEachWay(const char *moment, Stall stall, const std::function<void(const StalledPeer &, CBaseSource &)> &await) {
        const Watchdog watchdog(Row().name + ": " + moment);
        std::vector<std::thread> hosts;
        for (const Way way : kWays) {
            hosts.emplace_back([&, way] {
                SCOPED_TRACE(std::string(moment) + ", way " + std::to_string(static_cast<int>(way)));
                const StalledPeer peer(Row().type, stall);
                SourcePtr source(Row().create(&m_buffer, kChannel, kStream));
                OpenAt(*source, peer.Port());
                await(peer, *source);
                End(std::move(source), way);
            });
        }
        for (std::thread &host : hosts) {
            host.join();
        }
    }
    // The same one after the other, with a peer that says nothing; `begin` opens the test's source.
    void EndInTurn(const char *moment, const std::function<void(const StalledPeer &)> &begin,
                   const std::function<void()> &after) {
        for (const Way way : kWays) {
            const Watchdog watchdog(Row().name + ": " + moment);
            const StalledPeer peer(Row().type, Stall::Silent);
            m_url = Row().UrlAt(peer.Port());
            m_log.Take();
            Make(Row());
            begin(peer);
            End(std::move(m_source), way);
            after();
        }
    }
    // A session whose demultiplexer is played by a script, in front of
    // which the real source element waits for its peer.
    void OpenScripted(const StalledPeer &peer, DemuxScript script) {
        ScriptDemuxers(m_faults, std::move(script));
        OpenAt(Source(), peer.Port());
    }
    void ExposeVideo(GstElement *demux) const { ExposePad(demux, "video_0", Row().videoCaps); }
    void ExposeAudio(GstElement *demux) const { ExposePad(demux, "audio_0", Row().audioCaps); }
    // A pipeline has been told to play, or to wait for its rebuild.
    static bool HasPlayed(CBaseSource &source) {
        const std::string state = SourceProbe::StateText(source);
        return !state.empty() && state != "start";
    }
    bool CloseHasBegun() const { return m_log.Count(Info(Row().Tag() + " Close live stream ... URL=" + m_url)) != 0; }

    std::string m_url;
};

// ---- Peers that leave the source in mid-air ---------------------------------------------------------------------------------

TEST_P(Closing, PeersThatStall) {
    const struct {
        const char *name;
        Stall stall;
    } moments[] = {{"nobody listens", Stall::Refusing},
                   {"connecting", Stall::Dropping},
                   {"silent peer", Stall::Silent},
                   {"half a handshake", Stall::HalfAnswer}};
    for (const auto &moment : moments) {
        const bool silent = moment.stall == Stall::Silent;
        if ((Row().type == SOURCE_TYPE_UDP && !silent) || (Row().type == SOURCE_TYPE_SRT && moment.stall == Stall::Dropping)) {
            continue;  // the same as silence
        }
        EndInEachWay(moment.name, moment.stall, [](const StalledPeer &peer, CBaseSource &source) {
            EXPECT_TRUE(Eventually([&] { return peer.Reached() && HasPlayed(source); }));
        });
    }
}

TEST_P(Closing, RightAfterOpen) {
    for (const Stall stall : {Stall::Refusing, Stall::Silent}) {
        EndInEachWay("right after open", stall, [](const StalledPeer &, CBaseSource &) {});
    }
}

TEST_P(Closing, InTheWaitForTheRebuild) {
    std::size_t slept = 0;
    const auto begin = [&](const StalledPeer &peer) {
        OpenAt(Source(), peer.Port());
        ASSERT_TRUE(Eventually([&] { return HasPlayed(Source()); }));
        slept = m_faults.Sleeps().size();
        Post(gst_message_new_eos(nullptr));
        ASSERT_TRUE(Eventually([&] { return m_faults.Sleeps().size() > slept; }));
    };
    EndInTurn("in the wait for the rebuild", begin, [&] { EXPECT_GT(slept + 30, m_faults.Sleeps().size()) << "cut short"; });
}

// ---- Streaming threads at work ----------------------------------------------------------------------------------------------

TEST_P(Closing, WhilePadsAreBeingAdded) {
    std::atomic<bool> building{false};
    std::atomic<int> built{0};
    // The builder stands still between two elements of the branch until the close is on its way.
    m_faults.OnMade("shbsink", [&](GstElement *) {
        building = true;
        EXPECT_TRUE(Eventually([&] { return CloseHasBegun(); }));
    });
    const auto begin = [&](const StalledPeer &peer) {
        building = false;
        built = 0;
        OpenScripted(peer, [&](GstElement *self, const std::atomic<bool> &) {
            ExposeVideo(self);
            ExposeAudio(self);
            ++built;
        });
        ASSERT_TRUE(Eventually([&] { return building.load(); }));
    };
    EndInTurn("while pads are being added", begin, [&] { EXPECT_LT(0, built) << "the streaming thread has been waited for"; });
}

TEST_P(Closing, WhileTheCallbackRuns) {
    struct Host {
        std::function<bool()> closeHasBegun;
        std::atomic<bool> inside{false};
        std::atomic<bool> left{false};
    } host{[this] { return CloseHasBegun(); }, {}, {}};
    const auto begin = [&](const StalledPeer &peer) {
        host.inside = false;
        host.left = false;
        OpenScripted(peer, [&](GstElement *self, const std::atomic<bool> &) {
            ExposeVideo(self);
            gst_source_set_media_change_callback(
                m_source.get(),
                [](void *user, media_code_info_t *) {
                    Host &called = *static_cast<Host *>(user);
                    called.inside = true;
                    EXPECT_TRUE(Eventually([&] { return called.closeHasBegun(); }));
                    called.left = true;
                },
                &host);
            GstElement *sink = Sibling(self, "h26xshbsink");
            EmitVideoChanged(sink, {});
            gst_object_unref(sink);
        });
        ASSERT_TRUE(Eventually([&] { return host.inside.load(); }));
    };
    EndInTurn("while the callback runs", begin, [&] { EXPECT_TRUE(host.left) << "the callback has been waited for"; });
}

TEST_P(Closing, WhilePlaying) {
    std::atomic<int> reports{0};
    const auto begin = [&](const StalledPeer &peer) {
        reports = 0;
        OpenScripted(peer, [&](GstElement *self, const std::atomic<bool> &stop) {
            ExposeVideo(self);
            ExposeAudio(self);
            GstElement *video = Sibling(self, "h26xshbsink");
            GstElement *audio = Sibling(self, "audioshbsink");
            for (guint i = 1; !stop; ++i) {
                EmitVideoChanged(video, {"H264", "progressive", 640 + static_cast<int>(i % 2), 360, 25, 1, 1});
                EmitAudioChanged(audio, {});
                EmitBitrate(video, i);
                EmitFps(audio, i);
                ++reports;
                std::this_thread::yield();
            }
            gst_object_unref(video);
            gst_object_unref(audio);
        });
        ASSERT_TRUE(Eventually([&] { return reports > 10; }));
        EXPECT_EQ("connected", SourceProbe::StateText(Source()));
    };
    EndInTurn("while playing", begin, [] {});
}

INSTANTIATE_TEST_SUITE_P(Classes, Closing, testing::ValuesIn(SourceClasses()), ClassName());

// ---- A stop that is lost on rtspsrc ------------------------------------------------------------------------------------------

// Holds rtspsrc just before it makes its connection until the stop has given up
// waiting for it, by what the element says of both.
class BeforeConnection {
  public:
    BeforeConnection() {
        // Without the macro, which compares the function to a data pointer.
        (gst_debug_add_log_function)(OnDebug, this, nullptr);
        gst_debug_set_threshold_for_name("rtspsrc", GST_LEVEL_DEBUG);
        gst_debug_set_active(TRUE);
    }
    ~BeforeConnection() {
        gst_debug_set_active(m_active);
        gst_debug_unset_threshold_for_name("rtspsrc");
        gst_debug_remove_log_function_by_data(this);
    }
    BeforeConnection(const BeforeConnection &) = delete;
    BeforeConnection &operator=(const BeforeConnection &) = delete;
    bool Held() const { return m_held; }
    bool Missed() const { return m_missed; }

  private:
    static void OnDebug(GstDebugCategory *, GstDebugLevel, const gchar *, const gchar *, gint, GObject *,
                        GstDebugMessage *message, gpointer user) {
        auto *self = static_cast<BeforeConnection *>(user);
        const std::string text = gst_debug_message_get(message);
        if (text.find("creating connection") == 0) {
            self->m_held = true;
            EXPECT_TRUE(Eventually([self] { return self->Missed(); }));
        } else if (text.find("Timed out waiting for TEARDOWN") == 0) {
            self->m_missed = true;
        }
    }

    const gboolean m_active = gst_debug_is_active();
    std::atomic<bool> m_held{false};
    std::atomic<bool> m_missed{false};
};

TEST(ClosingRtsp, JustBeforeTheConnectionIsMade) {
    for (const bool destroys : {false, true}) {
        const Watchdog watchdog("CRtspSource: just before the connection is made");
        Faults faults;
        faults.SleepReally();
        const LogCapture log;
        const StalledPeer peer(SOURCE_TYPE_RTSP, Stall::Silent);
        int buffer = 0;
        void *const handle = gst_source_create(SOURCE_TYPE_RTSP, &buffer, kChannel, kStream);
        ASSERT_NE(nullptr, handle);
        const std::string url = "rtsp://127.0.0.1:" + std::to_string(peer.Port()) + "/live";
        {
            const BeforeConnection moment;
            ASSERT_EQ(0, gst_rtsp_source_open_live_stream(handle, url.c_str(), 200, 4, 2000, 0, "", ""));
            EXPECT_TRUE(Eventually([&] { return moment.Held(); }));
            if (!destroys) {
                EXPECT_EQ(0, gst_source_close_live_stream(handle));
            }
            gst_source_destroy(handle);
            EXPECT_TRUE(moment.Missed());
        }
        EXPECT_TRUE(Eventually([] { return LiveObjects().empty(); })) << testing::PrintToString(LiveObjects());
    }
}

// ---- HLS: requests that meet a stop -----------------------------------------------------------------------------------------

// For moments that are shorter than a sleep.
void Pass(std::chrono::microseconds span) {
    for (const auto begun = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() - begun < span;) {
    }
}

class ClosingHls : public testing::Test {
  protected:
    ClosingHls() {
        m_faults.PollFast();
        m_faults.SleepReally();
    }
    // Opens a source there, and closes it once `await` is back.
    void OpenAndClose(const std::string &url, const std::function<void()> &await) {
        const Watchdog watchdog("CHLSSource: a request meets its stop");
        const LogCapture log;
        void *const handle = gst_source_create(SOURCE_TYPE_HLS, &m_buffer, kChannel, kStream);
        ASSERT_NE(nullptr, handle);
        ASSERT_EQ(0, gst_hls_source_open_live_stream(handle, url.c_str(), 200, 0, 15, 3, "", "", "", "", "", ""));
        await();
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        gst_source_destroy(handle);
    }

    Faults m_faults;
    int m_buffer = 0;
};

// hlsdemux requests it outside of any bin. An answer within 20 microseconds of a stop ended the process.
TEST_F(ClosingHls, JustWhenAVariantIsAnswered) {
    constexpr int kRounds = 250;
    constexpr int kMoments = 5;
    constexpr std::chrono::microseconds kStep(5);
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<bool> asked{false};
        std::atomic<bool> stopping{false};
        m_faults.OnStop([&] { stopping = true; });
        const HttpServer server([&](const std::string &path) -> std::string {
            if (path == "/master.m3u8") {
                return "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=100000\nvariant.m3u8\n";
            }
            asked = true;
            while (!stopping) {
                std::this_thread::yield();  // a wait that sleeps would miss the moment
            }
            Pass(kStep * (round % kMoments));
            return "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nsegment.ts\n";
        });
        OpenAndClose(server.Url("/master.m3u8"), [&] { EXPECT_TRUE(Eventually([&] { return asked.load(); })); });
        m_faults.OnStop(nullptr);
    }
}

// A request that began behind the look at those that are waiting used to end the process as well.
TEST_F(ClosingHls, WhileSegmentFollowsSegment) {
    constexpr int kRounds = 250;
    constexpr int kStep = 137;   // microseconds
    constexpr int kSpan = 5000;  // some segments
    constexpr int kSegments = 3000;
    constexpr std::size_t kPacket = 188;
    std::string playlist = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n";
    for (int segment = 0; segment < kSegments; ++segment) {
        playlist += "#EXTINF:1,\n" + std::to_string(segment) + ".ts\n";
    }
    playlist += "#EXT-X-ENDLIST\n";
    // Packets without contents: nothing holds up the next segment.
    const std::string packet = std::string("G\x1f\xff\x10") + std::string(kPacket - 4, '\xff');
    std::string segment;
    for (int i = 0; i < 30; ++i) {
        segment += packet;
    }
    for (int round = 0; round < kRounds; ++round) {
        const HttpServer server([&](const std::string &path) { return path == "/live.m3u8" ? playlist : segment; });
        OpenAndClose(server.Url("/live.m3u8"), [&] {
            EXPECT_TRUE(Eventually([&] { return server.Asked() > 3; }));
            Pass(std::chrono::microseconds(kStep * round % kSpan));
        });
    }
}

}  // namespace

}  // namespace unit
