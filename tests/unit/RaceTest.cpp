// The threads of a source against each other: host, worker, streaming threads and readers. By themselves
// these tests check that nobody ever sees a mixture; under the thread sanitizer they check every access.
#include "support/FakeDemux.h"
#include "support/Fixture.h"
#include "support/Loopback.h"
#include "support/Records.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

namespace unit {

namespace {

using Job = std::function<void()>;

// Runs all jobs at the same time, from the same moment on.
void Together(const std::vector<Job> &jobs) {
    std::atomic<std::size_t> ready{0};
    std::vector<std::thread> threads;
    for (const Job &job : jobs) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < jobs.size()) {
                std::this_thread::yield();
            }
            job();
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// Two reports that differ in everything, so that a mixture shows.
const VideoReport kVideo[2] = {{"H264", "progressive", 1920, 1080, 25, 1, 4},
                               {"H265-LONGER-NAME", "interlaced", 640, 360, 50, 1, 2}};
const AudioReport kAudio[2] = {{"AAC", 48000, 2, 1024, 1}, {"MPEG4-GENERIC", 44100, 1, 960, 2}};

bool IsOneVideo(const media_code_info_t &info) {
    const std::string text = Describe(info);
    return text == "H264 1920x1080 25 fps, scan 0, 4 references" ||
           text == "H265-LONGER-NAME 640x360 50 fps, scan 1, 2 references";
}

bool IsOneAudio(const media_code_info_t &info) {
    const std::string text = Describe(info);
    return text == "AAC 48000 Hz, 2 channels, 1024 samples, extra 1" ||
           text == "MPEG4-GENERIC 44100 Hz, 1 channels, 960 samples, extra 2";
}

bool IsCleared(media_code_info_t info, int type) {
    if (info.type != type) {
        return false;
    }
    info.type = 0;
    const media_code_info_t zero{};
    return std::memcmp(&zero, &info, sizeof info) == 0;
}

bool IsWhole(const source_status_t &status) {
    const std::string state = FieldText(status.state);
    const bool known = state.empty() || state == "start" || state == "connected" || state == "reconnect" || state == "stop";
    const std::string mode = FieldText(status.source_mode);
    bool video = status.width == 0 && status.height == 0;
    bool audio = status.sample_rate == 0 && status.channels == 0;
    for (int i = 0; i < 2; ++i) {
        // A close empties the code and leaves the rest.
        const std::string video_code = FieldText(status.video_code);
        video =
            video || (status.width == kVideo[i].width && status.height == kVideo[i].height &&
                      status.fps == static_cast<float>(kVideo[i].fpsN) && (video_code.empty() || video_code == kVideo[i].code));
        const std::string audio_code = FieldText(status.audio_code);
        audio = audio || (status.sample_rate == kAudio[i].sampleRate && status.channels == kAudio[i].channels &&
                          (audio_code.empty() || audio_code == kAudio[i].code));
    }
    return known && (mode.empty() || mode == "live") && video && audio;
}

// What a callback has seen. The two callbacks tell by their user
// pointer whether they were called with their own.
struct Seen {
    std::atomic<int> calls{0};
    std::atomic<int> wrong{0};
};
Seen g_seen[2];

template <int Number>
void HostCallback(void *user, media_code_info_t *info) {
    Seen &seen = g_seen[Number];
    ++seen.calls;
    const media_code_info_t copy = *info;
    if (user != &seen || !(copy.type == 0 ? IsOneVideo(copy) : IsOneAudio(copy))) {
        ++seen.wrong;
    }
}

// What the demultiplexer's streaming thread does: exposes pads and lets the sinks behind them report.
void Stream(GstElement *self, const std::atomic<bool> &stop) {
    const char *const video[] = {"video/x-h264", "video/x-h264", "video/x-h265"};
    const char *const audio[] = {"audio/mpeg, mpegversion=(int)4", "audio/mpeg, mpegversion=(int)1", "audio/x-ac3"};
    for (unsigned int i = 0; !stop; ++i) {
        if (i < 6) {
            ExposePad(self, "src_" + std::to_string(i), i % 2 == 0 ? video[i / 2] : audio[i / 2]);
        }
        for (const char *name : {"h26xshbsink", "audioshbsink"}) {
            GstElement *sink = Sibling(self, name);
            if (sink != nullptr) {
                EmitBitrate(sink, i);
                EmitFps(sink, i);
                EmitVideoChanged(sink, kVideo[i % 2]);
                EmitAudioChanged(sink, kAudio[i % 2]);
                gst_object_unref(sink);
            }
        }
        std::this_thread::yield();
    }
}

class Races : public SourceTest {
  protected:
    static void SetUpTestSuite() {
        RegisterFakeDemux();
        SetDemuxScript(Stream);
    }
    void SetUp() override {
        for (Seen &seen : g_seen) {
            seen.calls = 0;
            seen.wrong = 0;
        }
    }
    void TearDown() override {
        EXPECT_EQ(0, g_seen[0].wrong);
        EXPECT_EQ(0, g_seen[1].wrong);
        SourceTest::TearDown();
    }

