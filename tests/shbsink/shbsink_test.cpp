// The element: what it takes, what it refuses, what it writes and what it says about it.
#include <fcntl.h>
#include <gst/app/gstappsrc.h>
#include <gst/check/gstharness.h>
#include <gst/check/gsttestclock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <numeric>
#include <sstream>

#include "coded.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

struct VideoChanged {
    std::string code, profile, level, scan;
    int width, height, fps_n, fps_d, ref_frames;
};
struct AudioChanged {
    std::string code;
    int sample_rate, channels, samples, nominal_bitrate, media, bits_per_sample;
};

// What an element has said, in order. Signals come on streaming threads.
struct Heard {
    std::mutex lock;
    std::vector<VideoChanged> video;
    std::vector<AudioChanged> audio;
    std::vector<guint> bitrates, rates;
    std::vector<gint64> rates_at;  // monotonic, µs

    void Connect(GstElement *sink) {
        g_signal_connect(sink, "v-media-changed", G_CALLBACK(OnVideo), this);
        g_signal_connect(sink, "a-media-changed", G_CALLBACK(OnAudio), this);
        g_signal_connect(sink, "media-real-bitrate", G_CALLBACK(OnBitrate), this);
        g_signal_connect(sink, "media-real-fps", G_CALLBACK(OnRate), this);
    }
    static void OnVideo(GstElement *, const char *code, const char *profile, const char *level, const char *scan, int width,
                        int height, int fps_n, int fps_d, int ref_frames, gpointer user) {
        auto *self = static_cast<Heard *>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        self->video.push_back({code, profile, level, scan, width, height, fps_n, fps_d, ref_frames});
    }
    static void OnAudio(GstElement *, const char *code, int sample_rate, int channels, int samples, int nominal, int media,
                        int bits, gpointer user) {
        auto *self = static_cast<Heard *>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        self->audio.push_back({code, sample_rate, channels, samples, nominal, media, bits});
    }
    static void OnBitrate(GstElement *, guint value, gpointer user) {
        auto *self = static_cast<Heard *>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        self->bitrates.push_back(value);
    }
    static void OnRate(GstElement *, guint value, gpointer user) {
        auto *self = static_cast<Heard *>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        self->rates.push_back(value);
        self->rates_at.push_back(g_get_monotonic_time());
    }
};

struct SentBuffer {
    std::vector<uint8_t> bytes;
    uint64_t pts, dts, duration;
    gint64 at;  // monotonic, µs, before the sink waited for its time
};

// All frames that a track holds.
std::vector<ReadFrame> ReadTrack(const std::string &name, shb_kind_t kind) {
    std::vector<ReadFrame> frames;
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_OLDEST, kind);
    for (;;) {
        ReadFrame got = Read(reader, 0, 4 << 20);
        if (got.result != SHB_OK)
            return frames;
        frames.push_back(std::move(got));
    }
}

std::string Material(const std::string &name) {
    if (name[0] == '/')
        return name;
    return std::string(g_getenv("SHBSINK_MATERIALS")) + "/" + name;
}

std::string RunCommand(const std::string &command) {
    gchar *output = nullptr;
    gchar *argv[] = {g_strdup("sh"), g_strdup("-c"), g_strdup(command.c_str()), nullptr};
    g_spawn_sync(nullptr, argv, nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &output, nullptr, nullptr, nullptr);
    for (int i = 0; i < 3; i++)
        g_free(argv[i]);
    std::string result = output != nullptr ? output : "";
    g_free(output);
    return result;
}

// What ffprobe says of the first stream of a file.
std::map<std::string, std::string> Probe(const std::string &file) {
    std::map<std::string, std::string> fields;
    std::istringstream lines(
        RunCommand("ffprobe -v error -show_streams -select_streams 0 -of default=nw=1 '" + Material(file) + "'"));
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find('=');
        if (at != std::string::npos)
            fields[line.substr(0, at)] = line.substr(at + 1);
    }
    return fields;
}

// The first value of this field in the stream's headers, of which ffprobe does not tell everything.
int Traced(const std::string &file, const std::string &field) {
    const std::string value =
        RunCommand("ffmpeg -nostdin -i '" + Material(file) + "' -c copy -bsf:v trace_headers -f null - 2>&1 | sed -n 's/.*" +
                   field + " .* = //p' | head -1");
    EXPECT_FALSE(value.empty()) << field;
    return value.empty() ? -1 : std::stoi(value);
}

std::vector<bool> ProbeKeys(const std::string &file) {
    std::vector<bool> keys;
    std::istringstream lines(
        RunCommand("ffprobe -v error -show_packets -show_entries packet=flags -of csv=p=0 '" + Material(file) + "'"));
    for (std::string line; std::getline(lines, line);)
        keys.push_back(!line.empty() && line[0] == 'K');
    return keys;
}

// The codec data that FFmpeg has for the first stream of a file, in hexadecimal.
std::string ProbeExtradata(const std::string &file) {
    // Frames with headers of their own have it only where the container takes those away.
    const std::string container = g_str_has_suffix(file.c_str(), "aac") ? "-bsf:a aac_adtstoasc -f flv" : "-f matroska";
    return RunCommand("ffmpeg -nostdin -v error -i '" + Material(file) + "' -c copy " + container +
                      " - | ffprobe -v error -show_entries stream=extradata -show_data -of default=nk=1:nw=1 - |"
                      " sed -n 's/^[0-9a-f]\\{8\\}: \\(.\\{39\\}\\).*/\\1/p' | tr -d ' \\n'");
}

// The Vorbis headers that a decoder needs: FFmpeg and payloaders write comments of their own.
std::string WithoutComments(const std::string &codec_data) {
    const size_t first = codec_data.find("01766f72626973"), last = codec_data.find("05766f72626973");
    if (first == std::string::npos || last == std::string::npos)
        return codec_data;
    return codec_data.substr(first, 60) + codec_data.substr(last);
}

std::string Hex(const std::vector<uint8_t> &bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        std::array<char, 3> two{};
        g_snprintf(two.data(), two.size(), "%02x", byte);
        text += two.data();
    }
    return text;
}

// NAL units of a byte stream, without what stands between them.
std::vector<std::vector<uint8_t>> NalUnits(const std::vector<uint8_t> &bytes) {
    const std::array<uint8_t, 3> start{0, 0, 1};
    std::vector<std::vector<uint8_t>> units;
    auto at = std::search(bytes.begin(), bytes.end(), start.begin(), start.end());
    while (at != bytes.end()) {
        const auto begin = at + start.size();
        at = std::search(begin, bytes.end(), start.begin(), start.end());
        units.emplace_back(begin, at);
        while (!units.back().empty() && units.back().back() == 0)
            units.back().pop_back();
    }
    return units;
}

bool IsParameterSet(const std::vector<uint8_t> &unit, bool h264) {
    const int type = h264 ? unit[0] & 31 : unit[0] >> 1 & 63;
    return h264 ? type == 7 || type == 8 : type >= 32 && type <= 34;
}

// Those units that are parameter sets, or those that are not.
std::vector<uint8_t> Filtered(const std::vector<uint8_t> &bytes, bool h264, bool sets) {
    std::vector<uint8_t> kept;
    for (const auto &unit : NalUnits(bytes))
        if (IsParameterSet(unit, h264) == sets)
            kept = coded::operator+(kept, coded::Unit({unit}));
    return kept;
}

