// What the element works with, by itself: decoding times, parameter sets, codec data of audio, the clock.
#include <gst/check/gsttestclock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "audio_config.h"
#include "clock_offset.h"
#include "coded.h"
#include "dts_maker.h"
#include "param_sets.h"
#include "shb.h"
#include "video_report.h"

using namespace coded;

namespace {

class Framework : public ::testing::Environment {
  public:
    void SetUp() override { gst_init(nullptr, nullptr); }
};
const auto *const framework = ::testing::AddGlobalTestEnvironment(new Framework);  // NOLINT(cert-err58-cpp)

Bytes ToBytes(GBytes *bytes) {
    if (bytes == nullptr)
        return {};
    gsize size = 0;
    const auto *data = static_cast<const uint8_t *>(g_bytes_get_data(bytes, &size));
    return {data, data + size};
}

// ---- Decoding times --------------------------------------------------------------------------------------------------

constexpr GstClockTime kNone = GST_CLOCK_TIME_NONE;
constexpr GstClockTime kFrame = 40 * GST_MSECOND;
constexpr GstClockTime kBegin = 1000 * kFrame;
constexpr int kNoTime = -1000;

class Dts : public ::testing::Test {
  protected:
    Dts() { shb_dts_maker_init(&maker_); }
    void Depth(int depth) { shb_dts_maker_set_depth(&maker_, depth); }
    // Times in frames behind kBegin, kNoTime for none. What is made in a smallest step counts as the one before.
    int Next(int pts, bool discont = false) {
        const GstClockTime dts = shb_dts_maker_next(
            &maker_, pts == kNoTime ? kNone : kBegin + static_cast<GstClockTime>(pts) * kFrame, kNone, kFrame, discont);
        if (dts == kNone)
            return kNoTime;
        EXPECT_LE(dts % kFrame, 2 * GST_MSECOND);
        return static_cast<int>(dts / kFrame) - static_cast<int>(kBegin / kFrame);
    }
    std::vector<int> All(const std::vector<int> &pts) {
        std::vector<int> made;
        for (const int each : pts)
            made.push_back(Next(each));
        return made;
    }
    ShbDtsMaker maker_{};
};

}  // namespace

TEST_F(Dts, WithoutReorderingItIsThePts) {
    Depth(0);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 7, 8}), All({0, 1, 2, 3, 7, 8}));
}

TEST_F(Dts, TwoBFramesInARow) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, 0, 1, 2, 3, 4, 5}), All({0, 3, 1, 2, 6, 4, 5}));
}

TEST_F(Dts, PyramidOfBFrames) {
    Depth(2);
    EXPECT_EQ((std::vector<int>{-2, -1, 0, 1, 2, 3, 4, 5, 6}), All({0, 4, 2, 1, 3, 8, 6, 5, 7}));
}

TEST_F(Dts, GreaterDepthThanInUseIsOnlyEarlier) {
    Depth(3);
    EXPECT_EQ((std::vector<int>{-3, -2, -1, 0, 1, 2, 3}), All({0, 3, 1, 2, 6, 4, 5}));
}

TEST_F(Dts, AKeyFrameInTheMiddleChangesNothing) {
    Depth(1);
    // The second group begins at 5.
    EXPECT_EQ((std::vector<int>{-1, 0, 1, 2, 4, 5, 6, 7}), All({0, 2, 1, 4, 5, 7, 6, 9}));
}

TEST_F(Dts, PicturesShownBeforeTheFirstHaveNoneUntilTheTimesAreRight) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{1, kNoTime, kNoTime, 2, 3, 4, 5}), All({2, 0, 1, 5, 3, 4, 8}));
}

TEST_F(Dts, DepthIsLearnedWhereItIsNotStated) {
    Depth(-1);
    EXPECT_EQ((std::vector<int>{0, 3, kNoTime, kNoTime, 3, 4, 5, 6, 7}), All({0, 3, 1, 2, 6, 4, 5, 9, 7}));
    // The next run knows it from the beginning.
    shb_dts_maker_restart(&maker_);
    EXPECT_EQ((std::vector<int>{-1, 0, 1, 2}), All({0, 3, 1, 2}));
}

TEST_F(Dts, StatedDepthThatIsTooSmallIsRaised) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, 0, 2, kNoTime, 2, 3, 4, 5, 6}), All({0, 4, 2, 1, 3, 8, 6, 5, 7}));
}

