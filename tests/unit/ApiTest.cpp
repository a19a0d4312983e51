// The exported functions: argument checks, dispatch and results.
#include "support/Fixture.h"
#include "support/Records.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace unit {

namespace {

// An open function with all arguments in order; those that are not null-checked take fixed values.
struct OpenFunction {
    const char *name;
    int type;
    std::size_t texts;
    int (*open)(void *handle, const std::vector<const char *> &texts);
};

const OpenFunction kOpenFunctions[] = {
    {"gst_rtsp_source_open_live_stream", SOURCE_TYPE_RTSP, 3,
     [](void *handle, const std::vector<const char *> &t) {
         return gst_rtsp_source_open_live_stream(handle, t[0], 200, 4, 2000, 15, t[1], t[2]);
     }},
    {"gst_srt_source_open_live_stream", SOURCE_TYPE_SRT, 5,
     [](void *handle, const std::vector<const char *> &t) {
         return gst_srt_source_open_live_stream(handle, t[0], 200, t[1], t[2], t[3], 0, 125, 50, t[4]);
     }},
    {"gst_rtmp_source_open_live_stream", SOURCE_TYPE_RTMP, 4,
     [](void *handle, const std::vector<const char *> &t) {
         return gst_rtmp_source_open_live_stream(handle, t[0], 200, 10, 0, t[1], t[2], t[3]);
     }},
    {"gst_udp_source_open_live_stream", SOURCE_TYPE_UDP, 1,
     [](void *handle, const std::vector<const char *> &t) {
         return gst_udp_source_open_live_stream(handle, t[0], 200, 700, 1492);
     }},
    {"gst_hls_source_open_live_stream", SOURCE_TYPE_HLS, 7,
     [](void *handle, const std::vector<const char *> &t) {
         return gst_hls_source_open_live_stream(handle, t[0], 200, 0, 15, 3, t[1], t[2], t[3], t[4], t[5], t[6]);
     }},
};

std::vector<const char *> Texts(const OpenFunction &function) {
    std::vector<const char *> texts(function.texts, "");
    texts[0] = ClassOf(function.type).url.c_str();
    return texts;
}

class Api : public SourceTest {
  protected:
    void TearDown() override {
        for (void *handle : m_handles) {
            gst_source_destroy(handle);
        }
        SourceTest::TearDown();
    }

    void *Create(int type) {
        void *handle = gst_source_create(type, &m_buffer, kChannel, kStream);
        EXPECT_NE(nullptr, handle);
        m_handles.push_back(handle);
        return handle;
    }

    // Builds and starts, but never reaches for the network.
    void Pretend() { m_faults.SetPlay(Play::Pretend); }
    // Calls `body` with each open function, its class and a source that
    // it has opened; what was said so far is taken.
    using Body = std::function<void(const OpenFunction &, const SourceClass &, void *handle)>;
    void WithEachOpened(const Body &body) {
        Pretend();
        for (const OpenFunction &function : kOpenFunctions) {
            SCOPED_TRACE(function.name);
            const SourceClass &row = ClassOf(function.type);
            void *handle = gst_source_create(function.type, &m_buffer, kChannel, kStream);
            EXPECT_EQ(0, function.open(handle, Texts(function)));
            EXPECT_TRUE(Eventually([&] { return SourceProbe::StateText(Base(handle)) == row.stateAfterPlay; }));
            m_log.Take();
            body(function, row, handle);
        }
    }

    static CBaseSource &Base(void *handle) { return *static_cast<CBaseSource *>(handle); }

    std::vector<void *> m_handles;
};

Line ArgsError(const std::string &function) {
    return Raw(function + ": Input args error!!!");
}

}  // namespace

TEST_F(Api, CreateByType) {
    for (const SourceClass &row : SourceClasses()) {
        void *handle = Create(row.type);
        // The class shows in its close line.
        m_log.Take();
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        EXPECT_EQ(row.IdleCloseLines(""), m_log.Take());
    }
}

