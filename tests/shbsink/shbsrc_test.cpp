// The element shbsrc: what was written into a buffer, as a pipeline gets it.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "coded.h"
#include "shb_layout.h"
#include "shb_support.h"

namespace {

using namespace shbtest;

constexpr std::chrono::seconds kLong{30};
constexpr uint64_t kMs = 1000000;
constexpr uint64_t kVideoStep = 40 * kMs;
constexpr uint64_t kAudioStep = 1024 * UINT64_C(1000000000) / 48000;

class Framework : public ::testing::Environment {
  public:
    void SetUp() override {
        gst_init(nullptr, nullptr);
        // Loaded by hand: the scanner of the registry is another program and cannot load an instrumented plugin.
        GstPlugin *plugin = gst_plugin_load_file(g_getenv("SHBSINK_PLUGIN"), nullptr);
        ASSERT_NE(nullptr, plugin);
        gst_object_unref(plugin);
    }
};
const auto *const framework = ::testing::AddGlobalTestEnvironment(new Framework);  // NOLINT(cert-err58-cpp)

uint64_t Now() {
    return static_cast<uint64_t>(g_get_monotonic_time()) * 1000;
}

shb_description_t Video(const char *code = "H264", int width = 640) {
    shb_description_t d{};
    d.media = code == std::string("H265") ? 64 : 48;
    std::snprintf(d.code, sizeof d.code, "%s", code);
    std::snprintf(d.format, sizeof d.format, "byte-stream");
    std::snprintf(d.profile, sizeof d.profile, "main");
    d.width = width;
    d.height = 360;
    d.fps_n = 25;
    d.fps_d = 1;
    return d;
}

shb_description_t Audio(const char *code = "AAC", const char *format = "adts") {
    shb_description_t d{};
    d.media = 21;
    std::snprintf(d.code, sizeof d.code, "%s", code);
    std::snprintf(d.format, sizeof d.format, "%s", format);
    d.sample_rate = 48000;
    d.channels = 2;
    d.samples_per_frame = 1024;
    return d;
}

const std::vector<uint8_t> kSets{0, 0, 0, 1, 0x67, 1, 2, 3, 0, 0, 0, 1, 0x68, 4};

// A source that writes what a test says. Its time stamps begin at 0 in each run; `started` is that moment of the clock.
class Host {
  public:
    explicit Host(std::string name = UniqueName(), bool audio = true) : name_(std::move(name)) {
        shb_geometry_t geometry{};
        geometry.video_bytes = geometry.audio_bytes = 65536;
        geometry.video_frames = geometry.audio_frames = 128;
        buffer_ = Create(name_, geometry);
        Start(audio);
    }
    // Writers of a new epoch, as a source that has connected again.
    void Start(bool audio = true) {
        video_.reset();
        audio_.reset();
        started_ = Now();
        video_ = OpenWriter(buffer_, SHB_VIDEO);
        shb_writer_set_clock(video_.get(), static_cast<int64_t>(started_));
        DescribeVideo(::Video());
        frames_ = sounds_ = 0;
        if (audio)
            StartAudio();
    }
    void StartAudio() {
        audio_ = OpenWriter(buffer_, SHB_AUDIO);
        shb_writer_set_clock(audio_.get(), static_cast<int64_t>(started_));
        const auto d = ::Audio();
        shb_writer_describe(audio_.get(), &d, nullptr, 0);
    }
    void DescribeVideo(const shb_description_t &d, const std::vector<uint8_t> &sets = kSets) {
        shb_writer_describe(video_.get(), &d, sets.data(), sets.size());
    }
    void DescribeAudio(const shb_description_t &d, const std::vector<uint8_t> &data = {}) {
        shb_writer_describe(audio_.get(), &d, data.empty() ? nullptr : data.data(), data.size());
    }
    void Picture(bool key, size_t size = 100) { PictureAt(frames_ * kVideoStep, key, size); }
    void PictureAt(uint64_t pts, bool key, size_t size = 100) {
        std::vector<uint8_t> bytes{0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), static_cast<uint8_t>(frames_)};
        bytes.resize(size, 0xaa);
        Write(video_, bytes, pts, pts, kVideoStep, key ? uint32_t{SHB_FRAME_KEY} : 0);
        ++frames_;
    }
    void Sound(size_t size = 50) { SoundAt(sounds_ * kAudioStep, size); }
    void SoundAt(uint64_t pts, size_t size = 50) {
        std::vector<uint8_t> bytes{0xff, 0xf1, static_cast<uint8_t>(sounds_)};
        bytes.resize(size, 0x55);
        Write(audio_, bytes, pts, SHB_TIME_NONE, kAudioStep, SHB_FRAME_KEY);
        ++sounds_;
    }
    // A group of pictures with the sound that belongs to it.
    void Group(int pictures = 5) {
        for (int i = 0; i < pictures; ++i) {
            Picture(i == 0);
            while (audio_ != nullptr && sounds_ * kAudioStep < frames_ * kVideoStep)
                Sound();
        }
    }
    void Write(const Writer &writer, const std::vector<uint8_t> &bytes, uint64_t pts, uint64_t dts, uint64_t duration,
               uint32_t flags) {
        ASSERT_EQ(SHB_OK, shb_writer_write(writer.get(), bytes.data(), bytes.size(), pts, dts, duration, flags));
    }
    void Absent(shb_kind_t kind) { shb_set_presence(buffer_.get(), 0, 0, kind, SHB_PRESENCE_ABSENT); }
    void Destroy() {
        video_.reset();
        audio_.reset();
        buffer_.reset();
    }
    const std::string &Name() const { return name_; }
    const Writer &VideoWriter() const { return video_; }
    const Writer &AudioWriter() const { return audio_; }
    uint64_t Started() const { return started_; }

