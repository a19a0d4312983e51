// Close and destroy from a thread that they would have to wait for: the host's callback, its sink,
// its print handler. They are refused, told, and do no harm; without that, they wait for themselves
// or leave a pipeline behind that nobody can end.
#include "../unit/support/FakeDemux.h"
#include "../unit/support/Fixture.h"
#include "../unit/support/Loopback.h"
#include "../unit/support/Watchdog.h"

#include <atomic>
#include <thread>

namespace unit {

namespace {

// A host whose callback misbehaves.
struct Host {
    void *handle = nullptr;
    bool destroys = false;
    std::atomic<int> result{1};
    std::atomic<int> calls{0};
};

void MisbehavingCallback(void *user, media_code_info_t *) {
    Host &host = *static_cast<Host *>(user);
    if (host.destroys) {
        gst_source_destroy(host.handle);
    } else {
        host.result = gst_source_close_live_stream(host.handle);
    }
    ++host.calls;
}

Lines Refusal(const std::string &function, const std::string &url) {
    return {Raw(function + ": Called from the source's own callback!!!"),
            Err(function +
                ": called on a thread of the source itself (in its callback or a handler of its sink), refused!!! URL=" + url)};
}

class OwnThread : public ClassTest {
  protected:
    void SetUp() override {
        ClassTest::SetUp();
        m_faults.PollFast();
        m_host.handle = m_source.get();
    }

    // What the demultiplexer's streaming thread of a branch does: the video sink reports a stream.
    void ReportOnAnotherThread() {
        std::thread([this] { SourceProbe::UpdateVideo(Source(), "H264", ++m_width, 1080, 25, "progressive", 1); }).join();
    }
    void ExpectRefused(const std::string &function) {
        const Lines lines = Refusal(function, Source().GetURL());
        EXPECT_EQ(1U, m_log.Count(lines[0]));
        EXPECT_EQ(1U, m_log.Count(lines[1]));
    }