TEST_F(Api, CreateRefusesReservedAndUnknownTypesSilently) {
    for (const int type : {4, 6, 7, 8, -1, 100, -2147483647 - 1, 2147483647}) {
        EXPECT_EQ(nullptr, gst_source_create(type, &m_buffer, 0, 0)) << type;
    }
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_F(Api, CreateRefusesNullBuffer) {
    for (const int type : {0, 1, 2, 3, 4, 5, 6, -1}) {
        EXPECT_EQ(nullptr, gst_source_create(type, nullptr, 0, 0)) << type;
        EXPECT_EQ(Lines{Raw("gst_source_create: Input buffer args error!!!")}, m_log.Take());
    }
}

TEST_F(Api, NullHandles) {
    EXPECT_EQ(-1, gst_source_close_live_stream(nullptr));
    gst_source_destroy(nullptr);
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_F(Api, StatusRefusesNull) {
    void *handle = Create(SOURCE_TYPE_UDP);
    source_status_t status;
    std::memset(&status, 0x55, sizeof status);
    EXPECT_EQ(-1, gst_source_get_status(nullptr, &status));
    EXPECT_EQ(-1, gst_source_get_status(handle, nullptr));
    EXPECT_EQ(-1, gst_source_get_status(nullptr, nullptr));
    EXPECT_EQ(Lines(3, ArgsError("gst_source_get_status")), m_log.Take());
    EXPECT_EQ(0x55, status.state[0]);
    EXPECT_EQ(0, gst_source_get_status(handle, &status));
    EXPECT_STREQ("", status.state);
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_F(Api, MediaInfoRefusesNull) {
    void *handle = Create(SOURCE_TYPE_HLS);
    media_code_info_t video;
    media_code_info_t audio;
    std::memset(&video, 0x55, sizeof video);
    std::memset(&audio, 0x55, sizeof audio);
    EXPECT_EQ(-1, gst_source_get_media_info(nullptr, &video, &audio));
    EXPECT_EQ(-1, gst_source_get_media_info(handle, nullptr, &audio));
    EXPECT_EQ(-1, gst_source_get_media_info(handle, &video, nullptr));
    EXPECT_EQ(-1, gst_source_get_media_info(nullptr, nullptr, nullptr));
    EXPECT_EQ(Lines(4, ArgsError("gst_source_get_media_info")), m_log.Take());
    EXPECT_EQ(0x55555555, video.type);
    EXPECT_EQ(0, gst_source_get_media_info(handle, &video, &audio));
    EXPECT_EQ(0, video.type);
    EXPECT_EQ(1, audio.type);
    EXPECT_EQ(Lines{}, m_log.Take());
}

TEST_F(Api, MediaInfoTellsVideoFromAudio) {
    void *handle = Create(SOURCE_TYPE_UDP);
    ReportVideo(Base(handle), {"H264", "progressive", 640, 360, 25, 1, 2});
    ReportAudio(Base(handle), {"AAC", 44100, 1, 1024, 5});
    media_code_info_t video;
    media_code_info_t audio;
    EXPECT_EQ(0, gst_source_get_media_info(handle, &video, &audio));
    EXPECT_EQ("H264 640x360 25 fps, scan 0, 2 references", Describe(video));
    EXPECT_EQ("AAC 44100 Hz, 1 channels, 1024 samples, extra 5", Describe(audio));
    source_status_t status;
    EXPECT_EQ(0, gst_source_get_status(handle, &status));
    EXPECT_EQ(" : H264 640x360 25 fps, 0 real, 0 bit/s; AAC 44100 Hz, 1 channels, 0 real, 0 bit/s", Describe(status));
}

TEST_F(Api, CallbackRefusesNullAndKeepsTheOldOne) {
    void *handle = Create(SOURCE_TYPE_SRT);
    const media_change_callback_t callback = [](void *, media_code_info_t *) {};
    gst_source_set_media_change_callback(handle, callback, nullptr);
    EXPECT_EQ(callback, SourceProbe::Callback(Base(handle)));
    EXPECT_EQ(Lines{}, m_log.Take());
    gst_source_set_media_change_callback(handle, nullptr, this);
    gst_source_set_media_change_callback(nullptr, callback, this);
    EXPECT_EQ(Lines(2, ArgsError("gst_source_set_media_change_callback")), m_log.Take());
    EXPECT_EQ(callback, SourceProbe::Callback(Base(handle)));
}

TEST_F(Api, OpenRefusesEachNull) {
    for (const OpenFunction &function : kOpenFunctions) {
        SCOPED_TRACE(function.name);
        void *handle = Create(function.type);
        EXPECT_EQ(-1, function.open(nullptr, Texts(function)));
        EXPECT_EQ(Lines{ArgsError(function.name)}, m_log.Take());
        for (std::size_t missing = 0; missing < function.texts; ++missing) {
            std::vector<const char *> texts = Texts(function);
            texts[missing] = nullptr;
            EXPECT_EQ(-1, function.open(handle, texts)) << missing;
            EXPECT_EQ(Lines{ArgsError(function.name)}, m_log.Take()) << missing;
        }
        EXPECT_EQ("", Base(handle).GetURL());
        EXPECT_EQ(nullptr, SourceProbe::Pipeline(Base(handle)));
    }
}

TEST_F(Api, OpenAnswersAHandleOfAnotherProtocol) {
    for (const OpenFunction &function : kOpenFunctions) {
        for (const SourceClass &row : SourceClasses()) {
            if (row.type == function.type) {
                continue;
            }
            SCOPED_TRACE(std::string(function.name) + " of " + row.name);
            void *handle = Create(row.type);
            EXPECT_EQ(-1, function.open(handle, Texts(function)));
            EXPECT_EQ(Lines{Raw(std::string(function.name) + ": The source handle is of another protocol!!!")}, m_log.Take());
            EXPECT_EQ("", Base(handle).GetURL());
        }
    }
}

TEST_F(Api, OpenTwiceCloseTwiceDestroy) {
    WithEachOpened([this](const OpenFunction &function, const SourceClass &row, void *handle) {
        std::vector<const char *> other = Texts(function);
        other[0] = "other://location";
        EXPECT_EQ(-1, function.open(handle, other));
        EXPECT_EQ(Lines{row.AlreadyLive("other://location")}, m_log.Take());
        EXPECT_EQ(row.url, Base(handle).GetURL());

        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        EXPECT_EQ(row.CloseLines(row.url, {Info(row.exitMessage)}), m_log.Take());
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        EXPECT_EQ(row.IdleCloseLines(row.url), m_log.Take());
        gst_source_destroy(handle);
        EXPECT_EQ(row.IdleCloseLines(row.url) + Lines{row.Destroyed(row.url)}, m_log.Take());
    });
}

TEST_F(Api, DestroyWhileOpen) {
    WithEachOpened([this](const OpenFunction &, const SourceClass &row, void *handle) {
        gst_source_destroy(handle);
        EXPECT_EQ(row.CloseLines(row.url, {Info(row.exitMessage)}) + Lines{row.Destroyed(row.url)}, m_log.Take());
    });
}

TEST_F(Api, FailedOpenAnswersMinusOne) {
    for (const OpenFunction &function : kOpenFunctions) {
        SCOPED_TRACE(function.name);
        const SourceClass &row = ClassOf(function.type);
        void *handle = Create(function.type);
        m_faults.FailPipeline();
        EXPECT_EQ(-1, function.open(handle, Texts(function)));
        const Lines lines = m_log.Take();
        ASSERT_LE(2U, lines.size());
        EXPECT_EQ(row.NotAllElements(row.url), lines[lines.size() - 2]);
        EXPECT_EQ(row.BuildFailure(row.url), lines.back());
    }
}

TEST_F(Api, EmptyTextsAreAccepted) {
    Pretend();
    void *handle = Create(SOURCE_TYPE_SRT);
    EXPECT_EQ(0, gst_srt_source_open_live_stream(handle, "srt://127.0.0.1:9", 200, "caller", "", "", 0, 125, 50, ""));
}

TEST_F(Api, RtspConnectionTimeOutIsMicrosecondsIn32Bits) {
    struct Row {
        unsigned int seconds;
        guint64 microseconds;
    };
    const Row rows[] = {{15, 15000000},           {0, 0}, {4294, 4294000000}, {4295, 32704}, {5000, 705032704},
                        {0xFFFFFFFFU, 4293967296}};
    Pretend();
    for (const Row &row : rows) {
        void *handle = Create(SOURCE_TYPE_RTSP);
        EXPECT_EQ(0, gst_rtsp_source_open_live_stream(handle, "rtsp://127.0.0.1:9/", 1, 7, 3, row.seconds, "u", "p"));
        EXPECT_EQ(row.microseconds, Property<guint64>(Element(Base(handle), "Rtspsrc"), "tcp-timeout"));
        EXPECT_EQ(1U, m_log.Count(Info("[CRtspSource] Open rtsp://127.0.0.1:9/... {Opts:caching=1,protocols=7,latency=3,"
                                       "contimeout=" +
                                       std::to_string(row.microseconds) + ",user=u,pwd=p}")))
            << row.seconds;
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
    }
}

TEST_F(Api, HlsLiveFlagIsTrueForAnythingButZero) {
    Pretend();
    const std::pair<unsigned int, const char *> rows[] = {{0, "0"}, {1, "1"}, {2, "1"}, {0x80000000U, "1"}};
    for (const auto &[value, text] : rows) {
        void *handle = Create(SOURCE_TYPE_HLS);
        EXPECT_EQ(0, gst_hls_source_open_live_stream(handle, "http://127.0.0.1:9/a.m3u8", 200, value, 15, -1, "", "pi", "pp",
                                                     "agent", "", ""));
        EXPECT_EQ(value != 0, Property<gboolean>(Element(Base(handle), "Souphttpsrc"), "is-live") != FALSE);
        EXPECT_EQ(Info("[CHLSSource] Open http://127.0.0.1:9/a.m3u8 { Opts: caching=200,islive=" + std::string(text) +
                       ",timeout=15,retries=-1,proxy=,proxy_id=pi,proxy_pwd=pp,user_agent=agent }"),
                  m_log.Take().at(0));
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        m_log.Take();
    }
}

TEST_F(Api, OptionsPassUnchanged) {
    Pretend();
    void *srt = Create(SOURCE_TYPE_SRT);
    EXPECT_EQ(0, gst_srt_source_open_live_stream(srt, "srt://127.0.0.1:9", 1, "m", "s", "0123456789", 16, 2, 3, "127.0.0.1"));
    void *rtmp = Create(SOURCE_TYPE_RTMP);
    EXPECT_EQ(0, gst_rtmp_source_open_live_stream(rtmp, "rtmp://127.0.0.1:9/a/b", 1, 2, 3, "u", "p", "t"));
    void *udp = Create(SOURCE_TYPE_UDP);
    EXPECT_EQ(0, gst_udp_source_open_live_stream(udp, "udp://127.0.0.1:0", 1, 2, 3));
    EXPECT_EQ(1U, m_log.Count(Info("[CSrtSource] Open srt://127.0.0.1:9... {Opts:caching=1,mode=m,streamid=s,"
                                   "passphrase=0123456789,keylen=16,latency=2,tslatency=3,localaddress=127.0.0.1}")));
    EXPECT_EQ(1U, m_log.Count(Info("[CRtmpSource] Open rtmp://127.0.0.1:9/a/b... {Opts:caching=1,contimeout=2,idle_timeout=3,"
                                   "user=u,pwd=p,token=t}")));
    EXPECT_EQ(1U, m_log.Count(Info("[CUDPSource] Open udp://127.0.0.1:0... {Opts:caching=1,ts_latency=2,mtu=3}")));
    for (void *handle : {srt, rtmp, udp}) {
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
    }
}

}  // namespace unit