class TempDir {
  public:
    TempDir() {
        gchar *made = g_dir_make_tmp("shbsink-XXXXXX", nullptr);
        path_ = made != nullptr ? made : "";
        g_free(made);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir() { RunCommand("rm -r '" + path_ + "'"); }
    std::string File(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The sums of the pictures that a decoder makes of a byte stream, one a line.
std::string Decoded(const std::vector<uint8_t> &bytes, bool h264) {
    const TempDir directory;
    const std::string file = directory.File("stream");
    EXPECT_TRUE(g_file_set_contents(file.c_str(), reinterpret_cast<const gchar *>(bytes.data()),
                                    static_cast<gssize>(bytes.size()), nullptr));
    return RunCommand("ffmpeg -nostdin -v quiet -f " + std::string(h264 ? "h264" : "hevc") + " -i '" + file +
                      "' -f framemd5 - | grep -v '^#'");
}

class Framework : public ::testing::Environment {
  public:
    void SetUp() override {
        gst_init(nullptr, nullptr);
        // Loaded by hand: the scanner of the registry is another
        // program and cannot load an instrumented plugin.
        GstPlugin *plugin = gst_plugin_load_file(g_getenv("SHBSINK_PLUGIN"), nullptr);
        ASSERT_NE(nullptr, plugin);
        gst_object_unref(plugin);
    }
};
const auto *const framework = ::testing::AddGlobalTestEnvironment(new Framework);  // NOLINT(cert-err58-cpp)

// A pipeline "filesrc ! ... ! shbsink" that is played to its end.
class Play {
  public:
    Play(const std::string &file, const std::string &parser, int media, bool sync = false)
        : kind_(media == 48 || media == 64 ? SHB_VIDEO : SHB_AUDIO) {
        geometry_.video_frames = geometry_.audio_frames = 1024;
        buffer_ = Create(name_, geometry_);
        const std::string text = "filesrc name=source ! " + parser + " ! shbsink name=sink";
        pipeline_ = gst_parse_launch(text.c_str(), nullptr);
        // Not in the text: a blank in the path would end the value there.
        GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), "source");
        g_object_set(source, "location", Material(file).c_str(), nullptr);
        gst_object_unref(source);
        sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
        g_object_set(sink_, "share-buffer", buffer_.get(), "media", media, "sync", static_cast<gboolean>(sync), nullptr);
        heard.Connect(sink_);
        GstPad *pad = gst_element_get_static_pad(sink_, "sink");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, OnBuffer, this, nullptr);
        gst_object_unref(pad);
    }
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;
    ~Play() {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(sink_);
        gst_object_unref(pipeline_);
    }
    // True when the stream was played to its end without an error.
    bool Run() {
        sent.clear();
        GstBus *bus = gst_element_get_bus(pipeline_);
        gst_element_set_state(pipeline_, GST_STATE_PLAYING);
        GstMessage *message =
            gst_bus_timed_pop_filtered(bus, 120 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        gst_object_unref(bus);
        const bool ended = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (message != nullptr)
            gst_message_unref(message);
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        // The streaming threads are gone; the lock says so to tools that do not see into the framework.
        std::lock_guard<std::mutex> guard(heard.lock);
        return ended;
    }
    std::vector<ReadFrame> Frames() const { return ReadTrack(name_, kind_); }
    shb_stats_t Stats() const {
        shb_stats_t stats{};
        shb_buffer_stats(buffer_.get(), 0, 0, kind_, &stats);
        return stats;
    }
    shb_description_t Description() const {
        shb_description_t description{};
        shb_buffer_description(buffer_.get(), 0, 0, kind_, &description);
        return description;
    }
    std::vector<uint8_t> CodecData() const {
        Map map = Attach(name_);
        shb_description_t description{};
        std::vector<uint8_t> data(SHB_CODEC_DATA_MAX);
        size_t size = 0;
        if (shb_map_codec_data(map.get(), 0, 0, kind_, &description, data.data(), data.size(), &size) != SHB_OK)
            size = 0;
        EXPECT_EQ(size, description.codec_data_bytes);
        data.resize(size);
        return data;
    }
    uint32_t PresenceOfTheOther() const {
        shb_stats_t stats{};
        shb_buffer_stats(buffer_.get(), 0, 0, kind_ == SHB_VIDEO ? SHB_AUDIO : SHB_VIDEO, &stats);
        return stats.presence;
    }
    Heard heard;
    std::vector<SentBuffer> sent;
    bool without_dts = false;  // as RTP has it: taken off in front of the sink

  private:
    static GstPadProbeReturn OnBuffer(GstPad *, GstPadProbeInfo *info, gpointer user) {
        GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_READ);
        auto *self = static_cast<Play *>(user);
        const gint64 now = g_get_monotonic_time();
        std::lock_guard<std::mutex> guard(self->heard.lock);
        self->sent.push_back({std::vector<uint8_t>(map.data, map.data + map.size), GST_BUFFER_PTS(buffer),
                              GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer), now});
        gst_buffer_unmap(buffer, &map);
        if (self->without_dts) {
            buffer = gst_buffer_make_writable(buffer);
            GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
            GST_PAD_PROBE_INFO_DATA(info) = buffer;
        }
        return GST_PAD_PROBE_OK;
    }
    const shb_kind_t kind_;
    const std::string name_ = UniqueName();
    shb_geometry_t geometry_{};
    Buffer buffer_;
    GstElement *pipeline_ = nullptr;
    GstElement *sink_ = nullptr;
};

void ExpectWrittenAsSent(const Play &play) {
    const auto frames = play.Frames();
    ASSERT_EQ(play.sent.size(), frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        ASSERT_EQ(play.sent[i].bytes, frames[i].bytes) << "frame " << i;
        EXPECT_EQ(play.sent[i].pts, frames[i].frame.pts);
        EXPECT_EQ(play.sent[i].dts, frames[i].frame.dts);
        EXPECT_EQ(play.sent[i].duration, frames[i].frame.duration);
        EXPECT_EQ(i, frames[i].frame.sequence);
    }
}

const char *const kH264 = "h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au";
const char *const kH265 = "h265parse config-interval=-1 ! video/x-h265,stream-format=byte-stream,alignment=au";

}  // namespace

// ---- Video ---------------------------------------------------------------------------------------------------------

struct VideoCase {
    const char *file;
    const char *scan;
};

class ShbSinkVideo : public ::testing::TestWithParam<VideoCase> {};

TEST_P(ShbSinkVideo, ReportsWhatTheStreamSays) {
    const std::string file = GetParam().file;
    const bool h264 = g_str_has_suffix(file.c_str(), "h264");
    auto probed = Probe(file);
    ASSERT_FALSE(probed["width"].empty());
    Play play(file, h264 ? kH264 : kH265, h264 ? 48 : 64);
    ASSERT_TRUE(play.Run());
    ASSERT_EQ(1u, play.heard.video.size());
    EXPECT_TRUE(play.heard.audio.empty());
    const VideoChanged &said = play.heard.video[0];
    EXPECT_EQ(h264 ? "H264" : "H265", said.code);
    EXPECT_EQ(probed["width"], std::to_string(said.width));
    EXPECT_EQ(probed["height"], std::to_string(said.height));
    // Not ffprobe's rates: of raw streams, they are those of its own clock
    // with FFmpeg 7. H.264 counts two ticks a frame.
    const int scale = Traced(file, "time_scale");
    const int ticks = Traced(file, "num_units_in_tick") * (h264 ? 2 : 1);
    const int common = std::gcd(scale, ticks);
    EXPECT_EQ(scale / common, said.fps_n);
    EXPECT_EQ(ticks / common, said.fps_d);
    EXPECT_EQ(GetParam().scan, said.scan);
    std::string profile = probed["profile"];
    for (char &c : profile)
        c = c == ' ' ? '-' : g_ascii_tolower(c);
    EXPECT_EQ(profile, said.profile.substr(0, profile.size()));
    EXPECT_NEAR(std::stod(probed["level"]) / (h264 ? 10 : 30), std::stod(said.level), 0.01);
    EXPECT_EQ(std::max(1, Traced(file, h264 ? "max_num_ref_frames" : "sps_max_dec_pic_buffering_minus1.0.")), said.ref_frames);
    const shb_description_t description = play.Description();
    EXPECT_EQ(1u, description.serial);
    EXPECT_EQ(h264 ? 48 : 64, description.media);
    EXPECT_EQ(said.code, description.code);
    EXPECT_EQ(said.profile, description.profile);
    EXPECT_EQ(said.level, description.level);
    EXPECT_EQ(said.width, description.width);
    EXPECT_EQ(said.fps_n, description.fps_n);
    EXPECT_EQ(said.ref_frames, description.ref_frames);
    EXPECT_STREQ("byte-stream", description.format);
    // Pictures that are all complete in themselves need not state what their profile implies.
    const bool intra = file == "intra.h264";
    EXPECT_EQ(intra ? 0 : Traced(file, h264 ? "max_num_reorder_frames" : "sps_max_num_reorder_pics.0."),
              description.reorder_frames);
}

TEST_P(ShbSinkVideo, CodecDataAreItsParameterSets) {
    const std::string file = GetParam().file;
    const bool h264 = g_str_has_suffix(file.c_str(), "h264");
    Play play(file, h264 ? kH264 : kH265, h264 ? 48 : 64);
    ASSERT_TRUE(play.Run());
    EXPECT_EQ(Hex(Filtered(play.sent.at(0).bytes, h264, true)), Hex(play.CodecData()));
    EXPECT_EQ(1u, play.Description().serial) << "they are repeated at every key frame";
}