  private:
    const std::string name_;
    Buffer buffer_;
    Writer video_, audio_;
    uint64_t started_ = 0;
    uint64_t frames_ = 0, sounds_ = 0;
};

struct Got {
    std::vector<uint8_t> bytes;
    GstClockTime pts, dts, duration;
    bool key, discont;
    std::string caps;  // in force
};

struct Stream {
    bool is_there = false;
    bool ended = false;
    int lists = 0;
    std::string caps;
    GstSegment segment{};
    std::vector<Got> frames;
    std::vector<std::pair<GstClockTime, GstClockTime>> gaps;
};

// A pipeline of shbsrc and a sink for each of its pads.
class Player {
  public:
    explicit Player(const std::string &name, const std::function<void(GstElement *)> &set = {}) {
        pipeline_ = gst_pipeline_new(nullptr);
        source_ = gst_element_factory_make("shbsrc", nullptr);
        g_object_set(source_, "buffer", name.c_str(), nullptr);
        if (set)
            set(source_);
        gst_bin_add(GST_BIN(pipeline_), source_);
        g_signal_connect(source_, "pad-added", G_CALLBACK(OnPad), this);
        g_signal_connect(source_, "no-more-pads", G_CALLBACK(OnNoMorePads), this);
        bus_ = gst_element_get_bus(pipeline_);
        state_ = gst_element_set_state(pipeline_, GST_STATE_PAUSED);
        gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;
    ~Player() {
        Stop();
        gst_object_unref(bus_);
        gst_object_unref(pipeline_);
    }
    void Stop() {
        // Lets a thread that is held up go first.
        Release();
        gst_element_set_state(pipeline_, GST_STATE_NULL);
    }
    bool Await(const std::function<bool()> &condition, std::chrono::milliseconds limit = kLong) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, condition);
    }
    bool AwaitFrames(size_t video, size_t audio = 0) {
        return Await([&] { return video_.frames.size() >= video && audio_.frames.size() >= audio; });
    }
    bool AwaitEnd() {
        return Await([this] { return (!video_.is_there || video_.ended) && (!audio_.is_there || audio_.ended); });
    }
    // The next message of this name, or the error when there is one.
    GstMessage *Message(const char *name) {
        for (;;) {
            GstMessage *message =
                gst_bus_timed_pop_filtered(bus_, static_cast<GstClockTime>(std::chrono::nanoseconds(kLong).count()),
                                           static_cast<GstMessageType>(GST_MESSAGE_ELEMENT | GST_MESSAGE_ERROR));
            if (message == nullptr || GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR || gst_message_has_name(message, name))
                return message;
            gst_message_unref(message);
        }
    }
    bool HasMessage(const char *name) {
        GstMessage *message = Message(name);
        const bool has = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT;
        if (message != nullptr)
            gst_message_unref(message);
        return has;
    }
    // "DOMAIN/CODE: text".
    std::string Error() {
        GstMessage *message = Message("none");
        if (message == nullptr)
            return "";
        GError *error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        const std::string text = std::to_string(error->code) + ": " + error->message;
        g_error_free(error);
        gst_message_unref(message);
        return text;
    }
    // The sinks take no frame until Release.
    void Hold() {
        std::lock_guard<std::mutex> guard(lock_);
        held_ = true;
    }
    void Release() {
        std::lock_guard<std::mutex> guard(lock_);
        held_ = false;
        changed_.notify_all();
    }
    template <typename Function>
    auto With(Function function) {
        std::lock_guard<std::mutex> guard(lock_);
        return function();
    }
    std::vector<Got> VideoFrames() {
        return With([this] { return video_.frames; });
    }
    std::vector<Got> AudioFrames() {
        return With([this] { return audio_.frames; });
    }
    GstElement *Source() { return source_; }
    GstElement *Pipeline() { return pipeline_; }
    GstStateChangeReturn State() const { return state_; }
    uint64_t Stat(const char *name) {
        GstStructure *stats = nullptr;
        g_object_get(source_, "stats", &stats, nullptr);
        guint64 value = UINT64_MAX;
        gst_structure_get_uint64(stats, name, &value);
        gst_structure_free(stats);
        return value;
    }

    Stream video_, audio_;
    std::vector<std::string> order_;  // of pads, and "no-more-pads"

  private:
    static void OnPad(GstElement *, GstPad *pad, gpointer user) {
        auto *self = static_cast<Player *>(user);
        gchar *name = gst_pad_get_name(pad);
        Stream *stream = name == std::string("video") ? &self->video_ : &self->audio_;
        {
            std::lock_guard<std::mutex> guard(self->lock_);
            self->order_.emplace_back(name);
            stream->is_there = true;
        }
        g_free(name);
        GstElement *sink = gst_element_factory_make("fakesink", nullptr);
        g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
        gst_bin_add(GST_BIN(self->pipeline_), sink);
        gst_element_sync_state_with_parent(sink);
        GstPad *in = gst_element_get_static_pad(sink, "sink");
        g_object_set_data(G_OBJECT(in), "stream", stream);
        gst_pad_add_probe(in,
                          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                                       GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          OnData, self, nullptr);
        gst_pad_link(pad, in);
        gst_object_unref(in);
        self->changed_.notify_all();
    }
    static void OnNoMorePads(GstElement *, gpointer user) {
        auto *self = static_cast<Player *>(user);
        std::lock_guard<std::mutex> guard(self->lock_);
        self->order_.emplace_back("no-more-pads");
        self->changed_.notify_all();
    }
    void Take(Stream *stream, GstBuffer *buffer) {
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_READ);
        stream->frames.push_back({std::vector<uint8_t>(map.data, map.data + map.size), GST_BUFFER_PTS(buffer),
                                  GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer),
                                  !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT),
                                  GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT), stream->caps});
        gst_buffer_unmap(buffer, &map);
    }
    void TakeEvent(Stream *stream, GstEvent *event) {
        switch (GST_EVENT_TYPE(event)) {
            case GST_EVENT_CAPS: {
                GstCaps *caps = nullptr;
                gst_event_parse_caps(event, &caps);
                gchar *text = gst_caps_to_string(caps);
                stream->caps = text;
                g_free(text);
                break;
            }
            case GST_EVENT_SEGMENT:
                gst_event_copy_segment(event, &stream->segment);
                break;
            case GST_EVENT_EOS:
                stream->ended = true;
                break;
            case GST_EVENT_GAP: {
                GstClockTime from = 0, duration = 0;
                gst_event_parse_gap(event, &from, &duration);
                stream->gaps.emplace_back(from, duration);
                break;
            }
            default:
                break;
        }
    }
    static GstPadProbeReturn OnData(GstPad *pad, GstPadProbeInfo *info, gpointer user) {
        auto *self = static_cast<Player *>(user);
        auto *stream = static_cast<Stream *>(g_object_get_data(G_OBJECT(pad), "stream"));
        std::unique_lock<std::mutex> guard(self->lock_);
        if (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) {
            self->TakeEvent(stream, GST_PAD_PROBE_INFO_EVENT(info));
        } else {
            self->changed_.wait(guard, [self] { return !self->held_; });
            if (info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
                GstBufferList *list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
                ++stream->lists;
                for (guint i = 0; i < gst_buffer_list_length(list); ++i)
                    self->Take(stream, gst_buffer_list_get(list, i));
            } else {
                self->Take(stream, GST_PAD_PROBE_INFO_BUFFER(info));
            }
        }
        self->changed_.notify_all();
        return GST_PAD_PROBE_OK;
    }

    GstElement *pipeline_;
    GstElement *source_;
    GstBus *bus_;
    GstStateChangeReturn state_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool held_ = false;
};