TEST_F(Dts, DepthThatIsNoLongerSeenIsForgotten) {
    EXPECT_EQ((std::vector<int>{0, 2, kNoTime}), All({0, 2, 1}));
    int pts = 3;
    for (guint i = 0; i < 2 * SHB_DTS_MEMORY; i++)
        Next(pts++);
    EXPECT_EQ(pts, Next(pts));
}

TEST_F(Dts, FieldsWithTheSameTimeCountOnce) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, kNoTime, 0, kNoTime, 1, kNoTime, 2, kNoTime}), All({0, 0, 3, 3, 1, 1, 2, 2}));
}

TEST_F(Dts, FieldsWithoutATimeAreLeftOut) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, kNoTime, 0, kNoTime, 1, kNoTime, 2}), All({0, kNoTime, 3, kNoTime, 1, kNoTime, 2}));
}

TEST_F(Dts, LostFramesDoNotMatter) {
    Depth(2);
    EXPECT_EQ((std::vector<int>{-2, -1, 0, 3, 4, 6, 7}), All({0, 4, 3, 8, 6, 7, 12}));
}

TEST_F(Dts, JumpForwardsAfterAGapStartsAnew) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, 0, 1}), All({0, 3, 1}));
    EXPECT_EQ(1999, Next(2000, true));
    EXPECT_EQ((std::vector<int>{2000, 2001}), All({2003, 2001}));
}

TEST_F(Dts, GapWithoutAJumpGoesOn) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, 0, 1}), All({0, 3, 1}));
    EXPECT_EQ(3, Next(6, true));
    EXPECT_EQ(4, Next(4));
}

TEST_F(Dts, FramesFarApartAreNoJump) {
    Depth(1);
    EXPECT_EQ((std::vector<int>{-1, 0, 100, 200}), All({0, 100, 200, 300}));
}

TEST_F(Dts, JumpBackStartsAnewAndTeachesNothing) {
    Depth(-1);
    EXPECT_EQ((std::vector<int>{500, 501, 502}), All({500, 501, 502}));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), All({0, 1, 2}));
}

TEST_F(Dts, RestartForgetsTheTimes) {
    Depth(2);
    All({100, 104, 102});
    shb_dts_maker_restart(&maker_);
    EXPECT_EQ((std::vector<int>{98, 99, 100}), All({100, 104, 102}));
}

TEST_F(Dts, OwnTimesAreKept) {
    Depth(1);
    EXPECT_EQ(7u, shb_dts_maker_next(&maker_, 10, 7, 1, FALSE));
    EXPECT_EQ(8u, shb_dts_maker_next(&maker_, kNone, 8, 1, FALSE));
    // One that has none goes on behind them, or without.
    EXPECT_EQ(10u, shb_dts_maker_next(&maker_, 12, kNone, 1, FALSE));
    EXPECT_EQ(11u, shb_dts_maker_next(&maker_, 11, 11, 1, FALSE));
    EXPECT_EQ(kNone, shb_dts_maker_next(&maker_, 11, kNone, 1, FALSE));
}

TEST_F(Dts, TimeLineThatBeginsAtZeroHasShorterSteps) {
    Depth(2);
    EXPECT_EQ(0u, shb_dts_maker_next(&maker_, 10, kNone, 40, FALSE));
    EXPECT_EQ(5u, shb_dts_maker_next(&maker_, 170, kNone, 40, FALSE));
    EXPECT_EQ(10u, shb_dts_maker_next(&maker_, 90, kNone, 40, FALSE));
    shb_dts_maker_restart(&maker_);
    // There is nothing before zero.
    EXPECT_EQ(kNone, shb_dts_maker_next(&maker_, 0, kNone, 40, FALSE));
    EXPECT_EQ(kNone, shb_dts_maker_next(&maker_, 160, kNone, 40, FALSE));
    EXPECT_EQ(0u, shb_dts_maker_next(&maker_, 80, kNone, 40, FALSE));
    EXPECT_EQ(40u, shb_dts_maker_next(&maker_, 40, kNone, 40, FALSE));
}

TEST_F(Dts, DurationThatNothingStatesIsTheUsualOne) {
    Depth(1);
    EXPECT_EQ(kBegin - kFrame, shb_dts_maker_next(&maker_, kBegin, kNone, kNone, FALSE));
    EXPECT_EQ(kBegin, shb_dts_maker_next(&maker_, kBegin + 3 * kFrame, kNone, 0, FALSE));
}

