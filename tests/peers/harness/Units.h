// Access units and audio frames, reduced to what every correct chain hands through unchanged.
//
// Video is compared NAL unit by NAL unit, slices and supplemental information byte for byte. Left out of the
// comparison is only what a transport or a parser may rightly add, drop or repeat: start code lengths, access
// unit delimiters and parameter sets. That key frames do carry their parameter sets is a check of its own.
// AAC is compared without its ADTS header, which senders and parsers write anew for each transport; the
// header's own fields are checked against the material. All other audio is compared as it is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace peers {

enum class Codec { None, H264, H265, Aac, Mp3, Ac3, Opus, Pcma, Pcmu };

bool IsPcm(Codec codec);

// NAL units of a byte stream without their start codes.
std::vector<std::string_view> SplitByteStream(std::string_view data);
// NAL units of a length-prefixed sample (4-byte lengths). Throws when the lengths do not fit.
std::vector<std::string_view> SplitLengthPrefixed(std::string_view data);

// The compared part of an access unit.
std::string VideoUnit(Codec codec, const std::vector<std::string_view> &nals);

struct UnitTraits {
    bool idr = false;            // random access picture: IDR, or IRAP for H.265
    bool parameterSets = false;  // all kinds of parameter set of the codec, in front of the first slice
};
UnitTraits Traits(Codec codec, const std::vector<std::string_view> &nals);

struct Adts {
    int sampleRate;
    int channels;
    std::string_view payload;
};
// The one raw block of an ADTS frame; nothing when the header does not describe exactly this data.
std::optional<Adts> ParseAdts(std::string_view frame);

}  // namespace peers