std::function<void(GstElement *)> Set(const char *name, const char *value) {
    return [name, value](GstElement *element) { gst_util_set_object_arg(G_OBJECT(element), name, value); };
}

// The numbers that the host wrote into the frames.
std::vector<int> Numbers(const std::vector<Got> &frames) {
    std::vector<int> numbers;
    for (const auto &frame : frames) {
        // Parameter sets in front of a key frame are the element's.
        const size_t at =
            frame.bytes.size() > kSets.size() && std::equal(kSets.begin(), kSets.end(), frame.bytes.begin()) ? kSets.size() : 0;
        numbers.push_back(frame.bytes[at + (frame.bytes[at] == 0xff ? 2 : 4)]);
    }
    return numbers;
}

TEST(ShbSrc, HandsOnWhatWasWritten) {
    Host host;
    host.Group(3);
    Player player(host.Name(), Set("start", "oldest"));
    EXPECT_EQ(GST_STATE_CHANGE_NO_PREROLL, player.State());
    ASSERT_TRUE(player.AwaitFrames(3, 6));
    host.Group(2);
    ASSERT_TRUE(player.AwaitFrames(5, 10));
    EXPECT_EQ((std::vector<std::string>{"video", "audio", "no-more-pads"}), player.With([&] { return player.order_; }));
    const auto video = player.VideoFrames();
    const auto audio = player.AudioFrames();
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), Numbers(video));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), Numbers(audio));
    EXPECT_TRUE(video[0].key && !video[1].key && !video[2].key && video[3].key);
    EXPECT_TRUE(video[0].discont && !video[1].discont);
    for (size_t i = 1; i < video.size(); ++i)
        EXPECT_EQ(kVideoStep, video[i].pts - video[i - 1].pts) << i;
    EXPECT_EQ(kVideoStep, video[0].duration);
    // One axis for both.
    EXPECT_EQ(video[0].pts, audio[0].pts);
    EXPECT_EQ(5u, player.Stat("video-frames"));
    EXPECT_EQ(10u, player.Stat("audio-frames"));
    EXPECT_EQ(500u + kSets.size(), player.Stat("video-bytes"));
    EXPECT_EQ(0u, player.Stat("video-lost"));
}