// Any order of frames that a depth allows, shown at any rate, with losses: what is promised holds.
TEST_F(Dts, RisesAndIsNeverLate) {
    std::mt19937 random(1);
    for (int stream = 0; stream < 200; stream++) {
        const auto depth = static_cast<size_t>(stream % 17);
        shb_dts_maker_init(&maker_);
        Depth(static_cast<int>(depth));
        std::vector<GstClockTime> shown;
        GstClockTime at = kBegin;
        for (int i = 0; i < 300; i++)
            shown.push_back(at += 1 + random() % kFrame);
        // Sent when at most `depth` frames that are shown later have been sent.
        GstClockTime last = kNone;
        std::vector<bool> sent(shown.size());
        for (size_t next = 0; next < shown.size();) {
            const auto ahead = static_cast<size_t>(std::count(sent.begin() + static_cast<long>(next), sent.end(), true));
            size_t which = next;
            // The first is shown first, as after a key frame; how far ahead the others are is all the same.
            if (next > 0 && ahead < depth && random() % 2 == 0)
                which = next + random() % 20;
            if (which >= shown.size() || sent[which])
                which = next;
            sent[which] = true;
            if (which == 0 || random() % 50 != 0) {
                const GstClockTime dts = shb_dts_maker_next(&maker_, shown[which], kNone, kFrame, FALSE);
                ASSERT_NE(kNone, dts) << "depth " << depth << " frame " << which;
                ASSERT_LE(dts, shown[which]);
                ASSERT_TRUE(last == kNone || dts > last);
                last = dts;
            }
            while (next < sent.size() && sent[next])
                next++;
        }
    }
}

// ---- Parameter sets ---------------------------------------------------------------------------------------------------

namespace {

class H264Sets : public ::testing::Test {
  protected:
    ~H264Sets() override { shb_video_reader_free(reader_); }
    ShbAccessUnit Read(const Bytes &bytes) {
        const ShbVideoHints hints{};
        ShbAccessUnit unit{};
        reader_->read(reader_, bytes.data(), bytes.size(), FALSE, &hints, &unit, &report_);
        return unit;
    }
    Bytes CodecData() { return ToBytes(shb_video_reader_codec_data(reader_)); }
    ShbVideoReader *const reader_ = shb_h264_reader_new();
    ShbVideoReport report_{};
    const Bytes sequence_ = H264Sequence({});
    const Bytes picture_ = H264Picture(0);
};

}  // namespace

TEST_F(H264Sets, AreTheCodecDataAsTheyCame) {
    const ShbAccessUnit unit = Read(Unit({sequence_, picture_, H264Slice(true)}));
    EXPECT_TRUE(unit.key && unit.reported && unit.new_sets);
    EXPECT_EQ(320, report_.width);
    EXPECT_EQ(Unit({sequence_, picture_}), CodecData());
}

TEST_F(H264Sets, RepeatedInAnyWayAreNoChange) {
    const Bytes second = H264Picture(1, 0, 1);
    const Bytes slice = H264Slice(true);
    Read(Unit({sequence_, picture_, second, slice}));
    const Bytes before = CodecData();
    EXPECT_EQ(Unit({sequence_, picture_, second}), before);
    const Bytes three_bytes = Bytes{0, 0, 1} + sequence_ + Bytes{0, 0, 1} + picture_ + Bytes{0, 0, 0, 0, 1} + slice;
    for (const Bytes &again : {Unit({sequence_, second, picture_, slice}), Unit({second, sequence_, picture_, slice}),
                               Unit({sequence_, picture_, slice}), Unit({second, slice}), Unit({slice}), three_bytes,
                               Unit({sequence_, sequence_, picture_, picture_, slice})}) {
        EXPECT_FALSE(Read(again).new_sets);
        EXPECT_EQ(before, CodecData());
    }
}

TEST_F(H264Sets, PictureSetAloneIsAChangeFromItsPictureOn) {
    Read(Unit({sequence_, picture_, H264Slice(true)}));
    CodecData();
    const Bytes other = H264Picture(0, 0, 1);
    const ShbAccessUnit unit = Read(Unit({other, H264Slice(false)}));
    EXPECT_TRUE(unit.new_sets);
    EXPECT_FALSE(unit.reported) << "what the stream is stays the same";
    EXPECT_EQ(Unit({sequence_, other}), CodecData());
    EXPECT_FALSE(Read(Unit({H264Slice(false)})).new_sets);
}