// Without what comes with the frames: as when their sender sends its parameter sets only once.
TEST_P(ShbSinkVideo, LateReaderDecodesWithTheCodecData) {
    const std::string file = GetParam().file;
    const bool h264 = g_str_has_suffix(file.c_str(), "h264");
    Play play(file, h264 ? kH264 : kH265, h264 ? 48 : 64);
    ASSERT_TRUE(play.Run());
    const auto frames = play.Frames();
    const auto late = std::find_if(frames.begin() + 1, frames.end(),
                                   [](const ReadFrame &frame) { return (frame.frame.flags & SHB_FRAME_KEY) != 0; });
    ASSERT_NE(frames.end(), late);
    std::vector<uint8_t> in_band, bytes = play.CodecData();
    for (auto frame = late; frame != frames.end(); ++frame) {
        in_band = coded::operator+(std::move(in_band), frame->bytes);
        bytes = coded::operator+(std::move(bytes), Filtered(frame->bytes, h264, false));
    }
    const std::string pictures = Decoded(bytes, h264);
    EXPECT_GT(std::count(pictures.begin(), pictures.end(), '\n'), 10);
    EXPECT_EQ(Decoded(in_band, h264), pictures);
}

TEST_P(ShbSinkVideo, WritesWhatItGets) {
    const std::string file = GetParam().file;
    const bool h264 = g_str_has_suffix(file.c_str(), "h264");
    Play play(file, h264 ? kH264 : kH265, h264 ? 48 : 64);
    ASSERT_TRUE(play.Run());
    ASSERT_GE(play.sent.size(), 70u);
    ExpectWrittenAsSent(play);
    const auto frames = play.Frames();
    const auto keys = ProbeKeys(file);
    ASSERT_EQ(keys.size(), frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        EXPECT_EQ(keys[i], (frames[i].frame.flags & SHB_FRAME_KEY) != 0) << "frame " << i;
        EXPECT_EQ(0u, frames[i].frame.flags & SHB_FRAME_HEADER);
        EXPECT_EQ(1u, frames[i].frame.description);
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, ShbSinkVideo,
                         ::testing::Values(VideoCase{"progressive.h264", "progressive"},
                                           VideoCase{"interlaced.h264", "interlaced"}, VideoCase{"fake.h264", "mixed"},
                                           VideoCase{"faketold.h264", "mixed"}, VideoCase{"intra.h264", "progressive"},
                                           VideoCase{"refresh.h264", "progressive"},
                                           VideoCase{"progressive.h265", "progressive"},
                                           VideoCase{"opengop.h265", "progressive"}),
                         [](const auto &which) {
                             std::string name = which.param.file;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

TEST(ShbSink, EachChangeOfTheStreamIsReportedOnce) {
    Play play("resized.h264", kH264, 48);
    ASSERT_TRUE(play.Run());
    ASSERT_EQ(2u, play.heard.video.size());
    EXPECT_EQ(636, play.heard.video[0].width);
    EXPECT_EQ(320, play.heard.video[1].width);
    EXPECT_EQ(30000, play.heard.video[1].fps_n);
    const auto frames = play.Frames();
    ASSERT_GT(frames.size(), 100u);
    for (size_t i = 0; i < frames.size(); i++)
        EXPECT_EQ(i < 75 ? 1u : 2u, frames[i].frame.description) << "frame " << i;
    EXPECT_EQ(2u, play.Description().serial);
}

TEST(ShbSink, EachRunIsAnEpoch) {
    Play play("progressive.h264", kH264, 48);
    ASSERT_TRUE(play.Run());
    EXPECT_EQ(1u, play.Stats().epoch);
    EXPECT_EQ(0, play.Stats().writer_pid);
    ASSERT_TRUE(play.Run());
    EXPECT_EQ(2u, play.Stats().epoch);
    EXPECT_EQ(75u, play.Stats().frames);
    EXPECT_EQ(150u, play.Stats().total_frames);
    EXPECT_EQ(2u, play.heard.video.size()) << "a new run knows nothing of the last";
}

namespace {

gint64 LongestPause(const std::vector<SentBuffer> &sent) {
    gint64 longest = 0;
    for (size_t i = 1; i < sent.size(); i++)
        longest = std::max(longest, sent[i].at - sent[i - 1].at);
    return longest;
}

// Whether the frames, as they came, make these rates: over a window that ends with the last
// frame before `told`, is a second long and at most a step and two pauses longer. A frame is
// counted between its own coming and that of the next.
::testing::AssertionResult RatesOfTheFrames(const std::vector<SentBuffer> &sent, gint64 told, guint bitrate, guint rate) {
    const auto after = std::find_if(sent.begin(), sent.end(), [&](const SentBuffer &frame) { return frame.at > told; });
    const size_t last = static_cast<size_t>(after - sent.begin()) - 1;
    const double longest = 1'125'000.0 + 2.0 * static_cast<double>(LongestPause(sent));
    double bits = 0;
    for (size_t first = last; first-- > 0;) {
        bits += static_cast<double>(sent[first].bytes.size()) * 8;
        const double window = bits * 1'000'000 / bitrate;
        const double frames = static_cast<double>(last - first) * 1'000'000 / window;
        // The rates are rounded; a microsecond is what that makes of the window.
        if (window > 999'998 && window < longest && window > static_cast<double>(sent[last].at - sent[first + 1].at) - 2 &&
            window < static_cast<double>(told - sent[first].at) + 2 && std::abs(frames - rate) < 0.502)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << bitrate << " bit/s and " << rate << " frames/s in front of frame " << last
                                         << " are those of no window";
}

}  // namespace

TEST(ShbSink, MeasuresRealRates) {
    // Three seconds at 25 frames/s, played by the clock. A machine that stands
    // still makes one burst of them, which has no rates.
    for (int left = 10;; left--) {
        Play play("progressive.h264", kH264, 48, true);
        ASSERT_TRUE(play.Run());
        ASSERT_EQ(75u, play.sent.size());
        if (left > 0 && (play.sent.back().at - play.sent[1].at < 1'500'000 || LongestPause(play.sent) > 1'900'000))
            continue;
        ASSERT_FALSE(play.heard.rates.empty());
        ASSERT_EQ(play.heard.rates.size(), play.heard.bitrates.size());
        for (size_t i = 0; i < play.heard.rates.size(); i++)
            EXPECT_TRUE(RatesOfTheFrames(play.sent, play.heard.rates_at[i], play.heard.bitrates[i], play.heard.rates[i]));
        break;
    }
}

// ---- Audio ---------------------------------------------------------------------------------------------------------

struct AudioCase {
    const char *file;
    const char *parser;
    int media;
    const char *code;
    int samples;
};

class ShbSinkAudio : public ::testing::TestWithParam<AudioCase> {};

TEST_P(ShbSinkAudio, ReportsAndWrites) {
    const AudioCase &param = GetParam();
    auto probed = Probe(param.file);
    Play play(param.file, param.parser, param.media);
    ASSERT_TRUE(play.Run());
    ASSERT_EQ(1u, play.heard.audio.size());
    EXPECT_TRUE(play.heard.video.empty());
    const AudioChanged &said = play.heard.audio[0];
    EXPECT_EQ(param.code, said.code);
    EXPECT_EQ(probed["sample_rate"], std::to_string(said.sample_rate));
    EXPECT_EQ(probed["channels"], std::to_string(said.channels));
    EXPECT_EQ(param.samples, said.samples);
    EXPECT_EQ(param.media, said.media);
    EXPECT_EQ(0, said.bits_per_sample);
    const shb_description_t description = play.Description();
    EXPECT_STREQ(param.code, description.code);
    EXPECT_EQ(said.sample_rate, description.sample_rate);
    EXPECT_EQ(said.channels, description.channels);
    EXPECT_EQ(said.samples, description.samples_per_frame);
    EXPECT_EQ(said.nominal_bitrate, description.nominal_bitrate);
    EXPECT_STREQ(g_str_has_suffix(param.file, "aac") ? "adts" : "", description.format);
    EXPECT_EQ(WithoutComments(ProbeExtradata(param.file)), WithoutComments(Hex(play.CodecData())));
    EXPECT_EQ(1u, description.serial);
    ASSERT_GE(play.sent.size(), 40u);
    ExpectWrittenAsSent(play);
    for (const ReadFrame &frame : play.Frames())
        EXPECT_NE(0u, frame.frame.flags & SHB_FRAME_KEY);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, ShbSinkAudio,
    ::testing::Values(AudioCase{"tone.aac", "aacparse ! audio/mpeg,stream-format=adts", 21, "AAC", 1024},
                      AudioCase{"low.aac", "aacparse ! audio/mpeg,stream-format=adts", 23, "MP4A-LATM", 1024},
                      AudioCase{"tone.mp3", "mpegaudioparse", 18, "MP3", 1152},
                      AudioCase{"low.mp3", "mpegaudioparse", 18, "MP3", 576},
                      AudioCase{"tone.mp2", "mpegaudioparse", 17, "MP2", 1152},
                      AudioCase{"tone.mp2", "mpegaudioparse ! queue", 30, "MPA", 1152},
                      AudioCase{"tone.mp3", "mpegaudioparse ! queue", 0, "MP3", 1152},
                      AudioCase{"tone.ac3", "ac3parse", 25, "AC3", 1536}, AudioCase{"tone.eac3", "ac3parse", 0, "EAC3", 1536},
                      AudioCase{"tone.opus", "oggdemux ! opusparse", 22, "OPUS", 960},
                      AudioCase{"tone.opus", "oggdemux ! opusparse ! queue", 0, "OPUS", 960},
                      AudioCase{"tone.ogg", "oggdemux ! vorbisparse", 0, "VORBIS", 576}),
    [](const auto &which) {
        std::string name = which.param.file + std::string("_") + which.param.code + "_" + std::to_string(which.param.media);
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !g_ascii_isalnum(c); }, '_');
        return name;
    });

TEST(ShbSink, RawAacHasTheConfigOfItsCaps) {
    Play play("tone.aac", "aacparse ! audio/mpeg,stream-format=raw", 21);
    ASSERT_TRUE(play.Run());
    EXPECT_STREQ("raw", play.Description().format);
    EXPECT_EQ(ProbeExtradata("tone.aac"), Hex(play.CodecData()));
}

// Depayloaders alone know less of a stream than parsers do.
TEST(ShbSink, DescribesWhatADepayloaderPasses) {
    Play aac("tone.aac", "aacparse ! rtpmp4gpay ! rtpmp4gdepay", 21);
    ASSERT_TRUE(aac.Run());
    EXPECT_EQ(ProbeExtradata("tone.aac"), Hex(aac.CodecData()));
    EXPECT_EQ(48000, aac.Description().sample_rate);
    EXPECT_EQ(2, aac.Description().channels);
    Play vorbis("tone.ogg", "oggdemux ! vorbisparse ! rtpvorbispay config-interval=1 ! rtpvorbisdepay", 0);
    ASSERT_TRUE(vorbis.Run());
    EXPECT_EQ(WithoutComments(ProbeExtradata("tone.ogg")), WithoutComments(Hex(vorbis.CodecData())));
    EXPECT_EQ(44100, vorbis.Description().sample_rate);
    Play opus("tone.opus", "oggdemux ! opusparse ! rtpopuspay ! rtpopusdepay", 22);
    ASSERT_TRUE(opus.Run());
    EXPECT_EQ("4f707573486561640102000080bb0000000000", Hex(opus.CodecData()));
}

// ---- Times -----------------------------------------------------------------------------------------------------------

namespace {

// A transport stream with B frames, which carries both times.
std::string EncodeReordered(const TempDir &directory, const std::string &encoder) {
    const std::string file = directory.File("reordered.ts");
    RunCommand("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x128:rate=25 -t 3 -pix_fmt yuv420p " + encoder + " '" +
               file + "'");
    return file;
}

}  // namespace

TEST(ShbSink, MakesTheDecodingTimesThatTheEncoderMeant) {
    const TempDir directory;
    const struct {
        const char *encoder, *parser;
        int media;
    } cases[] = {
        {"-c:v libx264 -x264-params keyint=25:bframes=2:b-adapt=0:b-pyramid=0:log-level=error", kH264, 48},
        {"-c:v libx264 -x264-params keyint=25:bframes=3:b-adapt=0:b-pyramid=normal:log-level=error", kH264, 48},
        {"-c:v libx264 -x264-params keyint=25:bframes=0:log-level=error", kH264, 48},
        {"-c:v libx265 -x265-params keyint=25:bframes=4:b-adapt=0:log-level=none", kH265, 64},
    };
    for (const auto &c : cases) {
        Play play(EncodeReordered(directory, c.encoder), std::string("tsdemux ! ") + c.parser, c.media);
        play.without_dts = true;
        ASSERT_TRUE(play.Run());
        const auto frames = play.Frames();
        ASSERT_EQ(75u, frames.size());
        int reordered = 0;
        for (size_t i = 0; i < frames.size(); i++) {
            EXPECT_EQ(play.sent[i].pts, frames[i].frame.pts);
            ASSERT_NE(GST_CLOCK_TIME_NONE, play.sent[i].dts);
            // The stream counts in units of 90 kHz.
            EXPECT_NEAR(static_cast<double>(play.sent[i].dts), static_cast<double>(frames[i].frame.dts), 20'000)
                << c.encoder << i;
            reordered += i > 0 && frames[i].frame.pts < frames[i - 1].frame.pts ? 1 : 0;
        }
        EXPECT_EQ(play.Description().reorder_frames > 0, reordered > 10) << c.encoder;
    }
}

TEST(ShbSink, TimesRelateToTheClock) {
    Play play("tone.mp3", "mpegaudioparse", 18, true);
    ASSERT_TRUE(play.Run());
    const auto frames = play.Frames();
    ASSERT_GE(frames.size(), 40u);
    for (const ReadFrame &each : frames) {
        ASSERT_NE(SHB_OFFSET_NONE, each.frame.clock_offset);
        EXPECT_EQ(frames[0].frame.clock_offset, each.frame.clock_offset);
        // The sink writes it when it is due, or later on a machine with much to do.
        const int64_t due = static_cast<int64_t>(each.frame.pts) + each.frame.clock_offset;
        EXPECT_GE(static_cast<int64_t>(each.frame.arrival_ns), due - 1'000'000);
        EXPECT_LE(static_cast<int64_t>(each.frame.arrival_ns), due + 60'000'000'000);
    }
}

// ---- The other track --------------------------------------------------------------------------------------------------

TEST(ShbSink, DemultiplexerSaysWhetherThereIsAnother) {
    Play video("stream.ts", std::string("tsdemux ! ") + kH264, 48);
    EXPECT_EQ(uint32_t{SHB_PRESENCE_UNKNOWN}, video.PresenceOfTheOther());
    ASSERT_TRUE(video.Run());
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, video.PresenceOfTheOther());
    const TempDir directory;
    const std::string alone = directory.File("alone.ts");
    RunCommand("ffmpeg -nostdin -v error -y -i '" + Material("stream.ts") + "' -map 0:a -c copy '" + alone + "'");
    Play audio(alone, "tsdemux ! aacparse", 21);
    ASSERT_TRUE(audio.Run());
    EXPECT_EQ(uint32_t{SHB_PRESENCE_ABSENT}, audio.PresenceOfTheOther());
}

// ---- Pushed by hand ------------------------------------------------------------------------------------------------

namespace {

// An element by itself, fed buffer by buffer.
class ShbSinkHarness : public ::testing::Test {
  protected:
    ShbSinkHarness() {
        g_object_set(sink_, "share-buffer", buffer_.get(), "sync", FALSE, "async", FALSE, nullptr);
        bus_ = gst_bus_new();
        gst_element_set_bus(sink_, bus_);
        heard_.Connect(sink_);
    }
    ~ShbSinkHarness() override {
        gst_element_set_state(sink_, GST_STATE_NULL);
        if (harness_ != nullptr)
            gst_harness_teardown(harness_);
        gst_element_set_bus(sink_, nullptr);
        gst_object_unref(bus_);
        gst_object_unref(sink_);
    }
    void Start(const char *caps) {
        harness_ = gst_harness_new_with_element(sink_, "sink", nullptr);
        gst_harness_set_src_caps_str(harness_, caps);
        gst_harness_play(harness_);
    }
    GstFlowReturn Push(const std::vector<uint8_t> &bytes, GstClockTime duration = GST_CLOCK_TIME_NONE, guint flags = 0) {
        GstBuffer *buffer = bytes.empty() ? gst_buffer_new() : gst_buffer_new_memdup(bytes.data(), bytes.size());
        GST_BUFFER_DURATION(buffer) = duration;
        GST_BUFFER_FLAG_SET(buffer, flags);
        return gst_harness_push(harness_, buffer);
    }
    // The next message of this type, as "domain/code: text | debug"; empty when there is none.
    std::string Message(GstMessageType type) {
        GstMessage *message = gst_bus_pop_filtered(bus_, type);
        if (message == nullptr)
            return "";
        GError *error = nullptr;
        gchar *debug = nullptr;
        if (type == GST_MESSAGE_ERROR)
            gst_message_parse_error(message, &error, &debug);
        else
            gst_message_parse_warning(message, &error, &debug);
        std::string text = std::string(g_quark_to_string(error->domain)) + "/" + std::to_string(error->code) + ": " +
                           error->message + " | " + (debug != nullptr ? debug : "");
        g_error_free(error);
        g_free(debug);
        gst_message_unref(message);
        return text;
    }
    std::vector<ReadFrame> Frames(shb_kind_t kind) const { return ReadTrack(name_, kind); }
    static std::string Code(GQuark domain, int code) {
        return std::string(g_quark_to_string(domain)) + "/" + std::to_string(code);
    }
    // What the base class says on top of the reason is not of interest.
    bool Starts() {
        gst_bus_set_flushing(bus_, TRUE);
        gst_bus_set_flushing(bus_, FALSE);
        return gst_element_set_state(sink_, GST_STATE_PAUSED) != GST_STATE_CHANGE_FAILURE;
    }

    shb_stats_t Stats(shb_kind_t kind) const {
        shb_stats_t stats{};
        EXPECT_EQ(SHB_OK, shb_buffer_stats(buffer_.get(), 0, 0, kind, &stats));
        return stats;
    }
    std::vector<uint8_t> CodecData(shb_kind_t kind, shb_description_t *description) const {
        Map map = Attach(name_);
        std::vector<uint8_t> data(SHB_CODEC_DATA_MAX);
        size_t size = 0;
        EXPECT_EQ(SHB_OK, shb_map_codec_data(map.get(), 0, 0, kind, description, data.data(), data.size(), &size));
        data.resize(size);
        return data;
    }
    // The offset that a frame gets which is pushed now.
    int64_t PushedOffset() {
        EXPECT_EQ(GST_FLOW_OK, Push(std::vector<uint8_t>(160, 0x55)));
        return Stats(SHB_AUDIO).clock_offset;
    }
    void PushSegment(GstFormat format, GstClockTime begin, double rate = 1.0) {
        GstSegment segment;
        gst_segment_init(&segment, format);
        segment.start = begin;
        segment.rate = rate;
        gst_harness_push_event(harness_, gst_event_new_segment(&segment));
    }
    void PushCollection(std::initializer_list<GstStreamType> types) {
        GstStreamCollection *collection = gst_stream_collection_new("test");
        for (const GstStreamType type : types)
            gst_stream_collection_add_stream(collection, gst_stream_new(nullptr, nullptr, type, GST_STREAM_FLAG_NONE));
        gst_harness_push_event(harness_, gst_event_new_stream_collection(collection));
        gst_object_unref(collection);
    }

    const std::string name_ = UniqueName();
    Buffer buffer_ = Create(name_, SmallGeometry());
    Heard heard_;
    GstElement *sink_ = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("shbsink", nullptr)));
    GstBus *bus_ = nullptr;
    GstHarness *harness_ = nullptr;
};

const std::vector<uint8_t> kSomeFrame(160, 0x55);  // NOLINT(cert-err58-cpp)
const char *const kH264Caps = "video/x-h264,stream-format=byte-stream,alignment=au";

}  // namespace

TEST_F(ShbSinkHarness, PropertiesAreWhatHostsSet) {
    int marker = 0;
    g_object_set(sink_, "share-buffer", &marker, "media", 48, "channel", 7, "stream", 3, "debug", 2, "async", TRUE, "sync",
                 TRUE, nullptr);
    gpointer share_buffer = nullptr;
    int media = 0, channel = 0, stream = 0, debug = 0;
    g_object_get(sink_, "share-buffer", &share_buffer, "media", &media, "channel", &channel, "stream", &stream, "debug", &debug,
                 nullptr);
    EXPECT_EQ(&marker, share_buffer);
    EXPECT_EQ(48, media);
    EXPECT_EQ(7, channel);
    EXPECT_EQ(3, stream);
    EXPECT_EQ(2, debug);
    // No value is refused when it is set: what is wrong is told when the element starts.
    g_object_set(sink_, "media", G_MAXINT, "channel", G_MININT, "stream", G_MAXINT, "debug", -1, nullptr);
    g_object_get(sink_, "media", &media, "channel", &channel, "stream", &stream, "debug", &debug, nullptr);
    EXPECT_EQ(G_MAXINT, media);
    EXPECT_EQ(G_MININT, channel);
    EXPECT_EQ(G_MAXINT, stream);
    EXPECT_EQ(-1, debug);
    for (const char *name : {"share-buffer", "media", "channel", "stream", "debug"}) {
        GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(sink_), name);
        ASSERT_NE(nullptr, spec) << name;
        EXPECT_EQ(strcmp(name, "share-buffer") == 0 ? G_TYPE_POINTER : G_TYPE_INT, spec->value_type) << name;
    }
}