    static void ExchangeCallback(CBaseSource &source, int turn) {
        if (turn % 2 == 0) {
            source.SetMediaChangeCallback(HostCallback<0>, &g_seen[0]);
        } else {
            source.SetMediaChangeCallback(HostCallback<1>, &g_seen[1]);
        }
    }

    static void ReadAll(CBaseSource &source, std::atomic<int> &mixed) {
        media_code_info_t video;
        media_code_info_t audio;
        source.GetMediaInfo(&video, &audio);
        source_status_t status;
        source.GetSourceStatus(&status);
        if (!(IsOneVideo(video) || IsCleared(video, 0)) || !(IsOneAudio(audio) || IsCleared(audio, 1)) || !IsWhole(status)) {
            ++mixed;
        }
    }
};

}  // namespace

// ---- Records ----------------------------------------------------------------------------------------------------------------

TEST_F(Races, HandlersClearingReadersAndCallback) {
    constexpr int kTurns = 3000;
    std::atomic<int> reporting{2};  // the others go on as long as these two
    CBaseSource &source = Make(ClassOf(SOURCE_TYPE_RTSP));
    ExchangeCallback(source, 0);
    GstElement *const sink = AnySink();
    std::atomic<int> mixed{0};
    Together({
        [&] {
            for (int i = 0; i < kTurns; ++i) {
                ReportVideo(source, kVideo[i % 2]);
                CBaseSource::shbsink_video_bitrate_handler(sink, 1, &source);
                CBaseSource::shbsink_video_fps_handler(sink, 25, &source);
            }
            --reporting;
        },
        [&] {
            for (int i = 0; i < kTurns; ++i) {
                ReportAudio(source, kAudio[i % 2]);
                CBaseSource::shbsink_audio_bitrate_handler(sink, 1, &source);
                CBaseSource::shbsink_audio_fps_handler(sink, 25, &source);
            }
            --reporting;
        },
        [&] {
            while (reporting > 0) {
                source.ClearMediaInfo();
            }
        },
        [&] {
            while (reporting > 0) {
                ReadAll(source, mixed);
            }
        },
        [&] {
            for (int i = 0; reporting > 0; ++i) {
                ExchangeCallback(source, i);
            }
        },
    });
    EXPECT_EQ(0, mixed);
    EXPECT_LT(0, g_seen[0].calls + g_seen[1].calls);
}

// ---- Builders against handlers ----------------------------------------------------------------------------------------------

TEST_F(Races, BuildersAgainstHandlers) {
    constexpr int kTurns = 500;
    for (const SourceClass &row : SourceClasses()) {
        SCOPED_TRACE(row.name);
        CBaseSource &source = Make(row);
        SourceProbe::SetUrl(source, row.url);
        ASSERT_TRUE(row.build(source));
        const TestPad video = MakePad("video_0", "");
        const TestPad audio = MakePad("audio_0", "");
        ASSERT_TRUE(row.video(source, video.get(), "H264"));
        ASSERT_TRUE(row.audio(source, audio.get(), "AAC"));
        const int children = GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(source)));
        GstElement *video_sink = row.branch(source).sink[0];
        GstElement *audio_sink = row.branch(source).sink[1];
        std::atomic<int> mixed{0};
        std::atomic<int> refused{0};
        Together({
            [&] {
                for (int i = 0; i < kTurns; ++i) {
                    refused += row.video(source, video.get(), i % 2 == 0 ? "H264" : "H265") ? 0 : 1;
                    refused += row.audio(source, audio.get(), i % 2 == 0 ? "AAC" : "MP3") ? 0 : 1;
                }
            },
            [&] {
                for (int i = 0; i < kTurns; ++i) {
                    EmitVideoChanged(video_sink, kVideo[i % 2]);
                    EmitBitrate(video_sink, 7);
                }
            },
            [&] {
                for (int i = 0; i < kTurns; ++i) {
                    EmitAudioChanged(audio_sink, kAudio[i % 2]);
                    EmitFps(audio_sink, 7);
                }
            },
            [&] {
                // What the worker does meanwhile.
                for (int i = 0; i < kTurns; ++i) {
                    if (SourceProbe::MediaChanged(source)) {
                        SourceProbe::MediaChanged(source) = false;
                    }
                    ReadAll(source, mixed);
                }
            },
        });
        EXPECT_EQ(0, mixed);
        EXPECT_EQ(0, refused);
        EXPECT_EQ(children, GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(source)))) << "nothing is built twice";
        m_source.reset();
    }
}