TEST(ShbSrc, RunningTimeBeginsWithTheFirstFrame) {
    Host host;
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    const GstSegment segment = player.With([&] { return player.video_.segment; });
    const GstSegment other = player.With([&] { return player.audio_.segment; });
    EXPECT_EQ(GST_FORMAT_TIME, segment.format);
    EXPECT_TRUE(gst_segment_is_equal(&segment, &other));
    const auto first = player.VideoFrames().front();
    EXPECT_EQ(segment.base, gst_segment_to_running_time(&segment, GST_FORMAT_TIME, first.pts));
    // The frame is due when it came: after the host began and before now.
    EXPECT_GE(first.pts, host.Started());
    EXPECT_LE(first.pts, Now());
}

TEST(ShbSrc, FollowsAnOutageWithoutChangingItsLength) {
    Host host;
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    const uint64_t before = host.Started();
    host.Start();
    host.Group();
    ASSERT_TRUE(player.AwaitFrames(10, 18));
    EXPECT_TRUE(player.HasMessage("shbsrc-epoch"));
    const auto video = player.VideoFrames();
    EXPECT_TRUE(video[5].discont);
    EXPECT_FALSE(video[6].discont);
    // Each run's time stamps begin at 0. The clock says how far apart they are; here they overlap, as the frames come at once.
    const uint64_t apart = host.Started() - before;
    if (apart > 5 * kVideoStep) {
        EXPECT_EQ(apart, video[5].pts - video[0].pts);
    }
    for (size_t i = 1; i < video.size(); ++i) {
        EXPECT_GT(video[i].dts, video[i - 1].dts) << i;
        EXPECT_GE(video[i].pts, video[i].dts) << i;
    }
}

TEST(ShbSrc, GapOfTheClockIsAGapOfTheTimes) {
    Host host(UniqueName(), false);
    host.Absent(SHB_AUDIO);
    host.Group();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(5));
    // The same writer, whose pipeline has paused for ten seconds.
    shb_writer_set_clock(host.VideoWriter().get(), static_cast<int64_t>(host.Started() + 10000 * kMs));
    host.Picture(true);
    ASSERT_TRUE(player.AwaitFrames(6));
    const auto video = player.VideoFrames();
    EXPECT_EQ(10000 * kMs + kVideoStep, video[5].pts - video[4].pts);
}

struct StartCase {
    const char *start;
    std::vector<int> video;
    std::vector<int> audio;
};

class ShbSrcStart : public ::testing::TestWithParam<StartCase> {};

TEST_P(ShbSrcStart, BeginsThere) {
    Host host;
    host.Group();
    host.Group();
    Player player(host.Name(), Set("start", GetParam().start));
    if (GetParam().start == std::string("newest")) {
        // The pads come with the first frames, so nothing says that the readers stand: a writer goes on until they do.
        const auto until = std::chrono::steady_clock::now() + kLong;
        do
            host.Group();
        while (!player.Await([&] { return !player.video_.frames.empty(); }, std::chrono::milliseconds(5)) &&
               std::chrono::steady_clock::now() < until);
        ASSERT_FALSE(player.VideoFrames().empty());
        EXPECT_TRUE(player.VideoFrames()[0].key);
        EXPECT_GE(Numbers(player.VideoFrames())[0], 10);
        return;
    }
    ASSERT_TRUE(player.AwaitFrames(GetParam().video.size(), GetParam().audio.size()));
    const auto video = Numbers(player.VideoFrames());
    EXPECT_EQ(GetParam().video, video);
    // The first sound is the first that is not before the picture.
    EXPECT_EQ(GetParam().audio, Numbers(player.AudioFrames()));
}

INSTANTIATE_TEST_SUITE_P(
    Rules, ShbSrcStart,
    ::testing::Values(
        StartCase{"key", {5, 6, 7, 8, 9}, {10, 11, 12, 13, 14, 15, 16, 17, 18}},
        StartCase{"oldest", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18}},
        StartCase{"-1h", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18}},
        StartCase{"-0s", {5, 6, 7, 8, 9}, {10, 11, 12, 13, 14, 15, 16, 17, 18}}, StartCase{"newest", {}, {}}));

// Less than the time for which the sound of a source would be waited for.
void ExpectPictureAloneAtOnce(Player &player, std::chrono::steady_clock::time_point before) {
    EXPECT_TRUE(player.AwaitFrames(5));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
    EXPECT_EQ((std::vector<std::string>{"video", "no-more-pads"}), player.With([&] { return player.order_; }));
}

TEST(ShbSrc, StreamWithoutSoundIsNotWaitedFor) {
    Host host(UniqueName(), false);
    host.Absent(SHB_AUDIO);
    host.Group();
    const auto before = std::chrono::steady_clock::now();
    Player player(host.Name());
    ExpectPictureAloneAtOnce(player, before);
    // Should it come all the same, it gets its pad.
    host.StartAudio();
    host.Sound();
    ASSERT_TRUE(player.AwaitFrames(5, 1));
    EXPECT_EQ((std::vector<std::string>{"video", "no-more-pads", "audio"}), player.With([&] { return player.order_; }));
}

TEST(ShbSrc, SoundAloneIsAStream) {
    Host host;
    host.Absent(SHB_VIDEO);
    for (int i = 0; i < 4; ++i)
        host.Sound();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(0, 4));
    EXPECT_EQ((std::vector<std::string>{"audio", "no-more-pads"}), player.With([&] { return player.order_; }));
}

