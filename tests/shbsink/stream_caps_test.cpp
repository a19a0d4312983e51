// What the element shbsrc is made of: where it begins, and the caps of its frames.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shb.h"
#include "start_rule.h"
#include "stream_caps.h"

namespace {

// ---- Where a source begins ----

TEST(StartRule, TakesWhatTheGuideSays) {
    const struct {
        const char *text;
        shb_seek_t where;
        uint64_t ns;
    } cases[] = {
        {"key", SHB_SEEK_KEY, 0},
        {"newest", SHB_SEEK_NEWEST, 0},
        {"oldest", SHB_SEEK_OLDEST, 0},
        {"-10s", SHB_SEEK_BACK, UINT64_C(10000000000)},
        {"-10", SHB_SEEK_BACK, UINT64_C(10000000000)},
        {"-1500ms", SHB_SEEK_BACK, UINT64_C(1500000000)},
        {"-0.5s", SHB_SEEK_BACK, UINT64_C(500000000)},
        {"-2m", SHB_SEEK_BACK, UINT64_C(120000000000)},
        {"-1h", SHB_SEEK_BACK, UINT64_C(3600000000000)},
        {"-48h", SHB_SEEK_BACK, UINT64_C(86400000000000)},  // no buffer reaches back a day
    };
    for (const auto &one : cases) {
        ShbStartRule rule{};
        EXPECT_TRUE(shb_start_rule_parse(one.text, &rule)) << one.text;
        EXPECT_EQ(one.where, rule.where) << one.text;
        EXPECT_EQ(one.ns, rule.ns) << one.text;
    }
}

TEST(StartRule, RefusesTheRest) {
    for (const char *text :
         {"", "-", "10s", "-10x", "--10s", "- 10s", "-0x10", "-1e3s", "-nan", "-inf", "soon", "Key", "-1s "}) {
        ShbStartRule rule{SHB_SEEK_WALL, 7};
        EXPECT_FALSE(shb_start_rule_parse(text, &rule)) << text;
        EXPECT_EQ(SHB_SEEK_WALL, rule.where) << text;
    }
    ShbStartRule rule{};
    EXPECT_FALSE(shb_start_rule_parse(nullptr, &rule));
}

// ---- Caps of a track ----

std::string CapsOf(shb_kind_t kind, const char *code, const char *format, const std::vector<uint8_t> &data,
                   const std::vector<uint8_t> &frame) {
    shb_description_t d{};
    g_strlcpy(d.code, code, sizeof d.code);
    g_strlcpy(d.format, format, sizeof d.format);
    d.sample_rate = 48000;
    d.channels = 2;
    GBytes *bytes = data.empty() ? nullptr : g_bytes_new(data.data(), data.size());
    GstCaps *caps = shb_stream_caps(kind, &d, bytes, frame.data(), frame.size());
    g_clear_pointer(&bytes, g_bytes_unref);
    if (caps == nullptr)
        return "";
    gchar *text = gst_caps_to_string(caps);
    const std::string result = text;
    g_free(text);
    gst_caps_unref(caps);
    return result;
}

TEST(StreamCaps, AreThoseOfTheCodec) {
    const std::vector<uint8_t> opus_head{'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, 2, 0x38, 1, 0x80, 0xbb, 0, 0, 0, 0, 0};
    const struct {
        const char *code, *format;
        std::vector<uint8_t> data, frame;
        std::vector<const char *> parts;
    } cases[] = {
        {"AAC",
         "adts",
         {0x11, 0x90},
         {0xff, 0xf1},
         {"audio/mpeg", "mpegversion=(int)4", "stream-format=(string)adts", "framed=(boolean)true"}},
        {"AAC", "", {}, {0xff, 0xf1}, {"stream-format=(string)adts"}},
        {"AAC", "raw", {0x11, 0x90}, {1}, {"stream-format=(string)raw", "codec_data=(buffer)1190", "profile=(string)lc"}},
        {"MP4A-LATM", "loas", {}, {0x56, 0xe0}, {"audio/mpeg", "mpegversion=(int)4", "stream-format=(string)loas"}},
        {"MP3", "", {}, {0xff, 0xfb}, {"mpegversion=(int)1", "layer=(int)3", "parsed=(boolean)true"}},
        {"MPA", "", {}, {0xff, 0xfd}, {"mpegversion=(int)1", "layer=(int)2"}},
        {"MPA", "", {}, {0xff, 0xff}, {"mpegversion=(int)1", "layer=(int)1"}},
        {"AC3", "", {}, {0x0b, 0x77, 0, 0, 0, 8 << 3}, {"audio/x-ac3", "framed=(boolean)true"}},
        // As RTP names both.
        {"AC3", "", {}, {0x0b, 0x77, 0, 0, 0, 16 << 3}, {"audio/x-eac3"}},
        {"EAC3", "", {}, {}, {"audio/x-eac3"}},
        {"OPUS", "", opus_head, {1}, {"audio/x-opus", "channels=(int)2", "channel-mapping-family=(int)0", "streamheader="}},
        {"OPUS", "", {}, {1}, {"audio/x-opus", "channels=(int)2", "channel-mapping-family=(int)0"}},
        {"PCMA", "", {}, {1}, {"audio/x-alaw", "rate=(int)48000", "channels=(int)2"}},
        {"PCMU", "", {}, {1}, {"audio/x-mulaw"}},
        {"VORBIS",
         "",
         {2, 1, 2, 'a', 'b', 'b', 'c', 'c', 'c'},
         {1},
         {"audio/x-vorbis", "streamheader=(buffer)< 61, 6262, 636363 >"}},
        // Lacing that promises more than there is.
        {"VORBIS", "", {2, 255, 255}, {1}, {"audio/x-vorbis, rate=(int)48000, channels=(int)2"}},
    };
    for (const auto &one : cases) {
        const std::string caps = CapsOf(SHB_AUDIO, one.code, one.format, one.data, one.frame);
        for (const char *part : one.parts)
            EXPECT_NE(std::string::npos, caps.find(part)) << one.code << " " << part << ": " << caps;
    }
    EXPECT_EQ("", CapsOf(SHB_AUDIO, "FLAC", "", {}, {1}));
    EXPECT_EQ("", CapsOf(SHB_VIDEO, "VP8", "", {}, {1}));
}

TEST(StreamCaps, ParameterSetsAreFoundBeforeThePictureOnly) {
    shb_description_t h264{}, h265{};
    g_strlcpy(h264.code, "H264", sizeof h264.code);
    g_strlcpy(h265.code, "H265", sizeof h265.code);
    const auto has = [](const shb_description_t &d, const std::vector<uint8_t> &data) {
        return shb_has_parameter_sets(&d, data.data(), data.size()) != FALSE;
    };
    EXPECT_TRUE(has(h264, {0, 0, 0, 1, 0x09, 0x10, 0, 0, 1, 0x67, 1}));
    EXPECT_FALSE(has(h264, {0, 0, 1, 0x65, 1, 0, 0, 1, 0x67, 1}));
    EXPECT_FALSE(has(h264, {0, 0, 1, 0x06, 1}));
    EXPECT_TRUE(has(h265, {0, 0, 1, 0x40, 1, 0, 0, 1, 0x42, 1}));
    EXPECT_FALSE(has(h265, {0, 0, 1, 0x26, 1, 0, 0, 1, 0x42, 1}));
    EXPECT_FALSE(has(h265, {0, 0, 1}));
    EXPECT_FALSE(has(h264, {}));
}

}  // namespace