TEST_F(ShbSinkHarness, SignalsAreWhatHostsConnect) {
    const std::map<std::string, std::vector<GType>> expected = {
        {"v-media-changed",
         {G_TYPE_STRING, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT,
          G_TYPE_INT}},
        {"a-media-changed", {G_TYPE_STRING, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT, G_TYPE_INT}},
        {"media-real-bitrate", {G_TYPE_UINT}},
        {"media-real-fps", {G_TYPE_UINT}}};
    guint count = 0;
    g_free(g_signal_list_ids(G_OBJECT_TYPE(sink_), &count));
    EXPECT_EQ(expected.size(), count);
    for (const auto &[name, types] : expected) {
        GSignalQuery query;
        g_signal_query(g_signal_lookup(name.c_str(), G_OBJECT_TYPE(sink_)), &query);
        EXPECT_EQ(types, std::vector<GType>(query.param_types, query.param_types + query.n_params)) << name;
        EXPECT_EQ(G_TYPE_NONE, query.return_type);
        EXPECT_EQ(G_SIGNAL_RUN_LAST, query.signal_flags);
    }
}

TEST_F(ShbSinkHarness, SampleWiseAudioComesWithoutAParser) {
    g_object_set(sink_, "media", 19, nullptr);
    Start("audio/x-alaw,rate=8000,channels=1");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    ASSERT_EQ(1u, heard_.audio.size());
    EXPECT_EQ("PCMA", heard_.audio[0].code);
    EXPECT_EQ(8000, heard_.audio[0].sample_rate);
    EXPECT_EQ(1, heard_.audio[0].channels);
    EXPECT_EQ(160, heard_.audio[0].samples);
    EXPECT_EQ(64000, heard_.audio[0].nominal_bitrate);
    EXPECT_EQ(19, heard_.audio[0].media);
    EXPECT_EQ(8, heard_.audio[0].bits_per_sample);
    EXPECT_EQ(3u, Frames(SHB_AUDIO).size());
    // The same sound in other packets is no change; another rate is.
    EXPECT_EQ(GST_FLOW_OK, Push(std::vector<uint8_t>(320)));
    EXPECT_EQ(1u, heard_.audio.size());
    gst_harness_set_src_caps_str(harness_, "audio/x-alaw,rate=16000,channels=1");
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    ASSERT_EQ(2u, heard_.audio.size());
    EXPECT_EQ(16000, heard_.audio[1].sample_rate);
}