TEST(ShbSrc, SourceThatDoesNotSayWhatItHasIsWaitedForAFewSeconds) {
    Host host(UniqueName(), false);
    host.Group();
    const auto before = std::chrono::steady_clock::now();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5));
    EXPECT_GT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
    EXPECT_EQ((std::vector<std::string>{"video", "no-more-pads"}), player.With([&] { return player.order_; }));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), Numbers(player.VideoFrames()));
}

TEST(ShbSrc, SourceThatHasRunWithoutSoundForLongIsNotWaitedFor) {
    Host host(UniqueName(), false);
    // Eight seconds of a source that runs at this rate.
    host.Group(200);
    shb_writer_set_rates(host.VideoWriter().get(), 0, 25000);
    host.Group();
    const auto before = std::chrono::steady_clock::now();
    Player player(host.Name());
    ExpectPictureAloneAtOnce(player, before);
}

TEST(ShbSrc, NewCodecIsANewCapsEvent) {
    Host host;
    host.Group(2);
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(2, 4));
    host.DescribeVideo(Video("H265", 1280), {0, 0, 1, 0x42, 1, 7, 7});
    host.DescribeAudio(Audio("MP3", ""));
    host.Group(2);
    ASSERT_TRUE(player.AwaitFrames(4, 8));
    const auto video = player.VideoFrames();
    const auto audio = player.AudioFrames();
    EXPECT_EQ(0u, video[1].caps.find("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au")) << video[1].caps;
    EXPECT_NE(std::string::npos, video[1].caps.find("width=(int)640, height=(int)360, framerate=(fraction)25/1"));
    EXPECT_NE(std::string::npos, video[1].caps.find("profile=(string)main"));
    EXPECT_EQ(0u, video[2].caps.find("video/x-h265")) << video[2].caps;
    EXPECT_NE(std::string::npos, video[2].caps.find("width=(int)1280"));
    EXPECT_NE(std::string::npos, audio[3].caps.find("mpegversion=(int)4, stream-format=(string)adts")) << audio[3].caps;
    EXPECT_NE(std::string::npos, audio[4].caps.find("mpegversion=(int)1")) << audio[4].caps;
}

TEST(ShbSrc, RawAacHasItsConfiguration) {
    Host host;
    host.DescribeAudio(Audio("AAC", "raw"), {0x11, 0x90});
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    const auto caps = player.AudioFrames()[0].caps;
    EXPECT_NE(std::string::npos, caps.find("stream-format=(string)raw")) << caps;
    EXPECT_NE(std::string::npos, caps.find("codec_data=(buffer)1190")) << caps;
    EXPECT_NE(std::string::npos, caps.find("rate=(int)48000, channels=(int)2")) << caps;
}

TEST(ShbSrc, FirstKeyFrameHasItsParameterSets) {
    Host host;
    host.Group(2);
    host.Group(2);
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(4, 8));
    const auto video = player.VideoFrames();
    ASSERT_GT(video[0].bytes.size(), kSets.size());
    EXPECT_TRUE(std::equal(kSets.begin(), kSets.end(), video[0].bytes.begin()));
    EXPECT_EQ(100u, video[2].bytes.size());
    // New sets of the same stream, sent outside of the frames.
    const std::vector<uint8_t> others{0, 0, 0, 1, 0x67, 9, 9, 9, 0, 0, 0, 1, 0x68, 9};
    host.DescribeVideo(Video(), others);
    host.Picture(true);
    ASSERT_TRUE(player.AwaitFrames(5));
    EXPECT_TRUE(std::equal(others.begin(), others.end(), player.VideoFrames()[4].bytes.begin()));
}

TEST(ShbSrc, ParameterSetsThatTheFrameHasAreNotRepeated) {
    Host host;
    const std::vector<uint8_t> whole{0, 0, 1, 9, 0x10, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 2, 0, 0, 1, 0x65, 3, 3};
    host.Write(host.VideoWriter(), whole, 0, 0, kVideoStep, SHB_FRAME_KEY);
    host.Sound();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(1, 1));
    EXPECT_EQ(whole, player.VideoFrames()[0].bytes);
}

TEST(ShbSrc, LossesAreReported) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    player.Hold();
    for (int i = 0; i < 60; ++i)
        host.Group();
    player.Release();
    GstMessage *message = player.Message("shbsrc-lost");
    ASSERT_NE(nullptr, message);
    ASSERT_EQ(GST_MESSAGE_ELEMENT, GST_MESSAGE_TYPE(message));
    const GstStructure *structure = gst_message_get_structure(message);
    guint64 lost = 0;
    EXPECT_TRUE(gst_structure_get_uint64(structure, "lost", &lost));
    EXPECT_TRUE(gst_structure_has_field_typed(structure, "left-out", G_TYPE_UINT64));
    EXPECT_TRUE(gst_structure_has_field_typed(structure, "epoch", G_TYPE_UINT64));
    EXPECT_TRUE(gst_structure_has_field_typed(structure, "sequence", G_TYPE_UINT64));
    EXPECT_GT(lost, 0u);
    gst_message_unref(message);
    ASSERT_TRUE(player.Await([&] { return player.video_.frames.back().bytes[4] == static_cast<uint8_t>(304); }));
    // What is lost and what was handed on is everything.
    EXPECT_EQ(305u, player.Stat("video-frames") + player.Stat("video-lost"));
    const auto video = player.VideoFrames();
    const auto gap = std::find_if(video.begin() + 1, video.end(), [](const Got &frame) { return frame.discont; });
    ASSERT_NE(video.end(), gap);
    // What follows the loss can be decoded.
    EXPECT_TRUE(gap->key);
}

