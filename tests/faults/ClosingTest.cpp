// Close and destroy at every moment of a source's life, with the real elements as far as a peer can be had in this process: a
// hang is ended by a watchdog that shows all stacks.
#include "../unit/support/FakeDemux.h"
#include "../unit/support/Fixture.h"
#include "../unit/support/Watchdog.h"
#include "StalledPeer.h"

#include <sys/socket.h>

#include <atomic>
#include <thread>

namespace unit {

namespace {

enum class Way { Close, CloseOnAnotherThread, Destroy, DestroyOnAnotherThread };
const Way kWays[] = {Way::Close, Way::CloseOnAnotherThread, Way::Destroy, Way::DestroyOnAnotherThread};

class Closing : public ClassTest {
  protected:
    void SetUp() override {
        m_faults.SleepReally();
        RegisterFakeDemux();
    }
    void TearDown() override {
        SetDemuxScript(nullptr);
        SourceTest::TearDown();
    }

    std::string UrlOf(int port) const {
        const std::string at = "127.0.0.1:" + std::to_string(port);
        switch (Row().type) {
            case SOURCE_TYPE_RTSP:
                return "rtsp://" + at + "/live";
            case SOURCE_TYPE_RTMP:
                return "rtmp://" + at + "/live/stream";
            case SOURCE_TYPE_SRT:
                return "srt://" + at;
            case SOURCE_TYPE_UDP:
                return "udp://" + at;
            default:
                return "http://" + at + "/live.m3u8";
        }
    }
    void OpenAt(int port) {
        Make(Row());
        const std::string url = UrlOf(port);
        if (Row().type == SOURCE_TYPE_RTSP) {
            // Without a time-out of rtspsrc's that could end anything.
            auto &source = static_cast<Tessaro::CRtspSource &>(Source());
            ASSERT_TRUE(source.OpenLiveStream(url.c_str(), 200, 4, 2000, 0, "", ""));
        } else {
            ASSERT_TRUE(Row().open(Source(), url.c_str()));
        }
    }
    // Ends the source in that way. Whatever it was doing: closed is closed.
    void End(Way way) {
        void *const handle = m_source.get();
        const bool destroys = way == Way::Destroy || way == Way::DestroyOnAnotherThread;
        int closed = -1;
        const auto end = [&] {
            if (destroys) {
                gst_source_destroy(handle);
            } else {
                closed = gst_source_close_live_stream(handle);
            }
        };
        if (destroys) {
            static_cast<void>(m_source.release());
        }
        if (way == Way::CloseOnAnotherThread || way == Way::DestroyOnAnotherThread) {
            std::thread(end).join();
        } else {
            end();
        }
        if (!destroys) {
            EXPECT_EQ(0, closed);
            EXPECT_EQ("stop", SourceProbe::StateText(Source()));
            EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
        }
        m_source.reset();
    }
    // A session whose demultiplexer is played by a script, in front of which the real source element waits for its peer.
    void OpenScripted(const StalledPeer &peer, DemuxScript script) {
        for (const char *factory : {"tsdemux", "flvdemux", "rtspsrc", "hlsdemux"}) {
            m_faults.Substitute(factory, kFakeDemux);
        }
        SetDemuxScript([script = std::move(script)](GstElement *self, const std::atomic<bool> &stop) {
            if (std::string(GST_OBJECT_NAME(self)) == "Hlsdemux") {
                ExposePad(self, "src_0", "video/mpegts");
            } else {
                script(self, stop);
            }
        });
        OpenAt(peer.Port());
    }
    void ExposeVideo(GstElement *demux) const {
        ExposePad(demux, "video_0",
                  Row().depays ? "application/x-rtp, media=(string)video, encoding-name=(string)H264, clock-rate=(int)90000"
                               : "video/x-h264, stream-format=(string)byte-stream");
    }
    void ExposeAudio(GstElement *demux) const {
        ExposePad(demux, "audio_0",
                  Row().depays
                      ? "application/x-rtp, media=(string)audio, encoding-name=(string)MPEG4-GENERIC, clock-rate=(int)48000"
                      : "audio/mpeg, mpegversion=(int)4");
    }
    bool CloseHasBegun() const { return m_log.Count(Info(Row().Tag() + " Close live stream ... URL=" + m_url)) != 0; }

