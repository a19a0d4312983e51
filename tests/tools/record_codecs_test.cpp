// Which codecs each container carries, as files of the built tool show it.
#include <gtest/gtest.h>

#include <algorithm>

#include "record_support.h"

namespace {

struct Sound {
    const char *name;
    Media (*load)();
    const char *codec;    // as ffprobe names it
    const char *carried;  // by these containers
};

Media Parsed(const char *file, const char *read) {
    return LoadMedia(file, read, SHB_AUDIO);
}

const Sound kSounds[] = {
    {"adts", [] { return LoadAac(); }, "aac", "mkv mp4 ts"},
    {"raw", [] { return Parsed("tone.aac", "aacparse ! audio/mpeg,stream-format=raw"); }, "aac", "mkv mp4 ts"},
    {"mp3", [] { return Parsed("tone.mp3", "mpegaudioparse"); }, "mp3", "mkv mp4 ts"},
    {"mp2", [] { return Parsed("tone.mp2", "mpegaudioparse"); }, "mp2", "mkv mp4 ts"},
    {"ac3", [] { return Parsed("tone.ac3", "ac3parse ! audio/x-ac3,alignment=frame"); }, "ac3", "mkv mp4 ts"},
    {"eac3", [] { return Parsed("tone.eac3", "ac3parse ! audio/x-eac3,alignment=frame"); }, "eac3", "mkv"},
    {"opus", [] { return Parsed("tone.opus", "oggdemux ! opusparse"); }, "opus", "mkv mp4 ts"},
    {"vorbis", [] { return Parsed("tone.ogg", "oggdemux ! vorbisparse"); }, "vorbis", "mkv"},
    {"alaw", [] { return MakeG711("PCMA"); }, "pcm_alaw", "mkv"},
    {"mulaw", [] { return MakeG711("PCMU"); }, "pcm_mulaw", "mkv"},
};

class LongRecordCodecsOfSound : public testing::TestWithParam<Sound> {};

}  // namespace

TEST_P(LongRecordCodecsOfSound, AreInTheContainersThatCarryThem) {
    const Media video = LoadH264();
    const Media audio = GetParam().load();
    for (const std::string &container : Words("mkv mp4 ts")) {
        const std::vector<std::string> carried = Words(GetParam().carried);
        const TempDir dir;
        const std::string out = dir.File("cam." + container);
        Station station(std::string(GetParam().name) + "-" + container);
        station.Carry(&video, &audio);
        station.Send(0, 2 * kNsPerSecond);
        Child recorder(Recording(station, out, {"--no-follow"}));
        if (std::find(carried.begin(), carried.end(), container) == carried.end()) {
            EXPECT_EQ(recorder.Wait(), 1) << container;
            EXPECT_TRUE(Has(recorder.Err(), " cannot be in ")) << recorder.Err();
            EXPECT_EQ(Lines(recorder.Err()).size(), 1u) << recorder.Err();
            EXPECT_TRUE(FilesIn(dir.File("")).empty());
            continue;
        }
        ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return Has(recorder.Err(), " into "); }))
            << container << ": " << recorder.Err();
        station.Close();
        EXPECT_EQ(recorder.Wait(), 0) << container << ": " << recorder.Err();
        const Probed probed = Probe(out);
        // MP4 has one name for all layers.
        const std::string codec = container == "mp4" && std::string("mp2") == GetParam().codec ? "mp3" : GetParam().codec;
        EXPECT_EQ(probed.audio.codec, codec) << container;
        EXPECT_EQ(Decode(out), "") << container;
        EXPECT_EQ(probed.video.packets.size(), station.Sent(SHB_VIDEO)) << container;
        EXPECT_EQ(probed.audio.packets.size(), station.Sent(SHB_AUDIO)) << container;
        ASSERT_FALSE(probed.audio.packets.empty());
        // Opus begins with samples that are not heard.
        constexpr double kPreSkip = 0.0075;
        EXPECT_NEAR(probed.audio.Times().front(), probed.video.Times().front(), kPreSkip) << container;
        EXPECT_NEAR(probed.audio.Times().back() - probed.audio.Times().front(),
                    static_cast<double>(2 * kNsPerSecond) / kNsPerSecond, 0.06)
            << container;
    }
}

INSTANTIATE_TEST_SUITE_P(Sounds, LongRecordCodecsOfSound, testing::ValuesIn(kSounds),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(LongRecordCodecs, H265) {
    const Media video = LoadH265();
    const Media audio = LoadAac();
    for (const std::string &container : Words("mkv mp4 ts")) {
        const TempDir dir;
        const std::string out = dir.File("cam." + container);
        Station station("h265-" + container);
        station.Carry(&video, &audio);
        station.Send(0, 2 * kNsPerSecond);
        Child recorder(Recording(station, out, {"--no-follow"}));
        ASSERT_TRUE(WaitWhileRunning(recorder, [&recorder] { return Has(recorder.Err(), " into "); })) << recorder.Err();
        station.Close();
        EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
        const Probed probed = Probe(out);
        EXPECT_EQ(probed.video.codec, "hevc");
        EXPECT_EQ(probed.video.packets.size(), station.Sent(SHB_VIDEO)) << container;
        EXPECT_EQ(Decode(out), "") << container;
    }
}
