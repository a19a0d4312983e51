// The window that the tool opens, on a display of the test's own.
#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

#include "live_track.h"
#include "run_support.h"
#include "window_watch.h"

namespace {

constexpr uint32_t kRed = 0xC83C28;
constexpr uint32_t kGreen = 0x28B43C;
constexpr uint32_t kBlue = 0x2828C8;

// Those of a machine with sound.
constexpr const char *kNoSoundDevice =
    "pulsesink:NONE,alsasink:NONE,jackaudiosink:NONE,osssink:NONE,oss4sink:NONE,openalsink:NONE,pipewiresink:NONE";
constexpr const char *kSoundDevice = "fakeaudiosink:MAX";

std::vector<std::string> Playing(std::vector<std::string> arguments) {
    const char *tool = std::getenv("GST_SOURCE_READ_TOOL");
    arguments.insert(arguments.begin(), {tool != nullptr ? tool : "gst-source-read", "play"});
    return arguments;
}

// A second of one colour, as often as it is wanted.
std::vector<std::string> Coloured(uint32_t colour, const std::string &size, bool h265) {
    const TempDir dir;
    const std::string file = dir.File(h265 ? "colour.h265" : "colour.h264");
    std::ostringstream hex;
    hex << "0x" << std::hex << colour;
    const std::string encoder =
        h265 ? "-c:v libx265 -preset ultrafast -x265-params keyint=5:bframes=0:repeat-headers=1:log-level=none"
             : "-c:v libx264 -preset ultrafast -tune zerolatency -g 5";
    Child ffmpeg(Words("ffmpeg -nostdin -v error -y -f lavfi -i color=c=" + hex.str() + ":size=" + size + ":rate=25 -t 1 " +
                       encoder + " -pix_fmt yuv420p " + file));
    EXPECT_EQ(ffmpeg.Wait(), 0) << ffmpeg.Err();
    return AccessUnits(file);
}

// Sends a stream in real time, again and again, for as long as it lives.
class LiveSource {
  public:
    LiveSource(const LiveBuffer &buffer, const std::vector<std::string> &units, bool h265)
        : m_video(buffer, h265), m_units(units), m_thread([this] { Run(); }) {}
    ~LiveSource() {
        {
            const std::lock_guard lock(m_lock);
            m_over = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    LiveSource(const LiveSource &) = delete;
    LiveSource &operator=(const LiveSource &) = delete;

    // From the next key frame on.
    void GoOnWith(const std::vector<std::string> &units) {
        const std::lock_guard lock(m_lock);
        m_units = units;
        m_next = 0;
    }

  private:
    void Run() {
        std::unique_lock lock(m_lock);
        while (!m_over) {
            const std::string unit = m_units[m_next++ % m_units.size()];
            lock.unlock();
            m_video.Push(unit);
            lock.lock();
            m_wake.wait_for(lock, 40ms, [this] { return m_over; });
        }
    }

    LiveVideo m_video;
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::vector<std::string> m_units;
    size_t m_next = 0;
    bool m_over = false;
    std::thread m_thread;
};

bool IsNear(uint32_t colour, uint32_t other) {
    constexpr int kMost = 16;
    for (const unsigned shift : {0U, 8U, 16U}) {
        if (std::abs(static_cast<int>(colour >> shift & 0xffU) - static_cast<int>(other >> shift & 0xffU)) > kMost) {
            return false;
        }
    }
    return true;
}

class Play : public testing::Test {
  protected:
    // The tool on this display.
    Child::Variables Environment(const char *ranks = kNoSoundDevice) const {
        return {{"DISPLAY", m_display.Display()}, {"WAYLAND_DISPLAY", ""}, {"GST_PLUGIN_FEATURE_RANK", ranks}};
    }
    bool Shows(Child &child, uint32_t colour) const {
        return WaitWhileRunning(child, [&] {
            const auto shown = m_display.ColourAt(m_name, 80, 60);
            return shown && IsNear(*shown, colour);
        });
    }

    const WindowWatch m_display;
    const std::string m_name = BufferName("play");
};

TEST_F(Play, EndsWithItsWindow) {
    const LiveBuffer buffer(m_name);
    buffer.LeaveOut(SHB_AUDIO);
    const LiveSource source(buffer, Coloured(kRed, "320x240", false), false);
    Child child(Playing({m_name}), Environment());
    ASSERT_TRUE(Shows(child, kRed)) << child.Err();
    EXPECT_EQ(m_display.SizeOf(m_name), (WindowWatch::Size{320, 240}));
    m_display.Close(m_name);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    const std::vector<std::string> said = Lines(child.Err());
    ASSERT_EQ(said.size(), 2U) << child.Err();
    EXPECT_EQ(said[0], "gst-source-read: no sound: no sound device can be opened");
    EXPECT_EQ(said[1].rfind("gst-source-read: " + m_name + ": H264 ", 0), 0U) << said[1];
}

TEST_F(Play, EndsWithASignal) {
    const LiveBuffer buffer(m_name);
    buffer.LeaveOut(SHB_AUDIO);
    const LiveSource source(buffer, Coloured(kRed, "320x240", false), false);
    Child child(Playing({m_name, "--no-audio"}), Environment());
    ASSERT_TRUE(Shows(child, kRed)) << child.Err();
    // The line follows the picture within a tick.
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), m_name + ": H264 "); })) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
    EXPECT_EQ(Lines(child.Err()).size(), 1U) << child.Err();
}