    std::string m_url;
};

// ---- Peers that leave the source in mid-air ---------------------------------------------------------------------------------

struct Moment {
    const char *name;
    Stall stall;
};

TEST_P(Closing, PeersThatStall) {
    const Moment moments[] = {{"nobody listens", Stall::Refusing},
                              {"connecting", Stall::Dropping},
                              {"silent peer", Stall::Silent},
                              {"half a handshake", Stall::HalfAnswer}};
    for (const Moment &moment : moments) {
        const bool silent = moment.stall == Stall::Silent;
        if ((Row().type == SOURCE_TYPE_UDP && !silent) || (Row().type == SOURCE_TYPE_SRT && moment.stall == Stall::Dropping)) {
            continue;  // the same as silence
        }
        for (const Way way : kWays) {
            SCOPED_TRACE(std::string(moment.name) + ", way " + std::to_string(static_cast<int>(way)));
            const Watchdog watchdog(Row().name + ": " + moment.name);
            const StalledPeer peer(Row().type, moment.stall);
            OpenAt(peer.Port());
            ASSERT_TRUE(Eventually([&] { return peer.Reached() && m_faults.Plays() > 0; }));
            End(way);
            m_faults.ForgetPlays();
        }
    }
}

TEST_P(Closing, RightAfterOpen) {
    for (const Stall stall : {Stall::Refusing, Stall::Silent}) {
        for (const Way way : kWays) {
            const Watchdog watchdog(Row().name + ": right after open");
            const StalledPeer peer(Row().type, stall);
            OpenAt(peer.Port());
            End(way);
        }
    }
}

TEST_P(Closing, InTheWaitForTheRebuild) {
    for (const Way way : kWays) {
        const Watchdog watchdog(Row().name + ": in the wait for the rebuild");
        const StalledPeer peer(Row().type, Stall::Silent);
        OpenAt(peer.Port());
        ASSERT_TRUE(Eventually([&] { return m_faults.Plays() > 0; }));
        const std::size_t slept = m_faults.Sleeps().size();
        Post(gst_message_new_eos(nullptr));
        ASSERT_TRUE(Eventually([&] { return m_faults.Sleeps().size() > slept; }));
        End(way);
        // The wait was cut short.
        EXPECT_GT(slept + 30, m_faults.Sleeps().size());
        m_faults.ForgetPlays();
    }
}

// ---- Streaming threads at work ----------------------------------------------------------------------------------------------

TEST_P(Closing, WhilePadsAreBeingAdded) {
    for (const Way way : kWays) {
        const Watchdog watchdog(Row().name + ": while pads are being added");
        const StalledPeer peer(Row().type, Stall::Silent);
        m_url = UrlOf(peer.Port());
        m_log.Take();
        std::atomic<bool> building{false};
        std::atomic<int> built{0};
        // The builder stands still between two elements of the branch until the close is on its way.
        m_faults.OnMade("shbsink", [&](GstElement *) {
            building = true;
            EXPECT_TRUE(Eventually([&] { return CloseHasBegun(); }));
        });
        OpenScripted(peer, [&](GstElement *self, const std::atomic<bool> &) {
            ExposeVideo(self);
            ExposeAudio(self);
            ++built;
        });
        ASSERT_TRUE(Eventually([&] { return building.load(); }));
        End(way);
        EXPECT_LT(0, built) << "the streaming thread has been waited for";
    }
}

TEST_P(Closing, WhileTheCallbackRuns) {
    struct Host {
        std::function<bool()> closeHasBegun;
        std::atomic<bool> inside{false};
        std::atomic<bool> left{false};
    };
    for (const Way way : kWays) {
        const Watchdog watchdog(Row().name + ": while the callback runs");
        const StalledPeer peer(Row().type, Stall::Silent);
        m_url = UrlOf(peer.Port());
        m_log.Take();
        Host host{[this] { return CloseHasBegun(); }, {}, {}};
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
        End(way);
        EXPECT_TRUE(host.left) << "the callback has been waited for";
    }
}

TEST_P(Closing, WhilePlaying) {
    for (const Way way : kWays) {
        const Watchdog watchdog(Row().name + ": while playing");
        const StalledPeer peer(Row().type, Stall::Silent);
        std::atomic<int> reports{0};
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
        End(way);
    }
}

INSTANTIATE_TEST_SUITE_P(Classes, Closing, testing::ValuesIn(SourceClasses()), ClassName());

// ---- A stop that is lost on rtspsrc ------------------------------------------------------------------------------------------

// Holds rtspsrc just before it makes its connection until the stop has given up waiting for it, by what the element says of both.
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

}  // namespace

}  // namespace unit