// rtspsrc adds the pads of its streams on a thread each.
TEST_F(Races, PadsOfOneMediumAtOnce) {
    constexpr int kTurns = 50;
    const SourceClass &row = ClassOf(SOURCE_TYPE_RTSP);
    for (int turn = 0; turn < kTurns; ++turn) {
        CBaseSource &source = Make(row);
        SourceProbe::SetUrl(source, row.url);
        ASSERT_TRUE(row.build(source));
        const int front = GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(source)));
        const char *const caps = "application/x-rtp, media=video, encoding-name=H264, clock-rate=90000";
        const TestPad pads[] = {MakePad("video_0", caps), MakePad("video_1", caps)};
        const auto add = [&](const TestPad &pad) { row.padAdded(nullptr, pad.get(), &source); };
        Together({[&] { add(pads[0]); }, [&] { add(pads[1]); }});
        EXPECT_EQ(front + 5, GST_BIN_NUMCHILDREN(GST_BIN(SourceProbe::Pipeline(source)))) << "one branch";
        EXPECT_NE(gst_pad_is_linked(pads[0].get()), gst_pad_is_linked(pads[1].get()));
        m_source.reset();
    }
}

// ---- Close against the worker -----------------------------------------------------------------------------------------------

TEST_F(Races, CloseAgainstTheWorker) {
    constexpr int kCycles = 6;
    m_faults.SetPlay(Play::Pretend);
    // Sessions end at every third poll, by one kind of message after the other.
    m_faults.OnPoll([](int number) -> GstMessage * {
        if (number % 3 != 0) {
            std::this_thread::yield();
            return gst_message_new_duration_changed(nullptr);
        }
        return number % 2 == 0 ? gst_message_new_eos(nullptr)
                               : gst_message_new_element(nullptr, gst_structure_new_empty("GstUDPSrcTimeout"));
    });
    std::vector<Job> jobs;
    std::atomic<int> mixed{0};
    std::atomic<int> failed{0};
    for (const SourceClass &row : SourceClasses()) {
        jobs.emplace_back([&] {
            std::mt19937 random(static_cast<unsigned int>(row.type));
            for (int cycle = 0; cycle < kCycles; ++cycle) {
                const SourcePtr source(row.create(&m_buffer, kChannel, kStream));
                ExchangeCallback(*source, cycle);
                std::atomic<bool> stop{false};
                std::thread reader([&] {
                    while (!stop) {
                        ReadAll(*source, mixed);
                        SourceProbe::MediaChanged(*source) = true;
                        std::this_thread::yield();
                    }
                });
                failed += row.open(*source, row.url.c_str()) ? 0 : 1;
                const std::uint_fast32_t moment = random() % 2000;
                for (std::uint_fast32_t i = 0; i < moment; ++i) {
                    std::this_thread::yield();
                }
                source->CloseLiveStream();
                failed += SourceProbe::StateText(*source) == "stop" ? 0 : 1;
                // The second session ends by itself, or is closed before.
                failed += row.open(*source, row.url.c_str()) ? 0 : 1;
                if (cycle % 2 == 0) {
                    source->CloseLiveStream();
                }
                stop = true;
                reader.join();
            }
        });
    }
    Together(jobs);
    EXPECT_EQ(0, mixed);
    EXPECT_EQ(0, failed);
}

