// What a branch needs for an encoding name. Names are compared case-sensitively. The tables are
// constant: sources share them from many threads.
#pragma once

#include <array>
#include <map>
#include <string>

namespace Tessaro {

// Encoding name to parser element. "none" means that the branch gets no parser.
inline const std::map<std::string, std::string> &g_mapAudioParseElements = *new std::map<std::string, std::string>{
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
    {"X-GST-OPUS-DRAFT-SPITTKA-00", "opusparse"},
    {"MULTIOPUS", "opusparse"},
    {"VORBIS", "vorbisparse"},
};

// Encoding name to the sink's "media" property. Two Opus variants and Vorbis have none on purpose.
inline const std::map<std::string, int> &g_mapAudioMediaTypes = *new std::map<std::string, int>{
    {"AC3", 25}, {"MP4A-LATM", 23}, {"MPEG4-GENERIC", 21}, {"AAC", 21},  {"MP2", 17},
    {"MP3", 18}, {"OPUS", 22},      {"PCMA", 19},          {"PCMU", 24}, {"MPA", 30},
};

// Encoding name to RTP depayloader element.
inline const std::map<std::string, std::string> &g_mapDepayElements = *new std::map<std::string, std::string>{
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

// What the branches deliver.
inline constexpr char kH264Caps[] = "video/x-h264,stream-format=byte-stream,alignment=au";
inline constexpr char kH265Caps[] = "video/x-h265,stream-format=byte-stream,alignment=au";
inline constexpr char kAdtsCaps[] = "audio/mpeg,stream-format=adts";

inline constexpr int kMediaH264 = 48;
inline constexpr int kMediaH265 = 64;
// What an audio sink carries until its encoding has been looked up.
inline constexpr int kMediaAudioProvisional = 21;

// What a video branch is made of besides queue and sink: factories, names of the elements,
// caps of the filter, the sink's "media" property.
struct VideoCodec {
    const char *encode;
    const char *depayloader;
    const char *depayloaderName;
    const char *parser;
    const char *parserName;
    const char *filterName;
    const char *caps;
    int media;
};

inline constexpr std::array<VideoCodec, 2> kVideoCodecs{{
    {"H264", "rtph264depay", "Rtph264depay", "h264parse", "H264parse", "H264capsfilter", kH264Caps, kMediaH264},
    {"H265", "rtph265depay", "Rtph265depay", "h265parse", "H265parse", "H265capsfilter", kH265Caps, kMediaH265},
}};

// Null for an encoding that is not carried.
inline const VideoCodec *FindVideoCodec(const std::string &encode) {
    for (const VideoCodec &codec : kVideoCodecs) {
        if (encode == codec.encode) {
            return &codec;
        }
    }
    return nullptr;
}

// Row of a table, or its value type's zero ("" or 0) when the name is absent.
template <typename Value>
Value Lookup(const std::map<std::string, Value> &table, const std::string &encode) {
    if (const auto row = table.find(encode); row != table.end()) {
        return row->second;
    }
    return Value();
}

// AAC in any of its transports: brought into ADTS framing by a caps filter behind the parser.
inline bool IsAac(const std::string &encode) {
    return encode == "MP4A-LATM" || encode == "AAC" || encode == "MPEG4-GENERIC";
}

}  // namespace Tessaro