TEST_F(H264Sets, InUnitsOfTheirOwnHoldFromTheNextPictureOn) {
    EXPECT_TRUE(Read(Unit({sequence_})).headers_only);
    EXPECT_TRUE(Read(Unit({picture_})).headers_only);
    const ShbAccessUnit unit = Read(Unit({H264Slice(true)}));
    EXPECT_TRUE(unit.reported && unit.new_sets);
    EXPECT_EQ(Unit({sequence_, picture_}), CodecData());
}

TEST_F(H264Sets, PictureSetBeforeItsSequenceSetCounts) {
    EXPECT_TRUE(Read(Unit({picture_, sequence_, H264Slice(true)})).reported);
    EXPECT_EQ(Unit({sequence_, picture_}), CodecData());
}

TEST_F(H264Sets, NewSequenceUnderTheSameNumberReplaces) {
    Read(Unit({sequence_, picture_, H264Slice(true)}));
    CodecData();
    const Bytes wider = H264Sequence({0, 100, 0, 0, 40, -1});
    EXPECT_TRUE(Read(Unit({wider, picture_, H264Slice(true)})).new_sets);
    EXPECT_EQ(640, report_.width);
    EXPECT_EQ(Unit({wider, picture_}), CodecData());
}

TEST_F(H264Sets, OtherNumbersStandBesideEachOther) {
    const Bytes fifth = H264Sequence({5, 100, 0, 0, 40, -1}), two_hundredth = H264Picture(200, 5);
    Read(Unit({fifth, two_hundredth, sequence_, picture_, H264Slice(true, 200)}));
    EXPECT_EQ(640, report_.width) << "the sequence of the picture";
    EXPECT_EQ(Unit({sequence_, fifth, picture_, two_hundredth}), CodecData());
}

TEST_F(H264Sets, DamagedOnesAreLeftOut) {
    const Bytes cut{0x67, 100, 0}, no_number{0x68, 0, 0, 3, 0, 1}, too_long = Bytes{0x68, 0x80} + Bytes(9000, 0x55);
    const Bytes sequence_too_high = Bits().U(8, 0x67).U(24, 0x640028).Ue(32).U(32, 0xffffffff).End();
    Read(Unit({cut, no_number, too_long, sequence_too_high, sequence_, picture_, H264Slice(true)}));
    EXPECT_EQ(Unit({sequence_, picture_}), CodecData());
}

TEST_F(H264Sets, ReorderDepth) {
    const struct {
        Sequence sequence;
        int depth;
    } cases[] = {
        {{0, 100, 0, 0, 20, 2}, 2},     {{0, 100, 0, 0, 20, 0}, 0},   {{0, 77, 0, 0, 20, 99}, 16},
        {{0, 66, 0, 0, 20, 1}, 1},      {{0, 100, 0, 0, 20, -1}, -1}, {{0, 77, 0, 0, 20, -1}, -1},
        {{0, 100, 0, 2, 20, -1}, 0},    {{0, 66, 0, 0, 20, -1}, 0},   {{0, 66, 0x40, 0, 20, -1}, 0},
        {{0, 110, 0x10, 0, 20, -1}, 0}, {{0, 110, 0, 0, 20, -1}, -1}, {{0, 122, 0x10, 0, 20, -1}, 0},
        {{0, 77, 0x10, 0, 20, -1}, -1}, {{0, 88, 0, 0, 20, -1}, -1},
    };
    for (const auto &c : cases) {
        ASSERT_TRUE(Read(Unit({H264Sequence(c.sequence), picture_, H264Slice(true)})).reported);
        EXPECT_EQ(c.depth, report_.reorder_frames)
            << c.sequence.profile << " " << c.sequence.constraints << " " << c.sequence.poc_type << " " << c.sequence.reorder;
    }
}