// Of a source that does not say what it has.
TEST_F(Play, WaitsForAPictureThatComesLongAfterTheSound) {
    const LiveBuffer buffer(m_name);
    shb_writer_t *sound = nullptr;
    ASSERT_EQ(shb_writer_open(buffer.Get(), 0, 0, SHB_AUDIO, &sound), SHB_OK);
    shb_description_t media{};
    media.media = 21;
    std::snprintf(media.code, sizeof media.code, "PCMU");
    media.sample_rate = 8000;
    media.channels = 1;
    shb_writer_describe(sound, &media, nullptr, 0);
    // Ten seconds, at this rate.
    shb_writer_set_rates(sound, 64000, 50000);
    const std::string frame(160, '\xff');
    for (int i = 0; i < 500; ++i) {
        shb_writer_write(sound, frame.data(), frame.size(), SHB_TIME_NONE, SHB_TIME_NONE, 20'000'000, SHB_FRAME_KEY);
    }
    Child child(Playing({m_name, "--no-audio"}), Environment());
    const std::string waiting = m_name + ": nothing to show yet, waiting for frames\n";
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), waiting); })) << child.Err();
    {
        const LiveSource source(buffer, Coloured(kRed, "320x240", false), false);
        EXPECT_TRUE(Shows(child, kRed)) << child.Err();
        child.Signal(SIGINT);
        EXPECT_EQ(child.Wait(), 0) << child.Err();
    }
    shb_writer_close(sound);
}

TEST_F(Play, GoesOnWithAnotherSizeAndAnotherCodec) {
    const LiveBuffer buffer(m_name);
    buffer.LeaveOut(SHB_AUDIO);
    auto source = std::make_unique<LiveSource>(buffer, Coloured(kRed, "320x240", false), false);
    Child child(Playing({m_name, "--no-audio"}), Environment());
    ASSERT_TRUE(Shows(child, kRed)) << child.Err();
    source->GoOnWith(Coloured(kGreen, "640x480", false));
    EXPECT_TRUE(Shows(child, kGreen)) << child.Err();
    EXPECT_FALSE(Has(child.Err(), "begins again")) << child.Err();
    source.reset();
    const auto blue = Coloured(kBlue, "320x240", true);
    source = std::make_unique<LiveSource>(buffer, blue, true);
    EXPECT_TRUE(Shows(child, kBlue)) << child.Err();
    EXPECT_TRUE(Has(child.Err(), m_name + ": another codec; decoding begins again\n")) << child.Err();
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
}

TEST_F(Play, FollowsItsHost) {
    auto buffer = std::make_unique<LiveBuffer>(m_name);
    buffer->LeaveOut(SHB_AUDIO);
    auto source = std::make_unique<LiveSource>(*buffer, Coloured(kRed, "320x240", false), false);
    Child follows(Playing({m_name, "--no-audio", "--follow"}), Environment());
    ASSERT_TRUE(Shows(follows, kRed)) << follows.Err();
    Child stays(Playing({m_name, "--no-audio"}), Environment());
    ASSERT_TRUE(WaitWhileRunning(stays, [&] { return Has(stays.Err(), "H264"); })) << stays.Err();
    source.reset();
    buffer.reset();
    EXPECT_EQ(stays.Wait(), 0) << stays.Err();
    EXPECT_EQ(Lines(stays.Err()).back(), "gst-source-read: " + m_name + ": the stream has ended");
    EXPECT_TRUE(WaitWhileRunning(follows, [&] {
        return Has(follows.Err(), m_name + ": its host has gone; waiting for it to come back\n");
    })) << follows.Err();
    buffer = std::make_unique<LiveBuffer>(m_name);
    source = std::make_unique<LiveSource>(*buffer, Coloured(kGreen, "320x240", false), false);
    EXPECT_TRUE(Shows(follows, kGreen)) << follows.Err();
    EXPECT_TRUE(Has(follows.Err(), m_name + ": its host is back\n")) << follows.Err();
    follows.Signal(SIGINT);
    EXPECT_EQ(follows.Wait(), 0) << follows.Err();
}