TEST_F(Races, ManySourcesAtOnce) {
    m_faults.SetPlay(Play::Pretend);
    std::vector<Job> jobs;
    std::atomic<int> failed{0};
    for (int copy = 0; copy < 3; ++copy) {
        for (const SourceClass &row : SourceClasses()) {
            jobs.emplace_back([&] {
                for (int cycle = 0; cycle < 4; ++cycle) {
                    void *source = gst_source_create(row.type, &m_buffer, 0, 0);
                    gst_source_set_media_change_callback(source, HostCallback<1>, &g_seen[1]);
                    CBaseSource &base = *static_cast<CBaseSource *>(source);
                    failed += row.open(base, row.url.c_str()) ? 0 : 1;
                    failed += row.open(base, row.url.c_str()) ? 1 : 0;
                    source_status_t status;
                    failed += gst_source_get_status(source, &status) == 0 && IsWhole(status) ? 0 : 1;
                    failed += gst_source_close_live_stream(source) == 0 ? 0 : 1;
                    gst_source_destroy(source);
                }
            });
        }
    }
    Together(jobs);
    EXPECT_EQ(0, failed);
}

// ---- Streaming threads against rebuilds and close ---------------------------------------------------------------------------

TEST_F(Races, StreamingThreadsAgainstRebuildsAndClose) {
    constexpr int kCycles = 5;
    m_faults.Substitute("tsdemux", kFakeDemux);
    std::vector<Job> jobs;
    std::atomic<int> mixed{0};
    std::atomic<int> failed{0};
    for (const int type : {SOURCE_TYPE_UDP, SOURCE_TYPE_UDP, SOURCE_TYPE_SRT}) {
        jobs.emplace_back([&, type] {
            const SourceClass &row = ClassOf(type);
            const std::string port = std::to_string(FreePort(SOCK_DGRAM));
            const std::string url = (type == SOURCE_TYPE_UDP ? "udp://127.0.0.1:" : "srt://127.0.0.1:") + port;
            for (int cycle = 0; cycle < kCycles; ++cycle) {
                const SourcePtr source(row.create(&m_buffer, kChannel, kStream));
                ExchangeCallback(*source, cycle);
                failed += row.open(*source, url.c_str()) ? 0 : 1;
                // Pads of other encodings keep ending the sessions; the first cycles
                // close at once, the later ones in the midst of it.
                for (int i = 0; i < cycle * 200; ++i) {
                    ReadAll(*source, mixed);
                    std::this_thread::yield();
                }
                source->CloseLiveStream();
                failed += SourceProbe::StateText(*source) == "stop" ? 0 : 1;
                ReadAll(*source, mixed);
            }
        });
    }
    Together(jobs);
    EXPECT_EQ(0, mixed);
    EXPECT_EQ(0, failed);
}

TEST_F(Races, StreamingThreadEndsSessionsByChangedMedia) {
    m_faults.Substitute("tsdemux", kFakeDemux);
    const SourceClass &row = ClassOf(SOURCE_TYPE_UDP);
    CBaseSource &source = Make(row);
    const std::string url = "udp://127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
    ExchangeCallback(source, 0);
    ASSERT_TRUE(row.open(source, url.c_str()));
    EXPECT_TRUE(Eventually([&] { return m_faults.Sleeps().size() >= 90; })) << "three rebuilds";
    source.CloseLiveStream();
    EXPECT_LT(0, g_seen[0].calls);
}

}  // namespace unit