// The number of a sequence set stands behind the profiles and levels of its layers, however many there are.
TEST(H265Sets, AreFoundByTheirNumbers) {
    ShbParamSets sets;
    shb_param_sets_init(&sets);
    const auto sequence = [](unsigned number, unsigned layers) {
        Bits bits;
        bits.U(16, 0x4201).U(4, 0).U(3, layers).U(1, 1).U(32, 0x01600000).U(32, 0x03000000).U(32, 0x0000005d);
        for (unsigned i = 0; layers > 0 && i < 8; i++)
            bits.U(2, i < layers ? (i % 2 == 0 ? 3 : 1) : 0);
        for (unsigned i = 0; i < layers; i++) {
            if (i % 2 == 0)
                bits.U(44, 0).U(44, 0);
            bits.U(8, 93);
        }
        return bits.Ue(number).Ue(1).End();
    };
    const auto video = [](unsigned number) { return Bits().U(16, 0x4001).U(4, number).U(12, 0xc01).End(); };
    const auto picture = [](unsigned number) { return Bits().U(16, 0x4401).Ue(number).Ue(0).U(8, 0xff).End(); };
    const auto put = [&](ShbSetKind kind, const Bytes &nal) { shb_param_sets_put_h265(&sets, kind, nal.data(), nal.size()); };
    for (const unsigned number : {9u, 3u, 15u})
        for (const unsigned layers : {6u, 0u, number % 7}) {
            put(SHB_SET_PICTURE, picture(number + 48));
            put(SHB_SET_SEQUENCE, sequence(number, layers));
            put(SHB_SET_VIDEO, video(number));
        }
    put(SHB_SET_PICTURE, picture(64));
    put(SHB_SET_SEQUENCE, sequence(16, 0));
    GBytes *bytes = shb_param_sets_to_bytes(&sets);
    EXPECT_EQ(Unit({video(3), video(9), video(15), sequence(3, 3), sequence(9, 2), sequence(15, 1), picture(51), picture(57),
                    picture(63)}),
              ToBytes(bytes));
    g_bytes_unref(bytes);
    shb_param_sets_clear(&sets);
}

// ---- Audio ------------------------------------------------------------------------------------------------------------

namespace {

class AudioConfig : public ::testing::Test {
  protected:
    ~AudioConfig() override { shb_audio_config_clear(&config_); }
    void Caps(const std::string &text) {
        GstCaps *caps = gst_caps_from_string(text.c_str());
        ASSERT_NE(nullptr, caps) << text;
        shb_audio_config_from_caps(&config_, caps);
        gst_caps_unref(caps);
    }
    bool Frame(const Bytes &bytes) { return shb_audio_config_from_frame(&config_, bytes.data(), bytes.size()) != FALSE; }
    Bytes CodecData() const { return ToBytes(config_.codec_data); }
    ShbAudioConfig config_{};
};

std::string Hex(const Bytes &bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        std::array<char, 3> two{};
        g_snprintf(two.data(), two.size(), "%02x", byte);
        text += two.data();
    }
    return text;
}

Bytes Adts(unsigned profile, unsigned rate_index, unsigned channels) {
    return Bits()
        .U(12, 0xfff)
        .U(4, 1)
        .U(2, profile)
        .U(4, rate_index)
        .U(1, 0)
        .U(3, channels)
        .U(4, 0)
        .U(13, 20)
        .U(11, 0x7ff)
        .U(2, 0)
        .U(32, 0x11223344)
        .End();
}

Bytes VorbisHeader(uint8_t type, size_t size, uint8_t filling = 'x') {
    Bytes bytes{type, 'v', 'o', 'r', 'b', 'i', 's'};
    bytes.resize(size, filling);
    return bytes;
}

// One, two or three of them as Matroska has them.
Bytes Laced(const Bytes &one, const Bytes &two, const Bytes &three) {
    Bytes laced{2};
    for (const Bytes *each : {&one, &two}) {
        laced.insert(laced.end(), each->size() / 255, 255);
        laced.push_back(static_cast<uint8_t>(each->size() % 255));
    }
    return laced + one + two + three;
}

}  // namespace

TEST_F(AudioConfig, AacWithItsConfigInTheCaps) {
    Caps("audio/mpeg,mpegversion=4,stream-format=raw,codec_data=(buffer)1190");
    EXPECT_STREQ("raw", config_.format);
    EXPECT_EQ("1190", Hex(CodecData()));
    EXPECT_FALSE(Frame(Adts(1, 3, 2)));
    EXPECT_EQ("1190", Hex(CodecData()));
}