TEST_F(Play, FollowWaitsForABufferThatIsNotThereYet) {
    Child child(Playing({m_name, "--follow"}), Environment());
    ASSERT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), m_name + ": not there yet, waiting for it\n"); }));
    const LiveBuffer buffer(m_name);
    buffer.LeaveOut(SHB_AUDIO);
    const LiveSource source(buffer, Coloured(kRed, "320x240", false), false);
    EXPECT_TRUE(Shows(child, kRed)) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();
}

TEST_F(Play, FailuresAreOneLine) {
    const LiveBuffer buffer(m_name);
    buffer.LeaveOut(SHB_AUDIO);
    const LiveSource source(buffer, Coloured(kRed, "320x240", false), false);
    const std::string start = "gst-source-read: ";
    const Child::Variables here = Environment();
    const Child::Variables undecodable = Environment("avdec_h264:NONE,openh264dec:NONE");
    std::vector<std::tuple<std::vector<std::string>, Child::Variables, std::string>> cases{
        {{m_name + "-not"}, here, m_name + "-not: no shared buffer of this name"},
        {{m_name, "--stream", "1"}, here, m_name + " has 1 channel of 1 stream, counted from 0"},
        {{m_name, "--no-audio"}, undecodable, "H.264 needs a decoder: apt install gstreamer1.0-libav"},
        {{m_name},
         {{"DISPLAY", ""}, {"WAYLAND_DISPLAY", ""}},
         "no display: neither DISPLAY nor WAYLAND_DISPLAY is set. A picture: gst-source-read snapshot " + m_name +
             " OUT.jpg. On another machine: ssh HOST gst-source-read read " + m_name + " --format mpegts - | ffplay -"},
        {{m_name}, {{"DISPLAY", ":no"}, {"WAYLAND_DISPLAY", ""}}, "no window can be opened on the display :no"},
        {{m_name},
         Environment("xvimagesink:NONE,ximagesink:NONE,glimagesink:NONE"),
         "the GStreamer element \"ximagesink\" is missing; it is in the package gstreamer1.0-x"},
    };
    const LiveBuffer sound(m_name + "-sound");
    sound.LeaveOut(SHB_VIDEO);
    cases.push_back({{sound.Name()}, here, sound.Name() + " has no video, and no sound device can be opened"});
    cases.push_back({{sound.Name(), "--no-audio"}, {{"DISPLAY", ""}}, sound.Name() + " has no video"});
    for (const auto &[arguments, variables, message] : cases) {
        Child child(Playing(arguments), variables);
        EXPECT_EQ(child.Wait(), 1) << message;
        EXPECT_EQ(child.Out(), "");
        EXPECT_EQ(child.Err(), start + message + "\n");
    }
}

// A host beside it, with H.264 and AAC.
TEST_F(Play, HasSoundWhereItCan) {
    const char *tool = std::getenv("GST_SOURCE_TOOL");
    ASSERT_NE(tool, nullptr);
    const auto port = FreeUdpPort();
    Child host({tool, UdpUrl(port), "--name", m_name});
    const Sender sender(UdpUrl(port));
    Child child(Playing({m_name, "--follow"}), Environment(kSoundDevice));
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return Has(child.Err(), ", AAC 48000 Hz 2 ch\n"); })) << child.Err();
    // Its red stripe.
    EXPECT_TRUE(WaitWhileRunning(child, [&] { return m_display.ColourAt(m_name, 10, 80).value_or(0) >= 0xE00000; }));
    EXPECT_FALSE(Has(child.Err(), "no sound")) << child.Err();
    child.Signal(SIGINT);
    EXPECT_EQ(child.Wait(), 0) << child.Err();

    const std::string undecodable = std::string(kSoundDevice) + ",avdec_aac:NONE,avdec_aac_fixed:NONE,faad:NONE,fdkaacdec:NONE";
    Child silent(Playing({m_name}), Environment(undecodable.c_str()));
    EXPECT_TRUE(WaitWhileRunning(silent, [&] { return m_display.ColourAt(m_name, 10, 80).value_or(0) >= 0xE00000; }))
        << silent.Err();
    EXPECT_TRUE(Has(silent.Err(), "gst-source-read: no sound: AAC needs a decoder: apt install gstreamer1.0-libav\n"))
        << silent.Err();
    silent.Signal(SIGINT);
    EXPECT_EQ(silent.Wait(), 0) << silent.Err();
    host.Signal(SIGTERM);
    EXPECT_EQ(host.Wait(), 0) << host.Err();
}

}  // namespace