TEST_F(ShbSinkHarness, OpusWithoutRateOrChannels) {
    g_object_set(sink_, "media", 22, nullptr);
    Start("audio/x-opus");
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame, 10 * GST_MSECOND));
    ASSERT_EQ(1u, heard_.audio.size());
    EXPECT_EQ("OPUS", heard_.audio[0].code);
    EXPECT_EQ(48000, heard_.audio[0].sample_rate);
    EXPECT_EQ(2, heard_.audio[0].channels);
    EXPECT_EQ(480, heard_.audio[0].samples);
}

TEST_F(ShbSinkHarness, FramesWithoutALengthGetTheUsualOne) {
    g_object_set(sink_, "media", 22, nullptr);
    Start("audio/x-opus,rate=48000,channels=1");
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    ASSERT_EQ(1u, heard_.audio.size());
    EXPECT_EQ(960, heard_.audio[0].samples);
}

TEST_F(ShbSinkHarness, NominalBitRateComesFromTags) {
    g_object_set(sink_, "media", 18, nullptr);
    Start("audio/mpeg,mpegversion=1,mpegaudioversion=1,layer=3,rate=44100,channels=2");
    gst_harness_push_event(harness_, gst_event_new_tag(gst_tag_list_new(GST_TAG_NOMINAL_BITRATE, 96000u, nullptr)));
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    ASSERT_EQ(1u, heard_.audio.size());
    EXPECT_EQ(96000, heard_.audio[0].nominal_bitrate);
}

TEST_F(ShbSinkHarness, NothingIsReportedFromCapsAlone) {
    g_object_set(sink_, "media", 48, nullptr);
    Start("video/x-h264,stream-format=byte-stream,alignment=au,width=640,height=480,framerate=25/1");
    // A slice of a picture whose parameter sets have not come.
    EXPECT_EQ(GST_FLOW_OK, Push({0, 0, 0, 1, 0x41, 0x9a, 0x24, 0x6c, 0x41, 0x4f, 0xfe}));
    EXPECT_EQ(GST_FLOW_OK, Push({0, 0, 0, 1, 0x65, 0x88, 0x84, 0x00, 0x10, 0xff, 0xfe}));
    EXPECT_TRUE(heard_.video.empty());
    const auto frames = Frames(SHB_VIDEO);
    ASSERT_EQ(2u, frames.size());
    EXPECT_EQ(0u, frames[0].frame.flags & SHB_FRAME_KEY);
    EXPECT_NE(0u, frames[1].frame.flags & SHB_FRAME_KEY);
    EXPECT_EQ(0u, frames[1].frame.description);
    shb_description_t description;
    EXPECT_EQ(SHB_ERR_NOT_FOUND, shb_buffer_description(buffer_.get(), 0, 0, SHB_VIDEO, &description));
}

