// What the sinks report: records, status, lines and the host's callback.
#include "support/Fixture.h"
#include "support/Records.h"

#include <array>
#include <cmath>
#include <cstring>
#include <limits>

namespace unit {

namespace {

struct Call {
    void *user;
    media_code_info_t info;
};

class SinkHandlers : public SourceTest {
  protected:
    void SetUp() override {
        Make(ClassOf(SOURCE_TYPE_UDP));
        SourceProbe::SetUrl(*m_source, "udp://127.0.0.1:5");
        m_source->SetMediaChangeCallback(Record, &m_calls);
    }

    static void Record(void *user, media_code_info_t *info) {
        static_cast<std::vector<Call> *>(user)->push_back({user, *info});
    }

    void Video(const VideoReport &report) { ReportVideo(*m_source, report); }
    void Audio(const AudioReport &report) { ReportAudio(*m_source, report); }
    // Video and audio.
    std::array<media_code_info_t, 2> Infos() {
        std::array<media_code_info_t, 2> infos{};
        m_source->GetMediaInfo(&infos[0], &infos[1]);
        return infos;
    }
    media_code_info_t VideoInfo() { return Infos()[0]; }
    media_code_info_t AudioInfo() { return Infos()[1]; }
    std::string StatusText() { return Describe(Status()); }
    source_status_t Status() { return SourceProbe::Status(*m_source); }