TEST_F(AudioConfig, AacOfAdtsHasTheOneOfItsFirstHeader) {
    for (const char *caps : {"audio/mpeg,mpegversion=4,stream-format=adts", "audio/mpeg,mpegversion=2,stream-format=adts"}) {
        Caps(caps);
        EXPECT_STREQ("adts", config_.format);
        EXPECT_TRUE(CodecData().empty());
        EXPECT_FALSE(Frame(Bytes(100, 0x55)));
        EXPECT_TRUE(CodecData().empty()) << "no header";
        EXPECT_FALSE(Frame(Adts(1, 3, 2)));
        EXPECT_EQ("1190", Hex(CodecData()));
        EXPECT_FALSE(Frame(Adts(1, 7, 1)));
        EXPECT_EQ("1190", Hex(CodecData())) << "other frames come with other caps";
    }
    Caps("audio/mpeg,mpegversion=4,stream-format=adts");
    Frame(Adts(1, 7, 1));
    EXPECT_EQ("1388", Hex(CodecData()));
    Caps("audio/mpeg,mpegversion=4,stream-format=adts");
    Frame(Adts(1, 3, 0));
    EXPECT_TRUE(CodecData().empty()) << "the layout of the channels is in the frames";
}

TEST_F(AudioConfig, OthersOfMpegHaveNone) {
    Caps("audio/mpeg,mpegversion=4,stream-format=loas,codec_data=(buffer)1190");
    EXPECT_STREQ("loas", config_.format);
    EXPECT_TRUE(CodecData().empty());
    Caps("audio/mpeg,mpegversion=1,layer=3");
    EXPECT_STREQ("", config_.format);
    EXPECT_FALSE(Frame(Adts(1, 3, 2)));
    EXPECT_TRUE(CodecData().empty());
    for (const char *caps : {"audio/x-ac3", "audio/x-eac3", "audio/x-alaw", "audio/x-mulaw"}) {
        Caps("audio/mpeg,mpegversion=4,stream-format=raw,codec_data=(buffer)1190");
        Caps(caps);
        EXPECT_STREQ("", config_.format);
        EXPECT_TRUE(CodecData().empty());
    }
}

TEST_F(AudioConfig, OpusHead) {
    const std::string head = "4f707573486561640102380180bb0000000000";
    Caps("audio/x-opus,channels=1,channel-mapping-family=0,streamheader=(buffer)<" + head + ",4f70757354616773>");
    EXPECT_EQ(head, Hex(CodecData())) << "as the container had it";
    // Made where RTP has none, whatever the caps leave out.
    const std::string stereo = "4f707573486561640102000080bb0000000000", mono = "4f707573486561640101000080bb0000000000";
    Caps("audio/x-opus,rate=48000,channels=1,channel-mapping-family=0");
    EXPECT_EQ(mono, Hex(CodecData()));
    Caps("audio/x-opus,channels=1");
    EXPECT_EQ(mono, Hex(CodecData()));
    Caps("audio/x-opus,streamheader=(buffer)<00>");
    EXPECT_EQ(stereo, Hex(CodecData()));
    Caps("audio/x-opus");
    EXPECT_EQ(stereo, Hex(CodecData()));
    Caps(
        "audio/x-opus,rate=48000,channels=6,channel-mapping-family=1,stream-count=4,coupled-count=2,"
        "channel-mapping=<0,4,1,2,3,5>");
    EXPECT_EQ("4f707573486561640106000080bb00000000010402000401020305", Hex(CodecData()));
    Caps("audio/x-opus,channels=6");
    EXPECT_TRUE(CodecData().empty()) << "which channel is which is not known";
}

TEST_F(AudioConfig, VorbisHeadersOfTheCaps) {
    const Bytes one = VorbisHeader(1, 30), two = VorbisHeader(3, 255), three = VorbisHeader(5, 4000);
    Caps("audio/x-vorbis,streamheader=(buffer)<" + Hex(one) + "," + Hex(two) + "," + Hex(three) + ">");
    EXPECT_EQ(Laced(one, two, three), CodecData());
    EXPECT_TRUE(Frame(two)) << "once more with the frames";
    EXPECT_EQ(Laced(one, two, three), CodecData());
}