TEST_F(ShbSinkHarness, NoiseInVideoIsWrittenAndNothingElse) {
    g_object_set(sink_, "media", 64, nullptr);
    Start("video/x-h265,stream-format=byte-stream,alignment=au");
    for (uint64_t i = 0; i < 2000; i++) {
        auto bytes = Pattern(1, i, 5 + i % 100);
        // Parameter sets, messages and slices full of noise.
        const uint8_t start[] = {0, 0, 0, 1, static_cast<uint8_t>(std::array<int, 6>{32, 33, 34, 39, 19, 1}[i % 6] << 1), 1};
        std::copy_n(start, std::min<size_t>(sizeof start, bytes.size()), bytes.begin());
        ASSERT_EQ(GST_FLOW_OK, Push(bytes));
    }
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
}

TEST_F(ShbSinkHarness, NoiseInH264IsWrittenAndNothingElse) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    for (uint64_t i = 0; i < 2000; i++) {
        auto bytes = Pattern(2, i, 5 + i % 100);
        const uint8_t start[] = {0, 0, 0, 1, std::array<uint8_t, 5>{0x67, 0x68, 0x06, 0x65, 0x41}[i % 5]};
        std::copy_n(start, sizeof start, bytes.begin());
        ASSERT_EQ(GST_FLOW_OK, Push(bytes));
    }
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
}

TEST_F(ShbSinkHarness, HeadersByThemselvesAreMarked) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push({0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0x00, 0, 0, 1, 0x68, 0xcb, 0x83, 0xcb, 0x20}));
    EXPECT_EQ(GST_FLOW_OK, Push({0, 0, 0, 1, 0x41, 0x9a, 0x24, 0x6c}));
    const auto frames = Frames(SHB_VIDEO);
    ASSERT_EQ(2u, frames.size());
    EXPECT_NE(0u, frames[0].frame.flags & SHB_FRAME_HEADER);
    EXPECT_EQ(0u, frames[0].frame.flags & SHB_FRAME_KEY);
    EXPECT_EQ(0u, frames[1].frame.flags & SHB_FRAME_HEADER);
}

TEST_F(ShbSinkHarness, FrameLargerThanTheTrackIsLeftOut) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    EXPECT_EQ(GST_FLOW_OK, Push(std::vector<uint8_t>(65537)));
    EXPECT_EQ(GST_FLOW_OK, Push(std::vector<uint8_t>(70000)));
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    const std::string warning = Message(GST_MESSAGE_WARNING);
    EXPECT_EQ(0u, warning.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT))) << warning;
    EXPECT_NE(std::string::npos, warning.find("65537")) << warning;
    EXPECT_TRUE(Message(GST_MESSAGE_WARNING).empty()) << "told once";
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
    shb_stats_t stats;
    ASSERT_EQ(SHB_OK, shb_buffer_stats(buffer_.get(), 0, 0, SHB_VIDEO, &stats));
    EXPECT_EQ(2u, stats.left_out);
    EXPECT_EQ(3u, stats.frames);
    const auto frames = Frames(SHB_VIDEO);
    ASSERT_EQ(3u, frames.size());
    EXPECT_NE(0u, frames[1].frame.flags & SHB_FRAME_DISCONT) << "something is missing before it";
    EXPECT_EQ(0u, frames[2].frame.flags & SHB_FRAME_DISCONT);
}

TEST_F(ShbSinkHarness, FlagsFollowTheBuffer) {
    g_object_set(sink_, "media", 21, nullptr);
    Start("audio/mpeg,mpegversion=4,stream-format=adts,rate=48000,channels=2");
    Push(kSomeFrame);
    Push(kSomeFrame, GST_CLOCK_TIME_NONE, GST_BUFFER_FLAG_DISCONT);
    Push(kSomeFrame, GST_CLOCK_TIME_NONE, GST_BUFFER_FLAG_HEADER);
    Push({});
    gst_harness_push_event(harness_, gst_event_new_flush_start());
    gst_harness_push_event(harness_, gst_event_new_flush_stop(TRUE));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_harness_push_event(harness_, gst_event_new_segment(&segment));
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    const auto frames = Frames(SHB_AUDIO);
    ASSERT_EQ(4u, frames.size()) << "an empty buffer is no frame";
    EXPECT_EQ(uint32_t{SHB_FRAME_KEY | SHB_FRAME_DISCONT}, frames[1].frame.flags);
    EXPECT_EQ(uint32_t{SHB_FRAME_KEY | SHB_FRAME_HEADER}, frames[2].frame.flags);
    EXPECT_EQ(uint32_t{SHB_FRAME_KEY | SHB_FRAME_DISCONT}, frames[3].frame.flags) << "a flush leaves a gap";
}

TEST_F(ShbSinkHarness, FramesBeforeTheSegmentAreKept) {
    g_object_set(sink_, "media", 21, nullptr);
    Start("audio/mpeg,mpegversion=4,stream-format=adts,rate=48000,channels=2");
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = 10 * GST_SECOND;
    gst_harness_push_event(harness_, gst_event_new_segment(&segment));
    GstBuffer *buffer = gst_buffer_new_memdup(kSomeFrame.data(), kSomeFrame.size());
    GST_BUFFER_PTS(buffer) = GST_SECOND;
    EXPECT_EQ(GST_FLOW_OK, gst_harness_push(harness_, buffer));
    const auto frames = Frames(SHB_AUDIO);
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ(GST_SECOND, frames[0].frame.pts);
}

TEST_F(ShbSinkHarness, MediaSetAgainBeforeTheDataCounts) {
    // Audio by its first value, video by its second; the track goes along.
    g_object_set(sink_, "media", 21, nullptr);
    ASSERT_TRUE(Starts());
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    EXPECT_EQ(1u, Frames(SHB_VIDEO).size());
    EXPECT_TRUE(Frames(SHB_AUDIO).empty());
    shb_stats_t stats;
    shb_buffer_stats(buffer_.get(), 0, 0, SHB_AUDIO, &stats);
    EXPECT_EQ(0, stats.writer_pid) << "the other track is free again";
}

TEST_F(ShbSinkHarness, DebugWritesNothingToStandardOutput) {
    g_object_set(sink_, "media", 19, "debug", 3, nullptr);
    testing::internal::CaptureStdout();
    Start("audio/x-alaw,rate=8000,channels=1");
    for (int i = 0; i < 10; i++)
        Push(kSomeFrame);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(ShbSinkHarness, NewParameterSetsAreANewDescriptionAndNoNewStream) {
    using coded::H264Picture, coded::H264Sequence, coded::H264Slice, coded::Unit;
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    const auto sequence = H264Sequence({}), picture = H264Picture(0), other = H264Picture(0, 0, 1);
    Push(Unit({sequence, picture, H264Slice(true)}));
    Push(Unit({picture, sequence, H264Slice(true)}));
    Push(Unit({other, H264Slice(false)}));
    Push(Unit({H264Slice(false)}));
    Push(Unit({H264Sequence({0, 100, 0, 0, 20, 2})}));
    Push(Unit({H264Slice(true)}));
    const auto frames = Frames(SHB_VIDEO);
    ASSERT_EQ(6u, frames.size());
    const std::array<uint32_t, 6> serials{1, 1, 2, 2, 2, 3};
    for (size_t i = 0; i < frames.size(); i++)
        EXPECT_EQ(serials.at(i), frames[i].frame.description) << "frame " << i;
    EXPECT_EQ(1u, heard_.video.size()) << "no value that it reports has changed";
    shb_description_t description{};
    EXPECT_EQ(Unit({H264Sequence({0, 100, 0, 0, 20, 2}), other}), CodecData(SHB_VIDEO, &description));
    EXPECT_EQ(2, description.reorder_frames);
}

TEST_F(ShbSinkHarness, CodecDataThatADescriptionCannotTakeAreLeftOut) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    auto unit = coded::Unit({coded::H264Sequence({}), coded::H264Picture(0)});
    for (unsigned i = 1; i < 256; i++)
        unit = coded::operator+(unit, coded::Unit({coded::operator+(coded::H264Picture(i), coded::Bytes(40, 0x55))}));
    Push(coded::operator+(unit, coded::Unit({coded::H264Slice(true)})));
    ASSERT_EQ(1u, heard_.video.size());
    shb_description_t description{};
    EXPECT_TRUE(CodecData(SHB_VIDEO, &description).empty());
    EXPECT_EQ(0u, description.codec_data_bytes);
    EXPECT_EQ(320, description.width);
}