TEST(ShbSrc, FrameThatTheBufferCouldNotTakeIsReported) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    const std::vector<uint8_t> huge(70000, 1);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_writer_write(host.VideoWriter().get(), huge.data(), huge.size(), 0, 0, 0, 0));
    host.Picture(true);
    EXPECT_TRUE(player.HasMessage("shbsrc-lost"));
    ASSERT_TRUE(player.AwaitFrames(6));
    EXPECT_EQ(1u, player.Stat("video-left-out"));
    EXPECT_TRUE(player.VideoFrames()[5].discont);
}

TEST(ShbSrc, EndsWithTheHost) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    host.Picture(false);
    host.Destroy();
    ASSERT_TRUE(player.AwaitEnd());
    // What was written last comes first.
    EXPECT_EQ(6u, player.VideoFrames().size());
    EXPECT_TRUE(player.HasMessage("shbsrc-gone"));
}

TEST(ShbSrc, WaitsForTheNextHost) {
    const std::string name = UniqueName();
    Player player(name, Set("follow", "true"));
    {
        Host host(name);
        host.Group();
        ASSERT_TRUE(player.AwaitFrames(5, 9));
    }
    EXPECT_TRUE(player.HasMessage("shbsrc-gone"));
    Host host(name);
    host.Group();
    EXPECT_TRUE(player.HasMessage("shbsrc-restarted"));
    ASSERT_TRUE(player.AwaitFrames(10, 18));
    const auto video = player.VideoFrames();
    EXPECT_TRUE(video[5].discont && video[5].key);
    EXPECT_GT(video[5].dts, video[4].dts);
    EXPECT_FALSE(player.With([&] { return player.video_.ended; }));
}

TEST(ShbSrc, EndsOnRequest) {
    Host host;
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    EXPECT_TRUE(gst_element_send_event(player.Pipeline(), gst_event_new_eos()));
    ASSERT_TRUE(player.AwaitEnd());
}

TEST(ShbSrc, RequestToEndBeforeAFrameIsAnError) {
    Host host;
    Player player(host.Name());
    EXPECT_TRUE(gst_element_send_event(player.Pipeline(), gst_event_new_eos()));
    EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_READ) + ": No frame came from the shared buffer before the end.",
              player.Error());
}

TEST(ShbSrc, HostThatEndsBeforeAFrameIsAnError) {
    Host host;
    Player player(host.Name());
    host.Destroy();
    EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_READ) + ": No frame came from the shared buffer before the end.",
              player.Error());
}

TEST(ShbSrc, EndsAfterSoManyFrames) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("num-buffers", "2"));
    ASSERT_TRUE(player.AwaitFrames(2, 2));
    ASSERT_TRUE(player.AwaitEnd());
    EXPECT_EQ(2u, player.VideoFrames().size());
    EXPECT_EQ(2u, player.AudioFrames().size());
}

TEST(ShbSrc, FramesOfAnIntervalComeTogether) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("interval", "50"));
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    host.Group();
    host.Group();
    ASSERT_TRUE(player.AwaitFrames(15, 28));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}), Numbers(player.VideoFrames()));
    EXPECT_GT(player.With([&] { return player.video_.lists; }), 0);
    host.Destroy();
    ASSERT_TRUE(player.AwaitEnd());
}

TEST(ShbSrc, ViewerBeginsWithWhatIsNow) {
    Host host;
    host.Group();
    Player player(host.Name(), Set("catch-up", "true"));
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    const GstSegment segment = player.With([&] { return player.video_.segment; });
    // The key frame is from before the segment: it is decoded and not shown.
    EXPECT_LT(player.VideoFrames()[0].pts, segment.start);
}

TEST(ShbSrc, SilentTrackSaysSo) {
    Host host;
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    for (uint64_t i = 1; i < 10; ++i)
        host.PictureAt(5 * kVideoStep + i * 500 * kMs, true);
    ASSERT_TRUE(player.Await([&] { return !player.audio_.gaps.empty(); }));
    const auto gap = player.With([&] { return player.audio_.gaps[0]; });
    EXPECT_EQ(player.AudioFrames().back().pts + kAudioStep, gap.first);
    EXPECT_LT(gap.first + gap.second, player.VideoFrames().back().pts);
}

TEST(ShbSrc, TimesThatAreNotKnownAreMadeToFit) {
    Host host(UniqueName(), false);
    host.Absent(SHB_AUDIO);
    shb_writer_set_clock(host.VideoWriter().get(), SHB_OFFSET_NONE);
    const std::vector<uint8_t> key{0, 0, 1, 0x65, 0}, other{0, 0, 1, 0x41, 1};
    // Nothing known; then without DTS; then with B frames; then a jump back.
    host.Write(host.VideoWriter(), key, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE, SHB_FRAME_KEY);
    host.Write(host.VideoWriter(), other, 5000 * kMs, SHB_TIME_NONE, kVideoStep, 0);
    host.Write(host.VideoWriter(), other, 5120 * kMs, 5040 * kMs, kVideoStep, 0);
    host.Write(host.VideoWriter(), other, 5080 * kMs, 5080 * kMs, kVideoStep, 0);
    host.Write(host.VideoWriter(), other, 100 * kMs, 100 * kMs, kVideoStep, 0);
    host.Write(host.VideoWriter(), other, 140 * kMs, 140 * kMs, kVideoStep, 0);
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(6));
    const auto video = player.VideoFrames();
    for (size_t i = 0; i < video.size(); ++i) {
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(video[i].pts) && GST_CLOCK_TIME_IS_VALID(video[i].dts)) << i;
        EXPECT_GE(video[i].pts, video[i].dts) << i;
        if (i > 0) {
            // Two ticks of 90 kHz: what a transport stream may make equal.
            EXPECT_GT(video[i].dts, video[i - 1].dts + 22222) << i;
        }
    }
    EXPECT_LE(video[2].pts - video[1].pts, 120 * kMs);
    EXPECT_GT(video[2].pts - video[1].pts, 119 * kMs);
}