    GstElement *const m_sink = AnySink();
    std::vector<Call> m_calls;
};

const Line kVideoHandler = Info("[CBaseSource] ~~~~~video_changed_handler callback!!! URL=udp://127.0.0.1:5");
const Line kAudioHandler = Info("[CBaseSource] ~~~~~audio_changed_handler callback!!! URL=udp://127.0.0.1:5");

// As the lines tell a report; with a comma behind the height where it is refused.
std::string Text(const VideoReport &report, const std::string &fps, const char *behind_height) {
    return std::string("code=") + report.code + ", width=" + std::to_string(report.width) +
           ", height=" + std::to_string(report.height) + behind_height + " fps=" + fps +
           ", scan_type=" + (report.scanType != nullptr ? report.scanType : "") +
           ", ref_frames=" + std::to_string(report.refFrames);
}

Line VideoChanged(const std::string &text) {
    return Info("Gst video media info changed, update it. " + text + ", URL=udp://127.0.0.1:5");
}

Line VideoInvalid(const std::string &text) {
    return Err("Invalid Gst video media info!!! " + text + ", URL=udp://127.0.0.1:5");
}

// Bytes of a record, for "nothing has changed".
template <typename Record>
std::string Bytes(const Record &record) {
    std::string bytes(sizeof record, '\0');
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

}  // namespace

// ---- Bit rates and frame rates ----------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, BitrateConnects) {
    CBaseSource::shbsink_video_bitrate_handler(m_sink, 4000000, m_source.get());
    EXPECT_EQ(" connected:  0x0 0 fps, 0 real, 4000000 bit/s;  0 Hz, 0 channels, 0 real, 0 bit/s", StatusText());
    CBaseSource::shbsink_audio_bitrate_handler(m_sink, 0xFFFFFFFFU, m_source.get());
    EXPECT_EQ(" connected:  0x0 0 fps, 0 real, 4000000 bit/s;  0 Hz, 0 channels, 0 real, 4294967295 bit/s", StatusText());
    EXPECT_EQ(Lines{}, m_log.Take());
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(SinkHandlers, AudioBitrateConnectsByItself) {
    CBaseSource::shbsink_audio_bitrate_handler(m_sink, 128000, m_source.get());
    EXPECT_EQ(" connected:  0x0 0 fps, 0 real, 0 bit/s;  0 Hz, 0 channels, 0 real, 128000 bit/s", StatusText());
}

TEST_F(SinkHandlers, BitrateReportAfterCloseConnectsAgain) {
    m_source->CloseLiveStream();
    EXPECT_STREQ("stop", Status().state);
    CBaseSource::shbsink_video_bitrate_handler(m_sink, 1, m_source.get());
    EXPECT_STREQ("connected", Status().state);
}

TEST_F(SinkHandlers, RealFrameRates) {
    CBaseSource::shbsink_video_fps_handler(m_sink, 30, m_source.get());
    EXPECT_EQ(30.0F, Status().video_real_fps);
    EXPECT_EQ(0.0F, Status().audio_real_fps);
    CBaseSource::shbsink_audio_fps_handler(m_sink, 16777217, m_source.get());
    EXPECT_EQ(16777216.0F, Status().audio_real_fps);
    EXPECT_EQ(30.0F, Status().video_real_fps);
    EXPECT_EQ(0.0F, Status().fps);
    EXPECT_STREQ("", Status().state);
    EXPECT_EQ(Lines{}, m_log.Take());
}

// ---- Video ------------------------------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, FirstVideoReport) {
    Video({});
    EXPECT_EQ(
        (Lines{kVideoHandler, VideoChanged("code=H264, width=1920, height=1080 fps=25, scan_type=progressive, ref_frames=4")}),
        m_log.Take());
    const media_code_info_t info = VideoInfo();
    EXPECT_EQ("H264 1920x1080 25 fps, scan 0, 4 references", Describe(info));
    EXPECT_EQ(0, info.params.video.unused[0]);
    EXPECT_EQ(0, info.params.video.unused[1]);
    EXPECT_EQ(" : H264 1920x1080 25 fps, 0 real, 0 bit/s;  0 Hz, 0 channels, 0 real, 0 bit/s", StatusText());
    ASSERT_EQ(1U, m_calls.size());
    EXPECT_EQ(&m_calls, m_calls[0].user);
    EXPECT_EQ(Bytes(info), Bytes(m_calls[0].info));
    EXPECT_EQ("H264", SourceProbe::VideoEncode(*m_source).Get());
    EXPECT_EQ("", SourceProbe::AudioEncode(*m_source).Get());
}

TEST_F(SinkHandlers, SameVideoReportTwice) {
    Video({});
    m_log.Take();
    Video({});
    EXPECT_EQ(Lines{kVideoHandler}, m_log.Take());
    EXPECT_EQ(1U, m_calls.size());
}

TEST_F(SinkHandlers, EachVideoFieldIsAChange) {
    struct Row {
        const char *name;
        VideoReport report;
        const char *fps;
    };
    const Row rows[] = {
        {"code", {"H265", "progressive", 1920, 1080, 25, 1, 4}, "25"},
        {"width", {"H264", "progressive", 1919, 1080, 25, 1, 4}, "25"},
        {"height", {"H264", "progressive", 1920, 1, 25, 1, 4}, "25"},
        {"fps", {"H264", "progressive", 1920, 1080, 30000, 1001, 4}, "29.97"},
        {"references", {"H264", "progressive", 1920, 1080, 25, 1, 1}, "25"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        m_source->ClearMediaInfo();
        Video({});
        m_log.Take();
        m_calls.clear();
        Video(row.report);
        EXPECT_EQ((Lines{kVideoHandler, VideoChanged(Text(row.report, row.fps, ""))}), m_log.Take());
        ASSERT_EQ(1U, m_calls.size());
        EXPECT_EQ(Bytes(VideoInfo()), Bytes(m_calls[0].info));
        EXPECT_EQ(row.report.code, SourceProbe::VideoEncode(*m_source).Get());
        EXPECT_STREQ(row.report.code, Status().video_code);
        EXPECT_EQ(row.report.width, Status().width);
        EXPECT_EQ(row.report.height, Status().height);
    }
}

TEST_F(SinkHandlers, ScanTypeAloneIsNoChange) {
    Video({});
    m_log.Take();
    VideoReport report;
    report.scanType = "interlaced";
    Video(report);
    EXPECT_EQ(Lines{kVideoHandler}, m_log.Take());
    EXPECT_EQ(0, VideoInfo().params.video.scan_type);
    EXPECT_EQ(1U, m_calls.size());
}

TEST_F(SinkHandlers, ScanTypes) {
    const std::pair<const char *, int> rows[] = {
        {"interlaced", 1}, {"progressive", 0}, {"mixed", 2}, {"Progressive", 2}, {"x", 2}};
    VideoReport report;
    for (const auto &[text, code] : rows) {
        report.scanType = text;
        ++report.width;  // so that it is looked at
        Video(report);
        EXPECT_EQ(code, VideoInfo().params.video.scan_type) << text;
    }
}

TEST_F(SinkHandlers, FrameRates) {
    VideoReport report;
    report.fpsN = 30000;
    report.fpsD = 1001;
    Video(report);
    EXPECT_EQ(30000.0F / 1001.0F, VideoInfo().params.video.fps);
    EXPECT_NEAR(29.97003, static_cast<double>(Status().fps), 0.00001);

    const std::pair<int, int> zeros[] = {{25, 0}, {0, 1}, {0, 0}, {-25, 0}};
    for (const auto &[numerator, denominator] : zeros) {
        Video({});
        m_log.Take();
        report.fpsN = numerator;
        report.fpsD = denominator;
        Video(report);
        EXPECT_EQ((Lines{kVideoHandler,
                         VideoChanged("code=H264, width=1920, height=1080 fps=0, scan_type=progressive, ref_frames=4")}),
                  m_log.Take());
        EXPECT_EQ(0.0F, VideoInfo().params.video.fps);
        EXPECT_EQ(0.0F, Status().fps);
    }
    // Two negative numbers are a positive rate.
    report.fpsN = -50;
    report.fpsD = -2;
    m_calls.clear();
    Video(report);
    EXPECT_EQ(25.0F, Status().fps);
    EXPECT_EQ(1U, m_calls.size());
}

TEST_F(SinkHandlers, ReferenceFramesAreCutTo8Bits) {
    VideoReport report;
    report.refFrames = 255;
    Video(report);
    Video(report);
    EXPECT_EQ(1U, m_calls.size());
    EXPECT_EQ(255, VideoInfo().params.video.ref_frames);

    // A cut number never equals the reported one.
    report.refFrames = 256 + 7;
    m_log.Take();
    for (std::size_t times = 1; times <= 3; ++times) {
        Video(report);
        EXPECT_EQ(7, VideoInfo().params.video.ref_frames);
        EXPECT_EQ(1U + times, m_calls.size());
        EXPECT_EQ((Lines{kVideoHandler,
                         VideoChanged("code=H264, width=1920, height=1080 fps=25, scan_type=progressive, ref_frames=263")}),
                  m_log.Take());
    }
}

TEST_F(SinkHandlers, InvalidVideo) {
    Video({});
    const std::string info = Bytes(VideoInfo());
    const std::string status = Bytes(Status());
    m_log.Take();
    struct Row {
        VideoReport report;
        const char *fps;
    };
    const Row rows[] = {
        {{"H265", "progressive", 0, 1080, 25, 1, 4}, "25"}, {{"H265", "progressive", -1, 1080, 25, 1, 4}, "25"},
        {{"H265", "progressive", 1920, 0, 25, 1, 4}, "25"}, {{"H265", "progressive", 1920, 1080, -25, 1, 4}, "-25"},
        {{"", "progressive", 1920, 1080, 25, 1, 4}, "25"},  {{"H265", "", 1920, 1080, 25, 1, 4}, "25"},
        {{"H265", nullptr, 1920, 1080, 25, 1, 4}, "25"},    {{"H265", "progressive", 1920, 1080, 25, 1, 0}, "25"},
    };
    for (const Row &row : rows) {
        Video(row.report);
        EXPECT_EQ((Lines{kVideoHandler, VideoInvalid(Text(row.report, row.fps, ","))}), m_log.Take());
        EXPECT_EQ(info, Bytes(VideoInfo()));
        EXPECT_EQ(status, Bytes(Status()));
        EXPECT_EQ("H264", SourceProbe::VideoEncode(*m_source).Get());
    }
    EXPECT_EQ(1U, m_calls.size());
}

TEST_F(SinkHandlers, SmallestValidVideo) {
    Video({"H264", "x", 1, 1, 0, 0, 1});
    EXPECT_EQ(1U, m_calls.size());
    EXPECT_EQ(1, Status().width);
}

TEST_F(SinkHandlers, EncodingIsTakenOverEvenWithoutAChange) {
    Video({});
    SourceProbe::VideoEncode(*m_source).Set("H265");
    Video({});
    EXPECT_EQ("H264", SourceProbe::VideoEncode(*m_source).Get());
    EXPECT_EQ(1U, m_calls.size());

    Audio({});
    SourceProbe::AudioEncode(*m_source).Set("MP4A-LATM");
    Audio({});
    EXPECT_EQ("AAC", SourceProbe::AudioEncode(*m_source).Get());
    EXPECT_EQ(2U, m_calls.size());
}

TEST_F(SinkHandlers, SameStreamIsReportedAgainAfterClearing) {
    Video({});
    Audio({});
    m_source->ClearMediaInfo();
    const media_code_info_t zero{};
    EXPECT_EQ(Bytes(zero), Bytes(VideoInfo()));
    EXPECT_EQ(1, AudioInfo().type);
    EXPECT_STREQ("", AudioInfo().code);
    EXPECT_STREQ("H264", Status().video_code) << "the status is not cleared with the records";
    Video({});
    Audio({});
    EXPECT_EQ(4U, m_calls.size());
}

// ---- Codes at the size of their field ---------------------------------------------------------------------------------------

TEST_F(SinkHandlers, SameCodeOf16CharactersIsNoChange) {
    // The field holds no NUL then; what stands behind it is not part of the code.
    VideoReport video;
    video.code = "ABCDEFGHIJKLMNOP";
    Video(video);
    m_log.Take();
    Video(video);
    EXPECT_EQ(1U, m_log.Take().size()) << "the handler's own line only";
}

TEST_F(SinkHandlers, CodesAreCutAt16Characters) {
    struct Row {
        const char *code;
        const char *stored;
        bool terminated;
    };
    const Row rows[] = {
        {"ABCDEFGHIJKLMNO", "ABCDEFGHIJKLMNO", true},
        {"ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOP", false},
        {"ABCDEFGHIJKLMNOPQ", "ABCDEFGHIJKLMNOP", false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.code);
        VideoReport video;
        video.code = row.code;
        Video(video);
        AudioReport audio;
        audio.code = row.code;
        Audio(audio);
        const std::size_t length = std::strlen(row.stored);
        for (const std::string &field : {std::string(VideoInfo().code, 16), std::string(AudioInfo().code, 16),
                                         std::string(Status().video_code, 16), std::string(Status().audio_code, 16)}) {
            EXPECT_EQ(row.stored, field.substr(0, length));
            EXPECT_EQ(row.terminated, field.find('\0') != std::string::npos);
        }
        // The neighbours keep their values.
        EXPECT_EQ(1920, VideoInfo().params.video.width);
        EXPECT_EQ(48000, AudioInfo().params.audio.sample_rate);
        EXPECT_EQ(row.code, SourceProbe::VideoEncode(*m_source).Get());
        EXPECT_EQ(row.code, SourceProbe::AudioEncode(*m_source).Get());
    }
    // A shorter one leaves nothing of a longer one behind.
    Video({});
    EXPECT_EQ(std::string("H264") + std::string(12, '\0'), std::string(VideoInfo().code, 16));
}

TEST_F(SinkHandlers, CutCodeAlwaysCountsAsChange) {
    VideoReport report;
    report.code = "ABCDEFGHIJKLMNOPQ";
    Video(report);
    Video(report);
    EXPECT_EQ(2U, m_calls.size());
}

// ---- Audio ------------------------------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, FirstAudioReport) {
    Audio({});
    EXPECT_EQ((Lines{kAudioHandler, Info("Audio media info changed, just update it. code=AAC, sample_rate=48000, channels=2, "
                                         "no_samples=1024")}),
              m_log.Take());
    const media_code_info_t info = AudioInfo();
    EXPECT_EQ("AAC 48000 Hz, 2 channels, 1024 samples, extra 128000", Describe(info));
    EXPECT_EQ(" :  0x0 0 fps, 0 real, 0 bit/s; AAC 48000 Hz, 2 channels, 0 real, 0 bit/s", StatusText());
    ASSERT_EQ(1U, m_calls.size());
    EXPECT_EQ(Bytes(info), Bytes(m_calls[0].info));
    EXPECT_EQ("AAC", SourceProbe::AudioEncode(*m_source).Get());
    EXPECT_EQ("", SourceProbe::VideoEncode(*m_source).Get());
}

TEST_F(SinkHandlers, EachAudioFieldIsAChange) {
    struct Row {
        const char *name;
        AudioReport report;
        bool changes;
    };
    const Row rows[] = {
        {"same", {"AAC", 48000, 2, 1024, 128000}, false}, {"samples", {"AAC", 48000, 2, 2048, 128000}, false},
        {"extra", {"AAC", 48000, 2, 1024, -1}, false},    {"code", {"aac", 48000, 2, 1024, 128000}, true},
        {"rate", {"AAC", 44100, 2, 1024, 128000}, true},  {"channels", {"AAC", 48000, 1, 1024, 128000}, true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        m_source->ClearMediaInfo();
        Audio({});
        const std::string info = Bytes(AudioInfo());
        m_calls.clear();
        m_log.Take();
        Audio(row.report);
        const Lines lines = m_log.Take();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(kAudioHandler, lines[0]);
        EXPECT_EQ(row.changes ? 2U : 1U, lines.size());
        EXPECT_EQ(row.changes ? 1U : 0U, m_calls.size());
        EXPECT_EQ(row.changes, info != Bytes(AudioInfo()));
    }
}

TEST_F(SinkHandlers, InvalidAudio) {
    Audio({});
    const std::string info = Bytes(AudioInfo());
    const std::string status = Bytes(Status());
    m_log.Take();
    struct Row {
        AudioReport report;
        const char *line;
    };
    const Row rows[] = {
        {{"MP3", 0, 2, 1152, 0}, "code=MP3, sample_rate=0, channels=2, no_samples=1152"},
        {{"MP3", 44100, 0, 1152, 0}, "code=MP3, sample_rate=44100, channels=0, no_samples=1152"},
        {{"MP3", 44100, 2, -5, 0}, "code=MP3, sample_rate=44100, channels=2, no_samples=-5"},
        {{"", 44100, 2, 1152, 0}, "code=, sample_rate=44100, channels=2, no_samples=1152"},
    };
    for (const Row &row : rows) {
        Audio(row.report);
        EXPECT_EQ(
            (Lines{kAudioHandler, Err("Invalid Gst audio media info!!! " + std::string(row.line) + ", URL=udp://127.0.0.1:5")}),
            m_log.Take());
        EXPECT_EQ(info, Bytes(AudioInfo()));
        EXPECT_EQ(status, Bytes(Status()));
    }
    EXPECT_EQ(1U, m_calls.size());
    EXPECT_EQ("AAC", SourceProbe::AudioEncode(*m_source).Get());
    Audio({"MP3", 1, 1, 1, -1});  // the smallest valid ones; the extra value is not looked at
    EXPECT_EQ(2U, m_calls.size());
}

// ---- Callback ---------------------------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, CallbackCanBeReplacedAndUserMayBeNull) {
    std::vector<Call> others;
    m_source->SetMediaChangeCallback(Record, &others);
    Video({});
    EXPECT_TRUE(m_calls.empty());
    EXPECT_EQ(1U, others.size());

    static int s_null_calls;
    s_null_calls = 0;
    m_source->SetMediaChangeCallback([](void *user, media_code_info_t *) { s_null_calls += user == nullptr ? 1 : 100; },
                                     nullptr);
    Audio({});
    EXPECT_EQ(1, s_null_calls);
}

TEST_F(SinkHandlers, CallbackRunsWithoutALockAndAfterTheRecords) {
    struct Context {
        CBaseSource *source;
        media_code_info_t video;
        source_status_t status;
    } context{m_source.get(), {}, {}};
    m_source->SetMediaChangeCallback(
        [](void *user, media_code_info_t *) {
            // Reads, a new callback and a bit-rate report would all dead-lock with a lock held.
            auto *self = static_cast<Context *>(user);
            media_code_info_t audio;
            self->source->GetMediaInfo(&self->video, &audio);
            self->source->GetSourceStatus(&self->status);
            self->source->ClearMediaInfo();
            self->source->SetMediaChangeCallback(nullptr, nullptr);
        },
        &context);
    Video({});
    EXPECT_STREQ("H264", context.video.code);
    EXPECT_STREQ("H264", context.status.video_code);
    EXPECT_EQ(nullptr, SourceProbe::Callback(*m_source));
    Audio({});  // no callback any more
}

TEST_F(SinkHandlers, WithoutCallback) {
    m_source->SetMediaChangeCallback(nullptr, nullptr);
    Video({});
    Audio({});
    EXPECT_STREQ("H264", Status().video_code);
    EXPECT_STREQ("AAC", Status().audio_code);
}

// ---- Missing arguments ------------------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, MissingArguments) {
    const std::string status = Bytes(Status());
    GstElement *sink = m_sink;
    CBaseSource *user = m_source.get();
    char code[] = "H264";
    char scan[] = "progressive";
    const auto expect_invalid = [&](std::size_t times, const std::string &handler) {
        EXPECT_EQ(Lines(times, Err("[CBaseSource] ~~~~~Invaild args!!!" + handler)), m_log.Take());
    };
    const std::pair<const char *, void (*)(GstElement *, guint, gpointer)> rates[] = {
        {"shbsink_video_bitrate_handler", CBaseSource::shbsink_video_bitrate_handler},
        {" shbsink_audio_bitrate_handler", CBaseSource::shbsink_audio_bitrate_handler},
        {" shbsink_video_fps_handler", CBaseSource::shbsink_video_fps_handler},
        {" shbsink_audio_fps_handler", CBaseSource::shbsink_audio_fps_handler},
    };
    for (const auto &[name, handler] : rates) {
        handler(nullptr, 1, user);
        handler(sink, 1, nullptr);
        expect_invalid(2, name);
    }
    CBaseSource::shbsink_video_changed_handler(nullptr, code, code, code, scan, 1, 1, 1, 1, 1, user);
    CBaseSource::shbsink_video_changed_handler(sink, nullptr, code, code, scan, 1, 1, 1, 1, 1, user);
    CBaseSource::shbsink_video_changed_handler(sink, code, code, code, scan, 1, 1, 1, 1, 1, nullptr);
    expect_invalid(3, " shbsink_video_changed_handler");
    CBaseSource::shbsink_audio_changed_handler(nullptr, code, 1, 1, 1, 1, 1, 1, user);
    CBaseSource::shbsink_audio_changed_handler(sink, nullptr, 1, 1, 1, 1, 1, 1, user);
    CBaseSource::shbsink_audio_changed_handler(sink, code, 1, 1, 1, 1, 1, 1, nullptr);
    expect_invalid(3, " shbsink_audio_changed_handler");
    EXPECT_EQ(status, Bytes(Status()));
    EXPECT_TRUE(m_calls.empty());
}

// ---- Numbers that are none --------------------------------------------------------------------------------------------------

TEST_F(SinkHandlers, FrameRateThatIsNoNumber) {
    // No pair of integers gives one, but a rate that is none is let through and always counts as a change.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (std::size_t times = 1; times <= 2; ++times) {
        SourceProbe::UpdateVideo(*m_source, "H264", 1920, 1080, nan, "progressive", 4);
        EXPECT_EQ(times, m_calls.size());
        EXPECT_TRUE(std::isnan(VideoInfo().params.video.fps));
        EXPECT_TRUE(std::isnan(Status().fps));
        EXPECT_EQ(Lines{VideoChanged("code=H264, width=1920, height=1080 fps=nan, scan_type=progressive, ref_frames=4")},
                  m_log.Take());
    }
}

}  // namespace unit