TEST_F(ShbSinkHarness, OtherCodecDataOfTheSameSoundAreNoNewStream) {
    g_object_set(sink_, "media", 21, nullptr);
    Start("audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,channels=2,codec_data=(buffer)1190");
    Push(kSomeFrame);
    shb_description_t description{};
    EXPECT_EQ("1190", Hex(CodecData(SHB_AUDIO, &description)));
    gst_harness_set_src_caps_str(
        harness_, "audio/mpeg,mpegversion=4,stream-format=raw,rate=48000,channels=2,codec_data=(buffer)119056e500");
    Push(kSomeFrame);
    EXPECT_EQ("119056e500", Hex(CodecData(SHB_AUDIO, &description)));
    EXPECT_EQ(2u, description.serial);
    EXPECT_EQ(1u, heard_.audio.size());
}

TEST_F(ShbSinkHarness, VideoWithoutDecodingTimesGetsThem) {
    using coded::H264Picture, coded::H264Sequence, coded::H264Slice, coded::Unit;
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    const auto push = [this](const std::vector<uint8_t> &bytes, GstClockTime pts, GstClockTime dts = GST_CLOCK_TIME_NONE) {
        GstBuffer *buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
        GST_BUFFER_PTS(buffer) = pts;
        GST_BUFFER_DTS(buffer) = dts;
        GST_BUFFER_DURATION(buffer) = 40;
        EXPECT_EQ(GST_FLOW_OK, gst_harness_push(harness_, buffer));
    };
    const auto sets = Unit({H264Sequence({0, 100, 0, 0, 20, 1}), H264Picture(0)});
    push(sets, 1000);
    push(Unit({H264Slice(true)}), 1000);
    push(Unit({H264Slice(false)}), 1080);
    push(Unit({H264Slice(false)}), GST_CLOCK_TIME_NONE);
    push(Unit({H264Slice(false)}), 1040, 1003);
    gst_harness_push_event(harness_, gst_event_new_flush_start());
    gst_harness_push_event(harness_, gst_event_new_flush_stop(TRUE));
    PushSegment(GST_FORMAT_TIME, 0);
    push(Unit({H264Slice(false)}), 1040);
    PushSegment(GST_FORMAT_TIME, 0);
    push(Unit({H264Slice(false)}), 1000);
    std::vector<uint64_t> made;
    for (const ReadFrame &frame : Frames(SHB_VIDEO))
        made.push_back(frame.frame.dts);
    EXPECT_EQ((std::vector<uint64_t>{SHB_TIME_NONE, 960, 1000, SHB_TIME_NONE, 1003, 1000, 960}), made);
}

TEST_F(ShbSinkHarness, AudioWithoutDecodingTimesStaysSo) {
    g_object_set(sink_, "media", 19, nullptr);
    Start("audio/x-alaw,rate=8000,channels=1");
    GstBuffer *buffer = gst_buffer_new_memdup(kSomeFrame.data(), kSomeFrame.size());
    GST_BUFFER_PTS(buffer) = GST_SECOND;
    EXPECT_EQ(GST_FLOW_OK, gst_harness_push(harness_, buffer));
    EXPECT_EQ(SHB_TIME_NONE, Frames(SHB_AUDIO).at(0).frame.dts);
}

TEST_F(ShbSinkHarness, ClockIsFollowed) {
    g_object_set(sink_, "media", 19, nullptr);
    Start("audio/x-alaw,rate=8000,channels=1");
    gst_element_set_clock(sink_, nullptr);
    EXPECT_EQ(SHB_OFFSET_NONE, PushedOffset()) << "no clock";
    GstClock *clock = gst_system_clock_obtain();
    gst_element_set_base_time(sink_, 5000);
    gst_element_set_clock(sink_, clock);
    EXPECT_EQ(5000, PushedOffset());
    gst_element_set_base_time(sink_, 7000);
    EXPECT_EQ(7000, PushedOffset()) << "another run";
    PushSegment(GST_FORMAT_TIME, 400);
    EXPECT_EQ(6600, PushedOffset());
    gst_harness_push_event(harness_, gst_event_new_flush_start());
    gst_harness_push_event(harness_, gst_event_new_flush_stop(TRUE));
    PushSegment(GST_FORMAT_TIME, 100);
    EXPECT_EQ(6900, PushedOffset());
    PushSegment(GST_FORMAT_TIME, 100, 2.0);
    EXPECT_EQ(SHB_OFFSET_NONE, PushedOffset()) << "faster than the clock";
    PushSegment(GST_FORMAT_BYTES, 0);
    EXPECT_EQ(SHB_OFFSET_NONE, PushedOffset());
    PushSegment(GST_FORMAT_TIME, 0);
    EXPECT_EQ(7000, PushedOffset());
    gst_element_set_clock(sink_, nullptr);
    EXPECT_EQ(SHB_OFFSET_NONE, PushedOffset());
    // Another element of a pipeline may bring a clock of its own.
    GstClock *other = gst_test_clock_new();
    gst_element_set_clock(sink_, other);
    const gint64 now = g_get_monotonic_time() * 1000;
    EXPECT_NEAR(static_cast<double>(now + 7000), static_cast<double>(PushedOffset()), 60e9);
    EXPECT_NE(7000, Stats(SHB_AUDIO).clock_offset);
    const auto frames = Frames(SHB_AUDIO);
    EXPECT_EQ(SHB_OFFSET_NONE, frames.at(0).frame.clock_offset);
    EXPECT_EQ(5000, frames.at(1).frame.clock_offset) << "each frame has the one that held for it";
    gst_element_set_clock(sink_, nullptr);
    gst_object_unref(other);
    gst_object_unref(clock);
}

TEST_F(ShbSinkHarness, CollectionTellsOfTheOtherTrack) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    EXPECT_EQ(uint32_t{SHB_PRESENCE_UNKNOWN}, Stats(SHB_AUDIO).presence);
    PushCollection({GST_STREAM_TYPE_VIDEO});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_ABSENT}, Stats(SHB_AUDIO).presence);
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, Stats(SHB_VIDEO).presence);
    PushCollection({GST_STREAM_TYPE_VIDEO, GST_STREAM_TYPE_TEXT, GST_STREAM_TYPE_AUDIO});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, Stats(SHB_AUDIO).presence);
    // Of another part of the pipeline, or of nothing.
    PushCollection({GST_STREAM_TYPE_TEXT});
    PushCollection({});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, Stats(SHB_AUDIO).presence);
}

TEST_F(ShbSinkHarness, TrackThatAnotherSourceFillsIsNotAbsent) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    Writer other = OpenWriter(buffer_, SHB_AUDIO);
    WritePattern(other, 1, 0, 10);
    PushCollection({GST_STREAM_TYPE_VIDEO});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, Stats(SHB_AUDIO).presence);
    other.reset();
    PushCollection({GST_STREAM_TYPE_VIDEO});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_ABSENT}, Stats(SHB_AUDIO).presence);
}

TEST_F(ShbSinkHarness, CollectionBeforeTheCapsWaitsForThem) {
    g_object_set(sink_, "media", 48, nullptr);
    harness_ = gst_harness_new_with_element(sink_, "sink", nullptr);
    gst_harness_play(harness_);
    gst_harness_push_event(harness_, gst_event_new_stream_start("test"));
    PushCollection({GST_STREAM_TYPE_AUDIO});
    EXPECT_EQ(uint32_t{SHB_PRESENCE_UNKNOWN}, Stats(SHB_AUDIO).presence) << "not even which kind this is";
    g_object_set(sink_, "media", 19, nullptr);
    gst_harness_set_src_caps_str(harness_, "audio/x-alaw,rate=8000,channels=1");
    EXPECT_EQ(uint32_t{SHB_PRESENCE_EXPECTED}, Stats(SHB_AUDIO).presence);
    EXPECT_EQ(uint32_t{SHB_PRESENCE_ABSENT}, Stats(SHB_VIDEO).presence);
}

TEST_F(ShbSinkHarness, CollectionAfterTheBufferIsGoneChangesNothing) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    buffer_.reset();
    PushCollection({GST_STREAM_TYPE_VIDEO});
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
}

// ---- Stall watch ---------------------------------------------------------------------------------------------------