TEST(ShbSrc, WrongTimeOfOneFrameStaysItsOwn) {
    Host host;
    host.Absent(SHB_AUDIO);
    host.Picture(true);
    host.PictureAt(3600 * 1000 * kMs, false);
    host.PictureAt(UINT64_MAX / 2 + 1, false);
    for (int i = 0; i < 3; ++i)
        host.Picture(false);
    Player player(host.Name(), Set("start", "oldest"));
    ASSERT_TRUE(player.AwaitFrames(6));
    const auto video = player.VideoFrames();
    for (size_t i = 1; i < video.size(); ++i) {
        EXPECT_GT(video[i].dts, video[i - 1].dts) << i;
        EXPECT_LT(video[i].dts, video[0].dts + 5000 * kMs) << i;
    }
    EXPECT_EQ(kVideoStep, video[5].pts - video[4].pts);
}

TEST(ShbSrc, AnswersForALiveSource) {
    Host host;
    host.Group();
    Player player(host.Name(), [](GstElement *element) { g_object_set(element, "latency", 70u, "interval", 30u, nullptr); });
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    GstPad *pad = gst_element_get_static_pad(player.Source(), "video");
    GstQuery *query = gst_query_new_latency();
    ASSERT_TRUE(gst_pad_query(pad, query));
    gboolean live = FALSE;
    GstClockTime least = 0, most = 0;
    gst_query_parse_latency(query, &live, &least, &most);
    EXPECT_TRUE(live);
    EXPECT_EQ(100 * kMs, least);
    EXPECT_EQ(GST_CLOCK_TIME_NONE, most);
    gst_query_unref(query);
    query = gst_query_new_seeking(GST_FORMAT_TIME);
    ASSERT_TRUE(gst_pad_query(pad, query));
    gboolean seekable = TRUE;
    gst_query_parse_seeking(query, nullptr, &seekable, nullptr, nullptr);
    EXPECT_FALSE(seekable);
    gst_query_unref(query);
    EXPECT_FALSE(gst_element_seek_simple(player.Source(), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, 0));
    gst_object_unref(pad);
}

struct BadCase {
    const char *what;
    std::function<void(GstElement *, const std::string &name)> set;
    int code;
    const char *text;
};

class ShbSrcBad : public ::testing::TestWithParam<BadCase> {};

TEST_P(ShbSrcBad, IsAnErrorAtOnce) {
    Host host;
    host.Group();
    Player player(host.Name(), [&](GstElement *element) { GetParam().set(element, host.Name()); });
    EXPECT_EQ(GST_STATE_CHANGE_FAILURE, player.State());
    EXPECT_EQ(std::to_string(GetParam().code) + ": " + GetParam().text, player.Error());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ShbSrcBad,
    ::testing::Values(
        BadCase{"no name", [](GstElement *e, const std::string &) { g_object_set(e, "buffer", nullptr, nullptr); },
                GST_RESOURCE_ERROR_SETTINGS, "No shared buffer was named."},
        BadCase{"a name that cannot be", [](GstElement *e, const std::string &) { g_object_set(e, "buffer", "a/b", nullptr); },
                GST_RESOURCE_ERROR_SETTINGS, "\"a/b\" cannot be the name of a shared buffer."},
        BadCase{"no such buffer",
                [](GstElement *e, const std::string &) { g_object_set(e, "buffer", "shbtest-none", nullptr); },
                GST_RESOURCE_ERROR_NOT_FOUND, "There is no shared buffer \"shbtest-none\"."},
        BadCase{"a start that is none", [](GstElement *e, const std::string &) { g_object_set(e, "start", "soon", nullptr); },
                GST_RESOURCE_ERROR_SETTINGS, "start=\"soon\" is not a place to start."}),
    [](const auto &one) {
        std::string name = one.param.what;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return c == ' '; }, '_');
        return name;
    });

TEST(ShbSrc, TrackOutsideOfTheBufferIsAnError) {
    Host host;
    Player player(host.Name(), Set("stream", "1"));
    EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_SETTINGS) + ": The shared buffer \"" + host.Name() + "\" has no such track.",
              player.Error());
}

TEST(ShbSrc, LaterBufferWithoutTheTrackIsAnError) {
    const std::string name = UniqueName();
    for (const bool begun : {false, true}) {
        shb_geometry_t geometry = SmallGeometry();
        geometry.streams = 2;
        Buffer buffer;
        if (begun)
            buffer = Create(name, geometry);
        Player player(name, [](GstElement *element) { g_object_set(element, "stream", 1, "follow", TRUE, nullptr); });
        buffer.reset();
        geometry.streams = 1;
        buffer = Create(name, geometry);
        EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_SETTINGS) + ": The shared buffer \"" + name + "\" has no such track.",
                  player.Error());
    }
}

