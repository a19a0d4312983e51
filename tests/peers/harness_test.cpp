// The comparison itself: each defect that it exists for must be seen.

#include <algorithm>
#include <csignal>
#include <functional>

#include "harness/PeerTest.h"

namespace peers {
namespace {

// Frames as a reader would get them if the chain did nothing at all.
std::vector<Frame> Perfect(const std::vector<std::string> &units, size_t first, size_t count, uint64_t epoch = 1) {
    std::vector<Frame> frames;
    for (size_t i = 0; i < count; ++i) {
        shb_frame_t info{};
        info.sequence = i;
        info.epoch = epoch;
        frames.push_back({info, units[first + i], Clock::now()});
    }
    return frames;
}

void Renumber(std::vector<Frame> &frames) {
    for (size_t i = 0; i < frames.size(); ++i) {
        frames[i].info.sequence = i;
    }
}

struct Defect {
    const char *name;
    std::function<void(std::vector<Frame> &)> make;
};

std::ostream &operator<<(std::ostream &out, const Defect &defect) {
    return out << defect.name;
}

class Comparison : public testing::TestWithParam<Defect> {};

TEST_P(Comparison, SeesTheDefect) {
    const Material &material = GetMaterial("h264_mp3");
    auto video = Perfect(material.videoUnits, 30, 100);
    auto audio = Perfect(material.audioUnits, 30, 100);
    ASSERT_TRUE(SameVideo(material, video, 100));
    ASSERT_TRUE(SameAudio(material, audio, 100));
    GetParam().make(video);
    GetParam().make(audio);
    EXPECT_FALSE(SameVideo(material, video, 90));
    EXPECT_FALSE(SameAudio(material, audio, 90));
}

INSTANTIATE_TEST_SUITE_P(, Comparison,
                         testing::Values(Defect{"hole", [](auto &frames) { frames.erase(frames.begin() + 50); }},
                                         Defect{"hole_behind_right_numbers",
                                                [](auto &frames) {
                                                    frames.erase(frames.begin() + 50);
                                                    Renumber(frames);
                                                }},
                                         Defect{"repeated",
                                                [](auto &frames) {
                                                    const Frame twice = frames[50];
                                                    frames.insert(frames.begin() + 50, twice);
                                                    Renumber(frames);
                                                }},
                                         Defect{"swapped", [](auto &frames) { std::swap(frames[50].data, frames[51].data); }},
                                         Defect{"bit_flipped",
                                                [](auto &frames) { frames[50].data[frames[50].data.size() / 2] ^= 1; }},
                                         Defect{"cut_short", [](auto &frames) { frames[50].data.pop_back(); }},
                                         Defect{"empty", [](auto &frames) { frames[50].data.clear(); }},
                                         Defect{"lost", [](auto &frames) { frames[50].info.lost = 1; }},
                                         Defect{"too_few", [](auto &frames) { frames.resize(89); }},
                                         Defect{"nothing", [](auto &frames) { frames.clear(); }},
                                         Defect{"new_epoch_too_short",
                                                [](auto &frames) {
                                                    for (size_t i = 50; i < frames.size(); ++i) {
                                                        frames[i].info.epoch = 2;
                                                    }
                                                }}),
                         [](const auto &row) { return row.param.name; });

TEST(Pcm, IsOneTextHoweverItIsCut) {
    const Material &material = GetMaterial("h264_pcma");
    std::string text;
    for (size_t i = 10; i < 40; ++i) {
        text += material.audioUnits[i];
    }
    std::vector<std::string> pieces;
    for (size_t at = 100; at + 777 <= text.size(); at += 777) {
        pieces.push_back(text.substr(at, 777));
    }
    auto frames = Perfect(pieces, 0, pieces.size());
    EXPECT_TRUE(SameAudio(material, frames, 10));
    frames[5].data.pop_back();
    EXPECT_FALSE(SameAudio(material, frames, 10));
}

TEST(KeyFrames, NeedParameterSetsAndFlag) {
    const Material &material = GetMaterial("h264_only");
    const std::string sets("\0\0\0\1\x67\1\2\0\0\0\1\x68\3", 13);
    auto frames = Perfect(material.videoUnits, 0, 60);
    EXPECT_FALSE(KeyFramesComplete(material, frames, 0)) << "neither sets nor flag";
    for (auto &frame : frames) {
        if (Traits(material.video, SplitByteStream(frame.data)).idr) {
            frame.info.flags |= SHB_FRAME_KEY;
        }
    }
    EXPECT_FALSE(KeyFramesComplete(material, frames, 0)) << "no sets";
    for (auto &frame : frames) {
        if ((frame.info.flags & SHB_FRAME_KEY) != 0) {
            frame.data.insert(0, sets);
        }
    }
    EXPECT_TRUE(KeyFramesComplete(material, frames, 3));
    EXPECT_TRUE(SameVideo(material, frames, 60)) << "parameter sets are not part of the comparison";
    EXPECT_FALSE(KeyFramesComplete(material, frames, 4)) << "only three in sixty";
    frames[30].info.flags |= SHB_FRAME_KEY;
    EXPECT_FALSE(KeyFramesComplete(material, frames, 0)) << "a flag too many";
}

TEST(AdtsHeader, MustDescribeItsFrame) {
    std::string frame(
        "\xff\xf1\x4c\x80\x01\x7f\xfc"
        "abcd",
        11);
    ASSERT_TRUE(ParseAdts(frame).has_value());
    EXPECT_EQ(ParseAdts(frame)->sampleRate, 48000);
    EXPECT_EQ(ParseAdts(frame)->channels, 2);
    EXPECT_EQ(ParseAdts(frame)->payload, "abcd");
    EXPECT_FALSE(ParseAdts(frame + "e").has_value());
    EXPECT_FALSE(ParseAdts(frame.substr(0, 6)).has_value());
    frame[0] = '\x7f';
    EXPECT_FALSE(ParseAdts(frame).has_value());
}

// ---- Child processes ------------------------------------------------------------------------------------------------

class Children : public PeerTest, public Scene {};

TEST_F(Children, AreEndedWithWhatTheyStarted) {
    pid_t grandchild = 0;
    {
        // Deaf to SIGTERM, and with a child of its own.
        const auto stubborn = Start("stubborn", {"sh", "-c", "trap '' TERM; sleep 1000 & echo $!; wait; sleep 1000"});
        ASSERT_TRUE(WaitFor([&] { return !stubborn->Output().empty(); }));
        grandchild = std::stoi(stubborn->Output());
        EXPECT_EQ(kill(grandchild, 0), 0);
        EXPECT_TRUE(stubborn->Running());
    }
    EXPECT_TRUE(WaitFor([&] { return kill(grandchild, 0) != 0; }));
}

TEST_F(Children, TellHowTheyEnded) {
    EXPECT_EQ(Start("three", {"sh", "-c", "exit 3"})->Wait(), 3);
    const auto killed = Start("killed", {"sleep", "1000"});
    killed->Kill();
    EXPECT_EQ(killed->Wait(), 128 + SIGKILL);
    EXPECT_FALSE(killed->Running());
    EXPECT_THROW(Start("none", {"/no/such/program"}), std::runtime_error);
}

TEST_F(Children, LogLinesAreTakenApart) {
    std::printf("[2024-01-02 03.04.05] (WARN) (77) [CUDPSource] a  line, url=x\nbare line\n");
    std::fflush(stdout);
    EXPECT_TRUE(log.WaitLine("WARN", "[CUDPSource] a  line, url=x"));
    EXPECT_TRUE(log.WaitLine("", "bare line"));
    EXPECT_FALSE(log.Has("INFO", "[CUDPSource] a  line, url=x"));
    EXPECT_FALSE(log.Has("WARN", "[CUDPSource] a line, url=x"));
}

}  // namespace
}  // namespace peers