namespace {

// Told of the silence of another track of the same buffer: whoever
// is watched as well has been looked at by then.
class ShbSinkStall : public ShbSinkHarness {
  protected:
    ShbSinkStall() {
        shb_set_stall_watch(buffer_.get(), 20);
        shb_writer_on_stall(
            witness_.get(), [](void *times, uint64_t) { ++*static_cast<std::atomic<int> *>(times); }, &witnessed_);
        g_object_set(sink_, "media", 48, nullptr);
    }
    void LetTheWatchPass() {
        for (int i = 0; i < 3; i++) {
            const int before = witnessed_;
            WritePattern(witness_, 1, 0, 10);
            ASSERT_TRUE(Eventually([&] { return witnessed_ > before; }));
        }
    }
    std::atomic<int> witnessed_{0};
    Writer witness_ = OpenWriter(buffer_, SHB_AUDIO);
};

}  // namespace

TEST_F(ShbSinkStall, SilenceIsAnErrorOnTheBus) {
    Start(kH264Caps);
    LetTheWatchPass();
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty()) << "no data has come yet";
    for (int silence = 0; silence < 2; silence++) {
        EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
        LetTheWatchPass();
        const std::string error = Message(GST_MESSAGE_ERROR);
        EXPECT_EQ(0u, error.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ) + ": The stream has stalled. | ")) << error;
        EXPECT_NE(std::string::npos, error.find("no data for ")) << error;
        LetTheWatchPass();
        EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty()) << "told once for each silence";
    }
}

TEST_F(ShbSinkStall, SilenceAfterTheEndIsNone) {
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    ASSERT_TRUE(gst_harness_push_event(harness_, gst_event_new_eos()));
    gst_bus_set_flushing(bus_, TRUE);
    gst_bus_set_flushing(bus_, FALSE);
    LetTheWatchPass();
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
}

TEST_F(ShbSinkStall, SilenceInPauseIsNone) {
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    gst_element_set_state(sink_, GST_STATE_PAUSED);
    gst_bus_set_flushing(bus_, TRUE);
    gst_bus_set_flushing(bus_, FALSE);
    LetTheWatchPass();
    EXPECT_TRUE(Message(GST_MESSAGE_ERROR).empty());
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

TEST_F(ShbSinkHarness, NoBufferIsAnError) {
    g_object_set(sink_, "share-buffer", nullptr, nullptr);
    EXPECT_FALSE(Starts());
    const std::string error = Message(GST_MESSAGE_ERROR);
    EXPECT_EQ(0u, error.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS))) << error;
}

TEST_F(ShbSinkHarness, ForeignBufferIsAnError) {
    int marker[100] = {};
    for (gpointer foreign : {static_cast<gpointer>(marker), GSIZE_TO_POINTER(0x1000)}) {
        g_object_set(sink_, "share-buffer", foreign, nullptr);
        EXPECT_FALSE(Starts());
        const std::string error = Message(GST_MESSAGE_ERROR);
        EXPECT_EQ(0u, error.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS))) << error;
    }
}

TEST_F(ShbSinkHarness, TrackOutsideTheBufferIsAnError) {
    const int outside[][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}, {G_MAXINT, 0}, {0, G_MININT}};
    for (const auto &at : outside) {
        g_object_set(sink_, "channel", at[0], "stream", at[1], nullptr);
        EXPECT_FALSE(Starts());
        const std::string error = Message(GST_MESSAGE_ERROR);
        EXPECT_EQ(0u, error.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_SETTINGS))) << error;
        EXPECT_NE(std::string::npos, error.find(std::to_string(at[0]))) << error;
    }
    g_object_set(sink_, "channel", 0, "stream", 0, nullptr);
    EXPECT_TRUE(Starts());
}

TEST_F(ShbSinkHarness, BusyTrackIsAnError) {
    g_object_set(sink_, "media", 48, nullptr);
    Writer other = OpenWriter(buffer_, SHB_VIDEO);
    EXPECT_FALSE(Starts());
    const std::string error = Message(GST_MESSAGE_ERROR);
    EXPECT_EQ(0u, error.find(Code(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE))) << error;
    EXPECT_NE(std::string::npos, error.find(shb_strerror(SHB_ERR_BUSY))) << error;
    other.reset();
    EXPECT_TRUE(Starts());
}

TEST_F(ShbSinkHarness, ContradictingCapsAreAnError) {
    const struct {
        int media;
        const char *media_name, *caps, *caps_name;
    } cases[] = {
        {21, "AAC", kH264Caps, "video/x-h264"},
        {0, "audio", kH264Caps, "video/x-h264"},
        {48, "H264", "audio/x-alaw,rate=8000,channels=1", "audio/x-alaw"},
        {48, "H264", "video/x-h265,stream-format=byte-stream,alignment=au", "video/x-h265"},
        {64, "H265", kH264Caps, "video/x-h264"},
        {25, "AC3", "audio/x-opus", "audio/x-opus"},
        {18, "MP3", "audio/mpeg,mpegversion=4,stream-format=adts", "audio/mpeg"},
        {21, "AAC", "audio/mpeg,mpegversion=1,layer=3", "audio/mpeg"},
    };
    for (const auto &c : cases) {
        GstElement *sink = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("shbsink", nullptr)));
        g_object_set(sink, "share-buffer", buffer_.get(), "media", c.media, "async", FALSE, nullptr);
        gst_element_set_bus(sink, bus_);
        GstHarness *harness = gst_harness_new_with_element(sink, "sink", nullptr);
        gst_harness_play(harness);
        gst_harness_set_src_caps_str(harness, c.caps);
        GstBuffer *buffer = gst_buffer_new_memdup(kSomeFrame.data(), kSomeFrame.size());
        EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED, gst_harness_push(harness, buffer)) << c.media << " " << c.caps;
        const std::string error = Message(GST_MESSAGE_ERROR);
        EXPECT_EQ(0u, error.find(Code(GST_STREAM_ERROR, GST_STREAM_ERROR_WRONG_TYPE))) << error;
        EXPECT_NE(std::string::npos, error.find(c.media_name)) << error;
        EXPECT_NE(std::string::npos, error.find(c.caps_name)) << error;
        gst_harness_teardown(harness);
        gst_element_set_bus(sink, nullptr);
        gst_object_unref(sink);
        gst_bus_set_flushing(bus_, TRUE);
        gst_bus_set_flushing(bus_, FALSE);
    }
}

TEST_F(ShbSinkHarness, FormatsThatCannotBeCarriedAreNotTaken) {
    g_object_set(sink_, "media", 48, nullptr);
    Start(kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    // Frames of these have no start codes, or are parts of frames.
    for (const char *caps : {"video/x-h264,stream-format=avc,alignment=au",
                             "video/x-h264,stream-format=byte-stream,alignment=nal", "video/x-vp8", "text/x-raw"}) {
        gst_harness_set_src_caps_str(harness_, caps);
        EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED, Push(kSomeFrame)) << caps;
    }
    gst_harness_set_src_caps_str(harness_, kH264Caps);
    EXPECT_EQ(GST_FLOW_OK, Push(kSomeFrame));
    EXPECT_EQ(2u, Frames(SHB_VIDEO).size());
}

TEST_F(ShbSinkHarness, DataWithoutCapsIsAnError) {
    harness_ = gst_harness_new_with_element(sink_, "sink", nullptr);
    gst_harness_play(harness_);
    GstPad *pad = gst_element_get_static_pad(sink_, "sink");
    gst_pad_send_event(pad, gst_event_new_stream_start("test"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(pad, gst_event_new_segment(&segment));
    EXPECT_EQ(GST_FLOW_NOT_NEGOTIATED, gst_pad_chain(pad, gst_buffer_new_memdup(kSomeFrame.data(), kSomeFrame.size())));
    gst_object_unref(pad);
    const std::string error = Message(GST_MESSAGE_ERROR);
    EXPECT_EQ(0u, error.find(Code(GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION))) << error;
}

TEST_F(ShbSinkHarness, TemplateTakesWhatBranchesLink) {
    GstPad *pad = gst_element_get_static_pad(sink_, "sink");
    GstCaps *taken = gst_pad_get_pad_template_caps(pad);
    for (const char *factory : {"h264parse", "h265parse", "aacparse", "mpegaudioparse", "ac3parse", "opusparse", "vorbisparse",
                                "rtppcmadepay", "rtppcmudepay"}) {
        GstElement *element = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make(factory, nullptr)));
        ASSERT_NE(nullptr, element) << factory;
        GstPad *source = gst_element_get_static_pad(element, "src");
        GstCaps *offered = gst_pad_get_pad_template_caps(source);
        EXPECT_TRUE(gst_caps_can_intersect(offered, taken)) << factory;
        gst_caps_unref(offered);
        gst_object_unref(source);
        gst_object_unref(element);
    }
    gst_caps_unref(taken);
    gst_object_unref(pad);
}
