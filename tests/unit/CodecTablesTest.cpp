// The codec tables, row by row.
#include "CodecTables.h"

#include <gtest/gtest.h>

namespace unit {

using Tessaro::Lookup;

TEST(CodecTables, Parsers) {
    const std::map<std::string, std::string> expected = {
        {"AC3", "ac3parse"},
        {"MP4A-LATM", "aacparse"},
        {"MPEG4-GENERIC", "aacparse"},
        {"AAC", "aacparse"},
        {"MPA", "mpegaudioparse"},
        {"MP2", "mpegaudioparse"},
        {"MP3", "mpegaudioparse"},
        {"OPUS", "opusparse"},
        {"PCMA", "none"},
        {"PCMU", "none"},
        {"MULTIOPUS", "opusparse"},
        {"VORBIS", "vorbisparse"},
        {"X-GST-OPUS-DRAFT-SPITTKA-00", "opusparse"},
    };
    EXPECT_EQ(expected, Tessaro::g_mapAudioParseElements);
}

TEST(CodecTables, MediaKinds) {
    const std::map<std::string, int> expected = {
        {"AC3", 25}, {"MP4A-LATM", 23}, {"MPEG4-GENERIC", 21}, {"AAC", 21},  {"MP2", 17},
        {"MP3", 18}, {"OPUS", 22},      {"PCMA", 19},          {"PCMU", 24}, {"MPA", 30},
    };
    EXPECT_EQ(expected, Tessaro::g_mapAudioMediaTypes);
}

TEST(CodecTables, Depayloaders) {
    const std::map<std::string, std::string> expected = {
        {"PCMA", "rtppcmadepay"},
        {"PCMU", "rtppcmudepay"},
        {"AC3", "rtpac3depay"},
        {"MP4A-LATM", "rtpmp4adepay"},
        {"MPEG4-GENERIC", "rtpmp4gdepay"},
        {"AAC", "rtpmp4gdepay"},
        {"MPA", "rtpmpadepay"},
        {"MP2", "rtpmpadepay"},
        {"MP3", "rtpmpadepay"},
        {"OPUS", "rtpopusdepay"},
        {"X-GST-OPUS-DRAFT-SPITTKA-00", "rtpopusdepay"},
        {"MULTIOPUS", "rtpopusdepay"},
        {"VORBIS", "rtpvorbisdepay"},
    };
    EXPECT_EQ(expected, Tessaro::g_mapDepayElements);
}

TEST(CodecTables, AbsentNamesGiveNothingAndAddNothing) {
    for (const char *name : {"aac", "Aac", "AAC ", "", "H264", "G722", "opus"}) {
        EXPECT_EQ("", Lookup(Tessaro::g_mapAudioParseElements, name)) << name;
        EXPECT_EQ("", Lookup(Tessaro::g_mapDepayElements, name)) << name;
        EXPECT_EQ(0, Lookup(Tessaro::g_mapAudioMediaTypes, name)) << name;
    }
    EXPECT_EQ(0, Lookup(Tessaro::g_mapAudioMediaTypes, "VORBIS"));
    EXPECT_EQ(0, Lookup(Tessaro::g_mapAudioMediaTypes, "MULTIOPUS"));
    EXPECT_EQ(0, Lookup(Tessaro::g_mapAudioMediaTypes, "X-GST-OPUS-DRAFT-SPITTKA-00"));
    EXPECT_EQ(13U, Tessaro::g_mapAudioParseElements.size());
    EXPECT_EQ(10U, Tessaro::g_mapAudioMediaTypes.size());
    EXPECT_EQ(13U, Tessaro::g_mapDepayElements.size());
}

TEST(CodecTables, AacNames) {
    for (const char *name : {"MP4A-LATM", "AAC", "MPEG4-GENERIC"}) {
        EXPECT_TRUE(Tessaro::IsAac(name)) << name;
    }
    for (const char *name : {"aac", "MP4A", "MP3", "", "MPEG4-GENERIC "}) {
        EXPECT_FALSE(Tessaro::IsAac(name)) << name;
    }
}

TEST(CodecTables, BranchCaps) {
    EXPECT_STREQ("video/x-h264,stream-format=byte-stream,alignment=au", Tessaro::kH264Caps);
    EXPECT_STREQ("video/x-h265,stream-format=byte-stream,alignment=au", Tessaro::kH265Caps);
    EXPECT_STREQ("audio/mpeg,stream-format=adts", Tessaro::kAdtsCaps);
    EXPECT_EQ(48, Tessaro::kMediaH264);
    EXPECT_EQ(64, Tessaro::kMediaH265);
}

}  // namespace unit