TEST(ShbSrc, DamageWhileItRunsIsAnError) {
    for (const bool follow : {false, true}) {
        Host host;
        host.Group();
        Player player(host.Name(), [follow](GstElement *element) { g_object_set(element, "follow", follow, nullptr); });
        ASSERT_TRUE(player.AwaitFrames(5, 9));
        {
            const Segment segment("/dev/shm/" + host.Name());
            auto *track = reinterpret_cast<shb_track_t *>(segment.bytes + SHB_PAGE_BYTES);
            track->tail = track->head + 5;
        }
        EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_READ) + ": The shared buffer \"" + host.Name() + "\" is damaged.",
                  player.Error());
        EXPECT_EQ(5u, player.VideoFrames().size());
    }
}

TEST(ShbSrc, WhatIsNoBufferIsAnError) {
    const std::string name = UniqueName();
    const std::string path = "/dev/shm/" + name;
    std::ofstream(path) << std::string(8192, 'x');
    Player player(name);
    EXPECT_EQ(std::to_string(GST_RESOURCE_ERROR_OPEN_READ) + ": The shared buffer \"" + name + "\" cannot be read.",
              player.Error());
    std::remove(path.c_str());
}

TEST(ShbSrc, CanBeStoppedAndStartedAtAnyMoment) {
    Host host;
    host.Group();
    // Without a buffer, before the first frame, while it plays.
    for (const std::string &name : {UniqueName(), Host().Name(), host.Name()}) {
        Player player(name, Set("follow", "true"));
        for (int i = 0; i < 3; ++i) {
            player.Stop();
            EXPECT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(player.Pipeline(), GST_STATE_PLAYING));
        }
        if (name == host.Name()) {
            EXPECT_TRUE(player.AwaitFrames(1, 1));
        }
    }
}

TEST(ShbSrc, HoldsStillInPause) {
    Host host;
    host.Group();
    Player player(host.Name());
    ASSERT_TRUE(player.AwaitFrames(5, 9));
    EXPECT_EQ(GST_STATE_CHANGE_NO_PREROLL, gst_element_set_state(player.Pipeline(), GST_STATE_PAUSED));
    host.Group();
    EXPECT_EQ(GST_STATE_CHANGE_SUCCESS, gst_element_set_state(player.Pipeline(), GST_STATE_PLAYING));
    ASSERT_TRUE(player.AwaitFrames(10, 18));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), Numbers(player.VideoFrames()));
}

struct UriCase {
    const char *uri;
    const char *back;  // null: refused
};

class ShbSrcUri : public ::testing::TestWithParam<UriCase> {};

TEST_P(ShbSrcUri, SetsTheProperties) {
    GError *error = nullptr;
    GstElement *element = gst_element_make_from_uri(GST_URI_SRC, GetParam().uri, nullptr, &error);
    EXPECT_EQ(GetParam().back == nullptr, element == nullptr) << (error != nullptr ? error->message : "");
    if (element != nullptr) {
        gchar *uri = gst_uri_handler_get_uri(GST_URI_HANDLER(element));
        EXPECT_STREQ(GetParam().back, uri);
        g_free(uri);
        gst_object_unref(gst_object_ref_sink(element));
    }
    g_clear_error(&error);
}

INSTANTIATE_TEST_SUITE_P(
    Uris, ShbSrcUri,
    ::testing::Values(UriCase{"shb://cam1", "shb://cam1?channel=0&stream=0&start=key&follow=0&catch-up=0"},
                      UriCase{"shb:///Cam_1.x/", "shb://Cam_1.x?channel=0&stream=0&start=key&follow=0&catch-up=0"},
                      UriCase{"shb://c?channel=2&stream=1&start=-10s&follow=1&catch-up",
                              "shb://c?channel=2&stream=1&start=-10s&follow=1&catch-up=1"},
                      UriCase{"shb://", nullptr}, UriCase{"shb://c?start=soon", nullptr}, UriCase{"shb://c?chanel=1", nullptr},
                      UriCase{"shb://c?channel=-1", nullptr}, UriCase{"shb://c?channel=x", nullptr}));

TEST(ShbSrc, UriIsRefusedWhileItRuns) {
    Host host;
    host.Group();
    Player player(host.Name());
    GError *error = nullptr;
    EXPECT_FALSE(gst_uri_handler_set_uri(GST_URI_HANDLER(player.Source()), "shb://other", &error));
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(static_cast<gint>(GST_URI_ERROR_BAD_STATE), error->code);
    g_error_free(error);
}

TEST(ShbSrc, ErrorOfWhatFollowsEndsTheStream) {
    Host host;
    host.Group();
    GError *error = nullptr;
    const std::string text = "shbsrc buffer=" + host.Name() + " ! identity error-after=1 ! fakesink";
    GstElement *pipeline = gst_parse_launch(text.c_str(), &error);
    ASSERT_NE(nullptr, pipeline) << error->message;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message =
        gst_bus_timed_pop_filtered(bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(nullptr, message);
    EXPECT_EQ(GST_MESSAGE_ERROR, GST_MESSAGE_TYPE(message));
    gst_message_unref(message);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
}

}  // namespace