    Watchdog m_watchdog{"close or destroy on an own thread"};
    Host m_host;
    int m_width = 1;
};

TEST_P(OwnThread, CloseFromTheCallbackIsRefused) {
    gst_source_set_media_change_callback(m_host.handle, MisbehavingCallback, &m_host);
    OpenPretended(Row());
    ReportOnAnotherThread();
    EXPECT_EQ(1, m_host.calls);
    EXPECT_EQ(-1, m_host.result);
    ExpectRefused("gst_source_close_live_stream");
    // Nothing has happened to the session, and it can still be closed by somebody else.
    EXPECT_EQ(Row().stateAfterPlay, SourceProbe::StateText(Source()));
    EXPECT_TRUE(SourceProbe::Reconnect(Source()));
    EXPECT_EQ(0, gst_source_close_live_stream(m_host.handle));
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
}

TEST_P(OwnThread, DestroyFromTheCallbackIsRefused) {
    gst_source_set_media_change_callback(m_host.handle, MisbehavingCallback, &m_host);
    m_host.destroys = true;
    OpenPretended(Row());
    ReportOnAnotherThread();
    EXPECT_EQ(1, m_host.calls);
    ExpectRefused("gst_source_destroy");
    source_status_t status{};
    EXPECT_EQ(0, gst_source_get_status(m_host.handle, &status));
    EXPECT_STREQ(Row().stateAfterPlay.c_str(), status.state);
}

TEST_P(OwnThread, ClosedAndIdleSourcesRefuseTheirCallbackAsWell) {
    // A report may still be on its way when nothing is open any more: the rule is the same at every time.
    gst_source_set_media_change_callback(m_host.handle, MisbehavingCallback, &m_host);
    ReportOnAnotherThread();
    EXPECT_EQ(-1, m_host.result);
    EXPECT_EQ(0, gst_source_close_live_stream(m_host.handle));
}

TEST_P(OwnThread, CallbackMayCloseAnotherSource) {
    const SourcePtr other(Row().create(&m_buffer, kChannel, kStream));
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(Row().open(*other, Row().url.c_str()));
    m_host.handle = other.get();
    gst_source_set_media_change_callback(m_source.get(), MisbehavingCallback, &m_host);
    OpenPretended(Row());
    ReportOnAnotherThread();
    EXPECT_EQ(0, m_host.result);
    EXPECT_EQ("stop", SourceProbe::StateText(*other));
    EXPECT_EQ(Row().stateAfterPlay, SourceProbe::StateText(Source()));
}

TEST_P(OwnThread, CloseAfterTheCallbackOnTheSameThread) {
    // The thread belongs to the source only as long as the callback runs.
    gst_source_set_media_change_callback(m_host.handle, MisbehavingCallback, &m_host);
    OpenPretended(Row());
    std::thread([this] {
        SourceProbe::UpdateVideo(Source(), "H264", 1920, 1080, 25, "progressive", 1);
        m_host.result = gst_source_close_live_stream(m_host.handle);
    }).join();
    EXPECT_EQ(1, m_host.calls);
    EXPECT_EQ(0, m_host.result);
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
}

// g_print of the bus classification ends in a handler of the host's, on the worker.
Host *g_printingHost = nullptr;

void ClosingPrintHandler(const gchar *text) {
    if (std::string(text) == "-------------GST_MESSAGE_EOS\n" && g_printingHost->calls == 0) {
        ++g_printingHost->calls;
        g_printingHost->result = gst_source_close_live_stream(g_printingHost->handle);
    }
}

TEST_P(OwnThread, CloseOnTheWorkerIsRefused) {
    OpenPretended(Row());
    g_printingHost = &m_host;
    const GPrintFunc usual = g_set_print_handler(ClosingPrintHandler);
    const int plays = m_faults.Plays();
    Post(gst_message_new_eos(nullptr));
    EXPECT_TRUE(Eventually([&] { return m_faults.Plays() > plays; })) << "the session is rebuilt as always";
    g_set_print_handler(usual);
    EXPECT_EQ(-1, m_host.result);
    ExpectRefused("gst_source_close_live_stream");
}

TEST_P(OwnThread, OpenCloseAndDestroyEachOnAThreadOfItsOwn) {
    m_faults.SetPlay(Play::Pretend);
    bool opened = false;
    std::thread([&] { opened = Row().open(Source(), Row().url.c_str()); }).join();
    EXPECT_TRUE(opened);
    int closed = -1;
    std::thread([&] { closed = gst_source_close_live_stream(m_host.handle); }).join();
    EXPECT_EQ(0, closed);
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
    std::thread([&] { opened = Row().open(Source(), Row().url.c_str()); }).join();
    EXPECT_TRUE(opened);
    std::thread([&] { gst_source_destroy(m_source.release()); }).join();
}

// ---- Real streaming threads -------------------------------------------------------------------------------------------------

struct Probe {
    void *handle = nullptr;
    std::atomic<int> calls{0};
    std::atomic<int> result{1};
};

GstPadProbeReturn CloseOnStreamingThread(GstPad *, GstPadProbeInfo *, gpointer user) {
    Probe &probe = *static_cast<Probe *>(user);
    if (probe.calls++ == 0) {
        probe.result = gst_source_close_live_stream(probe.handle);
    }
    return GST_PAD_PROBE_OK;
}

TEST_P(OwnThread, CloseFromTheHostsSinkIsRefused) {
    // The host's own handlers of its sink's signals do not run inside of the library: the thread is known all
    // the same, here the queue's, which is the only one that ever reaches a sink.
    std::atomic<bool> exposed{false};
    ScriptDemuxers(m_faults, [&](GstElement *self, const std::atomic<bool> &) {
        // Said before: the queue's thread gets the first event while the pad is still being exposed.
        exposed = true;
        ExposePad(self, "video_0", Row().videoCaps);
        // The queue's thread pushes this on, and with it what came before.
        GstPad *pad = gst_element_get_static_pad(self, "video_0");
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(pad, gst_event_new_segment(&segment));
        gst_object_unref(pad);
    });
    Probe probe;
    probe.handle = m_source.get();
    m_faults.OnMade("queue", [&](GstElement *queue) {
        GstPad *pad = gst_element_get_static_pad(queue, "src");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, CloseOnStreamingThread, &probe, nullptr);
        gst_object_unref(pad);
    });
    // A session that ends by itself, for want of a peer, only comes again.
    m_faults.SleepReally();
    std::string url = Row().url;
    if (Row().type == SOURCE_TYPE_UDP) {
        url = "udp://127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
    }
    ASSERT_TRUE(Row().open(Source(), url.c_str()));
    EXPECT_TRUE(Eventually([&] { return probe.result != 1; }));
    EXPECT_TRUE(exposed);
    EXPECT_EQ(-1, probe.result);
    ExpectRefused("gst_source_close_live_stream");
    EXPECT_EQ(0, gst_source_close_live_stream(m_source.get()));
    SetDemuxScript(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Classes, OwnThread, testing::ValuesIn(SourceClasses()), ClassName());

// ---- The watchdog itself ----------------------------------------------------------------------------------------------------

TEST(WatchdogDeathTest, ShowsWhereAProgramHangs) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const Watchdog watchdog("the hanging scope", 1);
            std::mutex mutex;
            std::unique_lock<std::mutex> lock(mutex);
            std::condition_variable never;
            never.wait(lock, [] { return false; });
        },
        testing::KilledBySignal(SIGABRT), "hangs: the hanging scope, for more than 1 s(.|\n)*Watch");
}

}  // namespace

}  // namespace unit