TEST_F(AudioConfig, VorbisHeadersOfTheFrames) {
    const Bytes one = VorbisHeader(1, 30), two = VorbisHeader(3, 600), three = VorbisHeader(5, 4000);
    Caps("audio/x-vorbis");
    EXPECT_TRUE(Frame(one) && Frame(two));
    EXPECT_TRUE(CodecData().empty()) << "not all of them yet";
    EXPECT_TRUE(Frame(three));
    EXPECT_EQ(Laced(one, two, three), CodecData());
    EXPECT_FALSE(Frame(Bytes(100, 0x54)));
    Caps("audio/x-vorbis,rate=44100");
    EXPECT_EQ(Laced(one, two, three), CodecData()) << "they came with the frames and still hold";
    // Those of a stream that follows: all at once.
    const Bytes other = VorbisHeader(1, 30, 'y'), setup = VorbisHeader(5, 3000);
    Frame(other);
    Frame(two);
    EXPECT_EQ(Laced(one, two, three), CodecData());
    Frame(setup);
    EXPECT_EQ(Laced(other, two, setup), CodecData());
    Caps("audio/x-opus");
    EXPECT_FALSE(Frame(one));
}

TEST_F(AudioConfig, VorbisCommentsThatAreTooLongAreLeftOut) {
    const Bytes one = VorbisHeader(1, 30), long_comments = VorbisHeader(3, 6000), three = VorbisHeader(5, 4000);
    const Bytes none{3, 'v', 'o', 'r', 'b', 'i', 's', 0, 0, 0, 0, 0, 0, 0, 0, 1};
    Caps("audio/x-vorbis");
    for (const Bytes &each : {one, long_comments, three})
        Frame(each);
    EXPECT_EQ(Laced(one, none, three), CodecData());
}

// ---- Clock ------------------------------------------------------------------------------------------------------------

namespace {

int64_t Monotonic() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

struct Unref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
using Clock = std::unique_ptr<GstClock, Unref>;

class ClockOffset : public ::testing::Test {
  protected:
    ClockOffset() { gst_segment_init(&segment_, GST_FORMAT_TIME); }
    GstSegment segment_{};
    const Clock system_{gst_system_clock_obtain()};
};

}  // namespace

TEST_F(ClockOffset, OfTheSystemClockIsExact) {
    EXPECT_EQ(5000, shb_clock_offset(system_.get(), 5000, &segment_));
    segment_.start = 700;
    EXPECT_EQ(4300, shb_clock_offset(system_.get(), 5000, &segment_));
    segment_.base = 20;
    EXPECT_EQ(4320, shb_clock_offset(system_.get(), 5000, &segment_));
    segment_.start = 6000;
    EXPECT_EQ(-980, shb_clock_offset(system_.get(), 5000, &segment_));
    // Taken off the running time, which then begins before zero.
    segment_.base = 0;
    segment_.offset = 50;
    EXPECT_EQ(-1050, shb_clock_offset(system_.get(), 5000, &segment_));
}

TEST_F(ClockOffset, OfAnotherClockIsMeasured) {
    const Clock other{gst_test_clock_new_with_start_time(123456)};
    const int64_t before = Monotonic();
    const int64_t offset = shb_clock_offset(other.get(), 5000, &segment_);
    EXPECT_GE(offset, before - 123456 + 5000);
    EXPECT_LE(offset, Monotonic() - 123456 + 5000);
    // The time of day is no monotonic time, and a system clock may be set to it.
    const Clock wall{GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_REALTIME, nullptr))};
    gst_object_ref_sink(wall.get());
    EXPECT_LT(shb_clock_offset(wall.get(), 0, &segment_), -int64_t{1000000000})
        << "since 1970, and since the start of the machine";
    // One that follows another.
    const Clock tuned{GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr))};
    gst_object_ref_sink(tuned.get());
    gst_clock_set_calibration(tuned.get(), 0, 3600 * GST_SECOND, 1, 1);
    EXPECT_NEAR(-3600e9, static_cast<double>(shb_clock_offset(tuned.get(), 0, &segment_)), 60e9);
}

TEST_F(ClockOffset, IsNoneWhereNothingIsKnown) {
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(nullptr, 5000, &segment_));
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(system_.get(), GST_CLOCK_TIME_NONE, &segment_));
    segment_.rate = 2.0;
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(system_.get(), 5000, &segment_));
    segment_.rate = -1.0;
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(system_.get(), 5000, &segment_));
    gst_segment_init(&segment_, GST_FORMAT_BYTES);
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(system_.get(), 5000, &segment_));
    gst_segment_init(&segment_, GST_FORMAT_UNDEFINED);
    EXPECT_EQ(SHB_OFFSET_NONE, shb_clock_offset(system_.get(), 5000, &segment_));
}
