// The life of a source from open to destroy: the five classes against one table.
#include "support/FewDescriptors.h"
#include "support/Fixture.h"
#include "support/Loopback.h"
#include "support/Records.h"

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace unit {

namespace {

// Names of the process's threads.
std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    DIR *directory = opendir("/proc/self/task");
    if (directory == nullptr) {
        return names;
    }
    while (const dirent *entry = readdir(directory)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name)) {
            names.push_back(name);
        }
    }
    closedir(directory);
    return names;
}

bool HasThread(const std::string &name) {
    const std::vector<std::string> names = ThreadNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

GstMessage *ErrorMessage() {
    GError *error = g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "test");
    GstMessage *message = gst_message_new_error(nullptr, error, nullptr);
    g_error_free(error);
    return message;
}

// What brings a session to its end, and what the classification says to it.
struct SessionEnd {
    const char *name;
    GstMessage *(*message)();
    const char *reason;
    Line line;
};

Line Reason(const std::string &reason, const std::string &url) {
    return Err("[GSTREAMER] Error from \"pipeline\": " + reason + ". URL=" + url);
}
const char kEndReason[] = "The stream has ended before any media came (end)";

const SessionEnd kSessionEnds[] = {
    {"end of stream", [] { return gst_message_new_eos(nullptr); }, "The stream has ended (end)",
     Raw("-------------GST_MESSAGE_EOS")},
    {"error", ErrorMessage, "test", Raw("-------------GST_MESSAGE_ERROR")},
    {"UDP time-out", [] { return gst_message_new_element(nullptr, gst_structure_new_empty("GstUDPSrcTimeout")); },
     "No data came (timeout)", Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :GstUDPSrcTimeout;")},
    {"RTSP time-out", [] { return gst_message_new_element(nullptr, gst_structure_new_empty("GstRTSPSrcTimeout")); },
     "No data came (timeout)", Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :GstRTSPSrcTimeout;")},
};

const std::vector<std::string> kNothing;

class Lifecycle : public ClassTest {
  protected:
    Line BusFailure() const { return Err(Row().Tag() + " DoBusMessage--------------error!! URL=" + Url()); }

    Line TooFewDescriptors() const {
        return Err("[CBaseSource] Too few file descriptors are left for a pipeline!!! needed=32, URL=" + Url());
    }

    // Waits for that many rebuilds and until the last one polls its bus.
    bool WaitForSessions(std::size_t rebuilds) {
        if (!m_log.WaitFor(Info(Row().reconnectMessage + Url()), rebuilds)) {
            return false;
        }
        const std::size_t before = m_faults.Polls().size();
        return Eventually(
            [&] { return SourceProbe::StateText(Source()) == Row().stateAfterPlay && m_faults.Polls().size() > before; });
    }

    void SetEncodings() {
        SourceProbe::VideoEncode(Source()).Set("H264");
        SourceProbe::AudioEncode(Source()).Set("AAC");
        if (IsHls()) {
            SourceProbe::HlsMediaType(Source()).Set("video/mpegts");
        }
    }
    void ExpectEncodings(const std::string &video, const std::string &audio) {
        EXPECT_EQ(video, SourceProbe::VideoEncode(Source()).Get());
        EXPECT_EQ(audio, SourceProbe::AudioEncode(Source()).Get());
    }
    void ExpectNoPipeline() {
        EXPECT_FALSE(SourceProbe::Joinable(Source()));
        EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
        EXPECT_EQ(nullptr, SourceProbe::Bus(Source()));
        EXPECT_FALSE(SourceProbe::ElementsCreated(Source()));
        EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
    }
    // The source is open already, for all that it knows.
    void ExpectAlreadyLive(const std::string &location) {
        m_log.Take();
        EXPECT_FALSE(Row().open(Source(), location.c_str()));
        EXPECT_EQ(Lines{Row().AlreadyLive(location)}, m_log.Take());
    }
    Lines OpenLines() const { return {Info(Row().OpenLine(Url()))}; }
    // In a wait of the worker's: holds it in the one of that number until a close is on its way.
    void HoldUntilClosed(int number, int held) {
        EXPECT_TRUE(number != held || Eventually([&] { return SourceProbe::Exit(Source()).load(); }));
    }
    bool AwaitSleeps(std::size_t count) {
        return Eventually([&] { return m_faults.Sleeps().size() == count; });
    }

    // A full set of reports, so that clearing shows.
    void Report() {
        ReportVideo(Source(), {"H264", "progressive", 640, 360, 25, 1, 2});
        ReportAudio(Source(), {"AAC", 44100, 1, 1024, 5});
        CBaseSource::shbsink_video_bitrate_handler(AnySink(), 1000, &Source());
        CBaseSource::shbsink_audio_bitrate_handler(AnySink(), 2000, &Source());
        CBaseSource::shbsink_video_fps_handler(AnySink(), 24, &Source());
    }

    bool MediaInfoIsClear() {
        media_code_info_t video{};
        media_code_info_t audio{};
        Source().GetMediaInfo(&video, &audio);
        return video.code[0] == '\0' && video.params.video.width == 0 && audio.code[0] == '\0' && audio.type == 1;
    }

    // What the worker leaves behind in the first wait from now on.
    struct DuringWait {
        source_status_t status{};
        int state = -1;
        bool clear = false;
    };
    void WatchWait(DuringWait &seen) {
        m_faults.OnSleep([this, &seen, first = static_cast<int>(m_faults.Sleeps().size()) + 1](int number) {
            if (number == first) {
                seen.status = SourceProbe::Status(Source());
                seen.state = SourceProbe::State(Source());
                seen.clear = MediaInfoIsClear();
            }
        });
    }
};

}  // namespace

// ---- Open -------------------------------------------------------------------------------------------------------------------

TEST_P(Lifecycle, OpenRefusesNullLocation) {
    EXPECT_FALSE(Row().open(Source(), nullptr));
    EXPECT_EQ(Lines{Row().BadArguments("")}, m_log.Take());
    Open();
    Source().CloseLiveStream();
    m_log.Take();
    EXPECT_FALSE(Row().open(Source(), nullptr));
    EXPECT_EQ(Lines{Row().BadArguments(Url())}, m_log.Take());
    EXPECT_EQ(Url(), Source().GetURL());
    EXPECT_FALSE(SourceProbe::Joinable(Source()));
}

TEST_P(Lifecycle, OpenRefusesMissingShareBuffer) {
    m_source.reset(Row().create(nullptr, 0, 0));
    m_log.Take();
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_EQ(Lines{Row().BadArguments("")}, m_log.Take());
    EXPECT_EQ("", Source().GetURL());
    EXPECT_EQ(nullptr, SourceProbe::Pipeline(Source()));
}

TEST_P(Lifecycle, OpenPlayClose) {
    Open();
    ASSERT_TRUE(Eventually([&] { return m_faults.Polls().size() >= 2; }));
    EXPECT_EQ(OpenLines() + Row().BuildLines(Url()) + Row().StartLines(), m_log.Take());
    for (const GstClockTime poll : m_faults.Polls()) {
        EXPECT_EQ(100 * GST_MSECOND, poll);
    }
    EXPECT_STREQ("live", SourceProbe::Status(Source()).source_mode);
    EXPECT_EQ(GST_STATE_PLAYING, SourceProbe::State(Source()));
    EXPECT_TRUE(SourceProbe::Joinable(Source()));
    EXPECT_TRUE(HasThread(Row().name));
    EXPECT_TRUE(SourceProbe::ElementsCreated(Source()));

    Report();
    EXPECT_STREQ("connected", SourceProbe::Status(Source()).state);
    m_log.Take();
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ(Row().CloseLines(Url(), {Info(Row().exitMessage)}), m_log.Take());
    EXPECT_FALSE(HasThread(Row().name));
    ExpectNoPipeline();
    EXPECT_FALSE(SourceProbe::Reconnect(Source()));
    EXPECT_TRUE(SourceProbe::Exit(Source()));
    ExpectEncodings("", "");

    // Rates and codes are gone; the rest of the status and the records keep what was seen last.
    EXPECT_EQ("live stop:  640x360 25 fps, 24 real, 0 bit/s;  44100 Hz, 1 channels, 0 real, 0 bit/s",
              Describe(SourceProbe::Status(Source())));
    EXPECT_FALSE(MediaInfoIsClear());
    EXPECT_EQ(kNothing, LiveObjects());
    EXPECT_TRUE(m_faults.Sleeps().empty());
}

TEST_P(Lifecycle, SecondOpenIsRefused) {
    Open();
    GstElement *const pipeline = SourceProbe::Pipeline(Source());
    ExpectAlreadyLive("other://location");
    EXPECT_EQ(Url(), Source().GetURL());
    EXPECT_EQ(pipeline, SourceProbe::Pipeline(Source()));
}

TEST_P(Lifecycle, OpenIsRefusedByTheStateAlone) {
    SourceProbe::State(Source()) = GST_STATE_PLAYING;
    ExpectAlreadyLive(Url());
    EXPECT_EQ("", Source().GetURL());
    SourceProbe::State(Source()) = GST_STATE_NULL;
}

TEST_P(Lifecycle, OpenUsesElementsThatStandAlready) {
    Build();
    GstElement *const pipeline = SourceProbe::Pipeline(Source());
    m_log.Take();
    Open();
    EXPECT_EQ(OpenLines() + Row().SkippedBuildLines() + Row().StartLines(), m_log.Take());
    EXPECT_EQ(pipeline, SourceProbe::Pipeline(Source()));
}

TEST_P(Lifecycle, FailedOpenCanBeRepeated) {
    const std::string factory = FactoryName(Row().front[0]);
    m_faults.FailFactory(factory);
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    EXPECT_FALSE(SourceProbe::Joinable(Source()));
    EXPECT_EQ(Url(), Source().GetURL()) << "the options stay stored";
    EXPECT_STREQ("", SourceProbe::Status(Source()).state);
    m_faults.Forgive(factory);
    Open();
    EXPECT_TRUE(SourceProbe::Reconnect(Source()));
}

TEST_P(Lifecycle, WorkerThatCannotStart) {
    m_faults.FailThreadStart();
    EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    const Lines lines = m_log.Take();
    const Lines before = OpenLines() + Row().BuildLines(Url());
    ASSERT_EQ(before.size() + 1, lines.size());
    EXPECT_EQ(before, Lines(lines.begin(), lines.end() - 1));
    EXPECT_EQ("ERR", lines.back().level);
    EXPECT_EQ(0U, lines.back().message.find(Row().Tag() + " Unable to start the worker thread!!! "));
    EXPECT_NE(std::string::npos, lines.back().message.find(" URL=" + Url()));
    EXPECT_EQ(kNothing, LiveObjects());
    ExpectNoPipeline();
    EXPECT_STREQ("", SourceProbe::Status(Source()).state);
    Source().CloseLiveStream();
    EXPECT_EQ(Row().IdleCloseLines(Url()), m_log.Take());
}

TEST_P(Lifecycle, WorkerThatFailsIsLeftForTheClose) {
    SourceProbe::SetUrl(Source(), Url());
    const std::string tag = Row().Tag();
    ASSERT_TRUE(SourceProbe::StartWorker(Source(), tag.c_str(), [] { throw std::runtime_error("no memory"); }));
    EXPECT_TRUE(m_log.WaitFor(Err(tag + " The worker thread has failed!!! no memory URL=" + Url())));
    ExpectAlreadyLive(Url());
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
    Open();
}

// ---- Session ends and rebuilds ----------------------------------------------------------------------------------------------

TEST_P(Lifecycle, EachBusResultRebuilds) {
    Open();
    for (const SessionEnd &end : kSessionEnds) {
        SCOPED_TRACE(end.name);
        Report();
        SourceProbe::VideoEncode(Source()).Set("H264");
        const std::size_t slept = m_faults.Sleeps().size();
        DuringWait seen;
        WatchWait(seen);
        const int pipelines = static_cast<int>(m_faults.Made().size());
        m_log.Take();
        Post(end.message());
        ASSERT_TRUE(WaitForSessions(1));
        m_faults.OnSleep({});
        EXPECT_EQ((Lines{Reason(end.reason, Url()), end.line, BusFailure()}) + Row().RebuildLines(Url()), m_log.Take());

        const std::vector<gulong> sleeps = m_faults.Sleeps();
        ASSERT_EQ(slept + 30, sleeps.size());
        for (const gulong slice : sleeps) {
            EXPECT_EQ(100000U, slice);
        }
        // The codec texts are emptied by close only.
        EXPECT_EQ("live reconnect: H264 640x360 25 fps, 24 real, 0 bit/s; AAC 44100 Hz, 1 channels, 0 real, 0 bit/s",
                  Describe(seen.status));
        EXPECT_EQ(Row().stateAfterBusError, seen.state);
        EXPECT_EQ(Row().clearsMediaInfo, seen.clear);
        EXPECT_EQ(static_cast<std::size_t>(pipelines) + Row().front.size(), m_faults.Made().size());
        EXPECT_EQ("", SourceProbe::VideoEncode(Source()).Get());
        EXPECT_EQ(GST_STATE_PLAYING, SourceProbe::State(Source()));
    }
}

TEST_P(Lifecycle, MessagesThatEndNothing) {
    Open();
    m_log.Take();
    Post(gst_message_new_latency(GST_OBJECT(SourceProbe::Pipeline(Source()))));
    Post(gst_message_new_state_changed(nullptr, GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING));
    Post(gst_message_new_element(nullptr, gst_structure_new_empty("pat")));
    ASSERT_TRUE(m_log.WaitFor(Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :pat;")));
    const std::size_t polls = m_faults.Polls().size();
    ASSERT_TRUE(Eventually([&] { return m_faults.Polls().size() > polls; }));
    EXPECT_EQ((Lines{Raw("------------- GST_MESSAGE_LATENCY "), Raw("--------message->src:----pipeline "),
                     Info("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :pat;")}),
              m_log.Take());
    EXPECT_TRUE(m_faults.Sleeps().empty());
}

TEST_P(Lifecycle, ChangedMediaRebuilds) {
    Open();
    Report();
    m_log.Take();
    DuringWait seen;
    WatchWait(seen);
    SourceProbe::MediaChanged(Source()) = true;
    ASSERT_TRUE(WaitForSessions(1));
    EXPECT_EQ((Lines{Reason("The stream has changed to other media (media-changed)", Url()),
                     Warn(Row().Tag() + " Check media data changed, reset session.... URL=" + Url())}) +
                  Row().RebuildLines(Url()),
              m_log.Take());
    EXPECT_FALSE(SourceProbe::MediaChanged(Source()));
    EXPECT_EQ(GST_STATE_PLAYING, seen.state) << "only a bus result touches it, and only with RTSP";
    EXPECT_EQ(Row().clearsMediaInfo, seen.clear);
    ExpectEncodings("", "");
    EXPECT_EQ(30U, m_faults.Sleeps().size());
}

TEST_P(Lifecycle, FailedPlayIsRetried) {
    m_faults.SetPlay(Play::Fail);
    DuringWait seen;
    m_faults.OnSleep([&](int number) {
        if (number == 1) {
            seen.status = SourceProbe::Status(Source());
            seen.state = SourceProbe::State(Source());
        }
        if (number == 31) {  // the second attempt has failed as well
            m_faults.SetPlay(Play::Pretend);
        }
    });
    ASSERT_TRUE(Row().open(Source(), Url().c_str()));
    ASSERT_TRUE(WaitForSessions(2));
    const Lines failure{Reason("It could not be started", Url()),
                        Err(Row().Tag() + " Set the pipeline to the GST_STATE_PLAYING failure!!! URL=" + Url()),
                        Info(Row().Tag() + " _PipelinePlay faild!!! URL=" + Url())};
    EXPECT_EQ(OpenLines() + Row().BuildLines(Url()) + Lines{Info(Row().startMessage)} + Row().SkippedBuildLines() + failure +
                  Lines{Info(Row().reconnectMessage + Url())} + Row().BuildLines(Url()) + failure + Row().RebuildLines(Url()),
              m_log.Take());
    EXPECT_EQ(0, seen.state);
    EXPECT_STREQ("reconnect", seen.status.state);
    EXPECT_EQ(60U, m_faults.Sleeps().size());
}

TEST_P(Lifecycle, FailedRebuildEndsTheWorker) {
    Open();
    m_log.Take();
    const std::string &source = Row().front[0];
    m_faults.FailFactory(FactoryName(source));
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(m_log.WaitFor(Info(Row().exitMessage)));
    Line failure = Row().loopBuildFailure;
    if (Row().loopBuildFailureHasUrl) {
        failure.message += Url();
    }
    const Lines expected = Lines{Reason(kEndReason, Url()), Raw("-------------GST_MESSAGE_EOS"), BusFailure(),
                                 Info(Row().reconnectMessage + Url())} +
                           Row().SkippedBuildLines() +
                           Lines{NotMade(source), Row().NotAllElements(Url()), failure, Info(Row().exitMessage)};
    EXPECT_EQ(expected, m_log.Take());
    EXPECT_EQ("reconnect", SourceProbe::StateText(Source()));
    ExpectNothingLives();

    // The worker is not joined yet: the source stays closed to a new open until a close.
    m_faults.Forgive(FactoryName(source));
    ExpectAlreadyLive("other://location");
    EXPECT_EQ(Url(), Source().GetURL());
    Source().CloseLiveStream();
    EXPECT_EQ(Row().IdleCloseLines(Url()), m_log.Take());
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
    Open();
}

// ---- Descriptors ------------------------------------------------------------------------------------------------------------

// Less than a pipeline needs, and enough for what an element of
// the framework's own opens as soon as it is made.
constexpr rlim_t kTooFew = 16;

TEST_P(Lifecycle, OpenWithoutDescriptorsIsRefused) {
    m_faults.SetPlay(Play::Pretend);
    {
        const FewDescriptors few(kTooFew);
        EXPECT_FALSE(Row().open(Source(), Url().c_str()));
    }
    EXPECT_EQ(1U, m_log.Count(TooFewDescriptors()));
    EXPECT_EQ(1U, m_log.Count(Row().NotAllElements(Url())));
    EXPECT_TRUE(m_faults.Sleeps().empty()) << "the host is told at once";
    EXPECT_FALSE(SourceProbe::Joinable(Source()));
    Open();
}

TEST_P(Lifecycle, RebuildWaitsForDescriptors) {
    Open();
    std::unique_ptr<FewDescriptors> few;
    m_faults.OnSleep([&](int number) {
        if (number == 30) {  // the last slice before the rebuild
            few = std::make_unique<FewDescriptors>(kTooFew);
        } else if (number == 35) {
            few.reset();
        }
    });
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(WaitForSessions(1));
    EXPECT_EQ(std::vector<gulong>(35, 100000), m_faults.Sleeps());
    EXPECT_EQ(1U, m_log.Count(TooFewDescriptors()));
    EXPECT_EQ(1U, m_log.Count(Info("[CBaseSource] There are file descriptors again. URL=" + Url())));
}

TEST_P(Lifecycle, CloseEndsTheWaitForDescriptors) {
    Open();
    std::unique_ptr<FewDescriptors> few;
    m_faults.OnSleep([&](int number) {
        if (number == 30) {
            few = std::make_unique<FewDescriptors>(kTooFew);
        }
        HoldUntilClosed(number, 33);
    });
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(AwaitSleeps(33));
    EXPECT_TRUE(Source().CloseLiveStream());
    few.reset();
    EXPECT_EQ(33U, m_faults.Sleeps().size());
    EXPECT_EQ(1U, m_log.Count(TooFewDescriptors()));
    EXPECT_EQ(0U, m_log.Count(Info("[CBaseSource] There are file descriptors again. URL=" + Url())));
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
}

// ---- Close ------------------------------------------------------------------------------------------------------------------

TEST_P(Lifecycle, CloseDuringTheWaitBuildsOnceMore) {
    Open();
    m_log.Take();
    m_faults.OnSleep([&](int number) { HoldUntilClosed(number, 3); });
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(AwaitSleeps(3));
    const std::size_t made = m_faults.Made().size();
    const std::size_t polls = m_faults.Polls().size();
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ((Lines{Reason(kEndReason, Url()), Raw("-------------GST_MESSAGE_EOS"), BusFailure()}) +
                  Row().CloseLines(Url(), Row().RebuildLines(Url()) + Lines{Info(Row().exitMessage)}),
              m_log.Take());
    EXPECT_EQ(3U, m_faults.Sleeps().size()) << "the stop ends the wait";
    EXPECT_EQ(made + Row().front.size(), m_faults.Made().size());
    EXPECT_EQ(polls, m_faults.Polls().size()) << "the stop is seen before the first poll";
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
    EXPECT_EQ(kNothing, LiveObjects());
}

TEST_P(Lifecycle, CloseWithoutOpen) {
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ(Row().IdleCloseLines(""), m_log.Take());
    EXPECT_STREQ("stop", SourceProbe::Status(Source()).state);
    EXPECT_STREQ("", SourceProbe::Status(Source()).source_mode);
    EXPECT_FALSE(SourceProbe::Reconnect(Source()));
}

TEST_P(Lifecycle, CloseTwiceAndDestroy) {
    Open();
    EXPECT_TRUE(Source().CloseLiveStream());
    m_log.Take();
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ(Row().IdleCloseLines(Url()), m_log.Take());
    m_source.reset();
    EXPECT_EQ(Row().IdleCloseLines(Url()) + Lines{Info("[CBaseSource] ~~~CBaseSource .. URL=" + Url())}, m_log.Take());
}

TEST_P(Lifecycle, ReopenedSourceEndsWithItsSession) {
    Open();
    Source().CloseLiveStream();
    m_log.Take();
    Open();
    EXPECT_EQ(OpenLines() + Row().BuildLines(Url()) + Row().StartLines(), m_log.Take());
    EXPECT_FALSE(SourceProbe::Reconnect(Source()));
    GstElement *const pipeline = SourceProbe::Pipeline(Source());
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(m_log.WaitFor(Info(Row().exitMessage)));
    EXPECT_EQ((Lines{Reason(kEndReason, Url()), Raw("-------------GST_MESSAGE_EOS"), BusFailure(), Info(Row().exitMessage)}),
              m_log.Take());
    EXPECT_TRUE(m_faults.Sleeps().empty());
    EXPECT_EQ(Row().stateAfterPlay, SourceProbe::StateText(Source()));
    EXPECT_EQ(pipeline, SourceProbe::Pipeline(Source())) << "left for the close";

    ExpectAlreadyLive(Url());
    Source().CloseLiveStream();
    EXPECT_EQ(Row().CloseLines(Url(), {}), m_log.Take());
    EXPECT_EQ(kNothing, LiveObjects());
}

TEST_P(Lifecycle, FailedStopIsToldAndGoesOn) {
    Open();
    m_log.Take();
    m_faults.ReportStopFailure();
    Source().CloseLiveStream();
    Lines worker{Info(Row().exitMessage)};
    const Line failure = Err(Row().Tag() + " Set the pipeline to the GST_STATE_NULL failure!!! URL=" + Url());
    Lines expected = Row().CloseLines(Url(), worker);
    expected.insert(expected.begin() + (IsHls() ? 3 : 2), failure);
    EXPECT_EQ(expected, m_log.Take());
    EXPECT_EQ(kNothing, LiveObjects());
    EXPECT_EQ("stop", SourceProbe::StateText(Source()));
}

// ---- The steps by themselves ------------------------------------------------------------------------------------------------

TEST_P(Lifecycle, PlayWithoutPipeline) {
    EXPECT_FALSE(Row().play(Source()));
    EXPECT_EQ(Lines{Err(Row().Tag() + " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=")},
              m_log.Take());
    EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
}

TEST_P(Lifecycle, PlayTwice) {
    Build();
    m_log.Take();
    m_faults.SetPlay(Play::Pretend);
    EXPECT_TRUE(Row().play(Source()));
    EXPECT_EQ(Row().PlayLines(), m_log.Take());
    EXPECT_TRUE(Row().play(Source()));
    EXPECT_EQ(Lines{Warn(Row().Tag() + " The current state is already playing state, Nothing to do. URL=" + Url())},
              m_log.Take());
}

TEST_P(Lifecycle, PlayAfterAFailure) {
    Build();
    m_faults.SetPlay(Play::Fail);
    EXPECT_FALSE(Row().play(Source()));
    EXPECT_EQ(0, SourceProbe::State(Source()));
    m_faults.SetPlay(Play::Pretend);
    EXPECT_TRUE(Row().play(Source()));
    EXPECT_EQ(GST_STATE_PLAYING, SourceProbe::State(Source()));
}

TEST_P(Lifecycle, StopWithoutPipeline) {
    EXPECT_FALSE(Row().stop(Source()));
    EXPECT_EQ(Lines{Warn(Row().Tag() + " Unable to set the pipeline to the GST_STATE_NULL state! (pipeline is nullptr) URL=")},
              m_log.Take());
}

TEST_P(Lifecycle, StopThatFindsTheNullStateForgetsNothing) {
    Build();
    SetEncodings();
    const std::vector<GstElement *> fields = Row().fields(Source());
    m_log.Take();
    EXPECT_TRUE(Row().stop(Source()));
    EXPECT_EQ(Lines{Warn(Row().Tag() + " The current state is already GST_STATE_NULL state, Nothing to do. URL=" + Url())},
              m_log.Take());
    EXPECT_EQ(fields, Row().fields(Source()));
    EXPECT_NE(nullptr, fields[0]);
    ExpectEncodings("H264", "AAC");
    // The teardown then has fields of elements that die with the pipeline.
    Row().destroy(Source());
    EXPECT_EQ(Lines{}, m_log.Take());
    EXPECT_EQ(kNothing, LiveObjects());
    EXPECT_EQ(std::vector<GstElement *>(fields.size(), nullptr), Row().fields(Source()));
    EXPECT_FALSE(SourceProbe::ElementsCreated(Source()));
    EXPECT_EQ(nullptr, SourceProbe::Bus(Source()));
    if (IsHls()) {
        EXPECT_EQ("video/mpegts", SourceProbe::HlsMediaType(Source()).Get()) << "not the teardown's";
    }
}

TEST_P(Lifecycle, StopForgetsElementsAndEncodings) {
    Build();
    m_faults.SetPlay(Play::Pretend);
    ASSERT_TRUE(Row().play(Source()));
    for (const int state : {static_cast<int>(GST_STATE_PLAYING), 0}) {
        SourceProbe::State(Source()) = state;
        SetEncodings();
        m_log.Take();
        EXPECT_TRUE(Row().stop(Source()));
        EXPECT_EQ(Lines{}, m_log.Take());
        EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
        ExpectEncodings("", "");
        for (const GstElement *element : Row().fields(Source())) {
            EXPECT_EQ(nullptr, element);
        }
        if (IsHls()) {
            EXPECT_EQ("", SourceProbe::HlsMediaType(Source()).Get());
        }
        EXPECT_NE(nullptr, SourceProbe::Pipeline(Source()));
        EXPECT_TRUE(SourceProbe::ElementsCreated(Source()));
    }
}

TEST_P(Lifecycle, DestroyWithoutAnything) {
    SourceProbe::State(Source()) = 0;
    Row().destroy(Source());
    EXPECT_EQ(GST_STATE_NULL, SourceProbe::State(Source()));
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_P(Lifecycle, CloseReleasesABuiltPipelineThatNeverPlayed) {
    Build();
    m_log.Take();
    EXPECT_TRUE(Source().CloseLiveStream());
    EXPECT_EQ(kNothing, LiveObjects());
    EXPECT_EQ(
        1U, m_log.Count(Warn(Row().Tag() + " The current state is already GST_STATE_NULL state, Nothing to do. URL=" + Url())));
}

INSTANTIATE_TEST_SUITE_P(Classes, Lifecycle, testing::ValuesIn(SourceClasses()), ClassName());

// ---- Elements' references ---------------------------------------------------------------------------------------------------

TEST_F(SourceTest, RemoveManyDropsOneReferenceOfEach) {
    using GSTREAMER::ElementRef;
    ElementRef first = ElementRef::Adopt(GST_ELEMENT(gst_object_ref_sink(gst_bin_new("first"))));
    ElementRef second = ElementRef::Adopt(GST_ELEMENT(gst_object_ref_sink(gst_bin_new("second"))));
    const ElementRef first_shared = ElementRef::Share(first);
    const ElementRef second_shared = ElementRef::Share(second);
    ElementRef none;
    SourceProbe::RemoveMany({&none, &first, &none, &second});
    EXPECT_EQ(nullptr, first);
    EXPECT_EQ(nullptr, second);
    EXPECT_EQ(1, GST_OBJECT_REFCOUNT_VALUE(first_shared.Get()));
    EXPECT_EQ(1, GST_OBJECT_REFCOUNT_VALUE(second_shared.Get()));
    SourceProbe::RemoveMany({&first});
    SourceProbe::RemoveMany({});
    // To itself: nothing is dropped.
    ElementRef kept = ElementRef::Share(first_shared);
    ElementRef &same = kept;
    kept = std::move(same);
    EXPECT_EQ(first_shared.Get(), kept.Get());
}

// ---- All five for real, at the same time ------------------------------------------------------------------------------------

namespace {

// A location with nobody behind it. UDP binds the port itself.
std::string DeadLocation(const SourceClass &row) {
    const bool datagrams = row.type == SOURCE_TYPE_SRT || row.type == SOURCE_TYPE_UDP;
    return row.UrlAt(FreePort(datagrams ? SOCK_DGRAM : SOCK_STREAM));
}

}  // namespace

TEST_F(SourceTest, RefusedOpenLeavesTheOptions) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    m_faults.SetPlay(Play::Pretend);
    auto &source = static_cast<Tessaro::CUDPSource &>(Make(row));
    ASSERT_TRUE(source.OpenLiveStream(row.url.c_str(), 200, 300, 2000));
    ASSERT_TRUE(Eventually([&] { return m_faults.Plays() > 0; }));
    EXPECT_FALSE(source.OpenLiveStream("udp://127.0.0.1:9", 0, 400, 3000));
    m_faults.ForgetPlays();
    Post(gst_message_new_eos(nullptr));
    ASSERT_TRUE(Eventually([&] { return m_faults.Plays() > 0; })) << "a new pipeline";
    gint latency = 0;
    guint mtu = 0;
    g_object_get(Element(source, "Tsdemux"), "latency", &latency, nullptr);
    g_object_get(Element(source, "Udpsrc"), "mtu", &mtu, nullptr);
    EXPECT_EQ(300, latency);
    EXPECT_EQ(2000U, mtu);
    EXPECT_EQ(row.url, source.GetURL());
}

// rtspsrc ends its streams when the server leaves, and that end can get lost on its way.
TEST_F(SourceTest, RtspServerThatHasLeftForGoodEndsTheSession) {
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTSP);
    constexpr unsigned int kLatencyMs = 500;
    constexpr gint64 kPatience = (3000 + kLatencyMs) * 1000;
    gint64 now = 1000000000;
    m_faults.SetClock(now);
    m_faults.SetPlay(Play::Pretend);
    Make(row);
    ASSERT_TRUE(static_cast<Tessaro::CRtspSource &>(*m_source).OpenLiveStream(row.url.c_str(), 200, 4, kLatencyMs, 0, "", ""));
    ASSERT_TRUE(Eventually([&] { return m_faults.Plays() > 0; }));
    const Line forsaken = Err("[CRtspSource] DoBusMessage--------------error!! URL=" + row.url);
    // Two polls from now on, the worker has seen all messages and looked at the clock after them.
    const auto await_look = [&] {
        const std::size_t polls = m_faults.Polls().size();
        ASSERT_TRUE(Eventually([&] { return m_faults.Polls().size() > polls + 2; }));
    };
    const auto warn = [&](const char *element, gint code) {
        GError *const warning = g_error_new_literal(GST_RESOURCE_ERROR, code, "Could not read from resource.");
        GstElement *const source = element != nullptr ? Element(*m_source, element) : nullptr;
        Post(gst_message_new_warning(GST_OBJECT(source), warning, "The server closed the connection."));
        g_error_free(warning);
        await_look();
    };
    const auto pass = [&](gint64 microseconds) {
        now += microseconds;
        m_faults.SetClock(now);
        await_look();
    };
    // Other warnings mean nothing.
    warn("Rtspsrc", GST_RESOURCE_ERROR_WRITE);
    warn(nullptr, GST_RESOURCE_ERROR_READ);
    pass(10 * kPatience);
    EXPECT_EQ(0U, m_log.Count(forsaken));
    // Over UDP the media may go on without the server's connection.
    warn("Rtspsrc", GST_RESOURCE_ERROR_READ);
    for (int report = 0; report < 3; ++report) {
        pass(kPatience);
        CBaseSource::shbsink_video_bitrate_handler(AnySink(), 1000, m_source.get());
    }
    pass(kPatience);
    EXPECT_EQ(0U, m_log.Count(forsaken));
    m_faults.ForgetPlays();
    now += 1;
    m_faults.SetClock(now);
    EXPECT_TRUE(Eventually([&] { return m_faults.Plays() > 0; })) << "a new session";
    EXPECT_EQ(1U, m_log.Count(forsaken));
    // Which knows nothing of it.
    pass(10 * kPatience);
    EXPECT_EQ(1U, m_log.Count(forsaken));
}

TEST_F(SourceTest, RealSessionsRebuildAfterAboutThreeSeconds) {
    m_faults.SleepReally();
    const auto begun = std::chrono::steady_clock::now();
    std::vector<SourcePtr> sources;
    std::vector<std::string> locations;
    for (const SourceClass &row : SourceClasses()) {
        sources.emplace_back(row.create(&m_buffer, kChannel, kStream));
        locations.push_back(DeadLocation(row));
        ASSERT_TRUE(row.open(*sources.back(), locations.back().c_str()));
    }
    for (std::size_t i = 0; i < sources.size(); ++i) {
        ASSERT_TRUE(m_log.WaitFor(Info(SourceClasses()[i].startMessage)));
        EXPECT_TRUE(Eventually([&] { return HasThread(SourceClasses()[i].name); }));
    }
    // Those that notice by themselves do; the others are told.
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const int type = SourceClasses()[i].type;
        if (type == SOURCE_TYPE_UDP || type == SOURCE_TYPE_SRT) {
            ASSERT_TRUE(Eventually([&] { return SourceProbe::State(*sources[i]) == GST_STATE_PLAYING; }));
            PostOn(*sources[i], gst_message_new_eos(nullptr));
        }
    }
    // The last look without the line of the end, and the first with that of the rebuild:
    // what lies between is never shorter than the wait.
    std::vector<std::chrono::steady_clock::time_point> before(sources.size(), begun);
    std::vector<std::chrono::steady_clock::time_point> ended(sources.size());
    std::vector<std::chrono::steady_clock::time_point> rebuilt(sources.size());
    ASSERT_TRUE(Eventually([&] {
        bool all = true;
        const auto looked = std::chrono::steady_clock::now();
        const Lines lines = m_log.All();
        const auto now = std::chrono::steady_clock::now();
        for (std::size_t i = 0; i < sources.size(); ++i) {
            const SourceClass &row = SourceClasses()[i];
            const auto seen = [&](const Line &line) { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
            // An SRT caller or an RTMP client without a peer may
            // also fail to play, with the same consequence.
            const bool failed = seen(Err(row.Tag() + " DoBusMessage--------------error!! URL=" + locations[i])) ||
                                seen(Info(row.Tag() + " _PipelinePlay faild!!! URL=" + locations[i]));
            if (!failed) {
                before[i] = looked;
            } else if (ended[i].time_since_epoch().count() == 0) {
                ended[i] = now;
            }
            if (seen(Info(row.reconnectMessage + locations[i])) && rebuilt[i].time_since_epoch().count() == 0) {
                rebuilt[i] = now;
            }
            all = all && rebuilt[i].time_since_epoch().count() != 0;
        }
        return all;
    }));
    for (std::size_t i = 0; i < sources.size(); ++i) {
        EXPECT_LT(std::chrono::milliseconds(2900), rebuilt[i] - before[i]) << SourceClasses()[i].name;
        EXPECT_GT(std::chrono::seconds(30), rebuilt[i] - ended[i]) << SourceClasses()[i].name;
    }
    for (SourcePtr &source : sources) {
        source->CloseLiveStream();
        EXPECT_EQ("stop", SourceProbe::StateText(*source));
    }
}

}  // namespace unit
