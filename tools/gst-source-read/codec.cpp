#include "codec.h"

#include <array>
#include <string_view>

#include "text.h"

namespace reader {
namespace {

constexpr const char *kGood = "gstreamer1.0-plugins-good";
constexpr const char *kBad = "gstreamer1.0-plugins-bad";

struct Codec {
    std::string_view caps;
    int mpegversion;  // 0: none
    const char *name;
    Parser parser;
};

constexpr std::array<Codec, 11> kCodecs{{{"video/x-h264", 0, "H264", {"h264parse", kBad}},
                                         {"video/x-h265", 0, "H265", {"h265parse", kBad}},
                                         {"audio/mpeg", 4, "AAC", {"aacparse", kGood}},
                                         {"audio/mpeg", 2, "AAC", {"aacparse", kGood}},
                                         {"audio/mpeg", 1, "MP3", {"mpegaudioparse", kGood}},
                                         {"audio/x-ac3", 0, "AC3", {"ac3parse", kGood}},
                                         {"audio/x-eac3", 0, "EAC3", {"ac3parse", kGood}},
                                         {"audio/x-opus", 0, "OPUS", {nullptr, nullptr}},
                                         {"audio/x-alaw", 0, "PCMA", {nullptr, nullptr}},
                                         {"audio/x-mulaw", 0, "PCMU", {nullptr, nullptr}},
                                         {"audio/x-vorbis", 0, "VORBIS", {nullptr, nullptr}}}};

int Number(const GstStructure *caps, const char *field) {
    int value = 0;
    return gst_structure_get_int(caps, field, &value) != FALSE ? value : 0;
}

std::string Word(const GstStructure *caps, const char *field) {
    const char *text = gst_structure_get_string(caps, field);
    return text != nullptr ? text : "";
}

const Codec *CodecOf(const GstCaps *caps) {
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    for (const Codec &codec : kCodecs) {
        if (codec.caps == gst_structure_get_name(structure) && codec.mpegversion == Number(structure, "mpegversion")) {
            return &codec;
        }
    }
    return nullptr;
}

int ScanOf(const GstStructure *caps) {
    const std::string mode = Word(caps, "interlace-mode");
    if (mode.empty() || mode == "progressive") {
        return 0;
    }
    return mode == "mixed" ? 2 : 1;
}

}  // namespace

std::string CodecName(const GstCaps *caps) {
    const Codec *codec = CodecOf(caps);
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    if (codec == nullptr) {
        return gst_structure_get_name(structure);
    }
    const int layer = Number(structure, "layer");
    return codec->mpegversion == 1 && layer > 0 ? "MP" + std::to_string(layer) : codec->name;
}

std::string Describe(const GstCaps *caps) {
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    std::string text = CodecName(caps);
    if (gst_structure_has_name(structure, "video/x-h264") == FALSE &&
        gst_structure_has_name(structure, "video/x-h265") == FALSE) {
        return text + " " + tool::FormatSound(Number(structure, "rate"), Number(structure, "channels"));
    }
    const std::string profile = Word(structure, "profile");
    const std::string level = Word(structure, "level");
    text += (profile.empty() ? "" : " " + profile) + (level.empty() ? "" : " level " + level) + " " +
            tool::FormatPicture(Number(structure, "width"), Number(structure, "height"), ScanOf(structure));
    int rate = 0;
    int per = 1;
    if (gst_structure_get_fraction(structure, "framerate", &rate, &per) != FALSE && rate > 0 && per > 0) {
        text += " " + tool::FormatRate(static_cast<double>(rate) / per) + " fps";
    }
    return text;
}

Parser ParserOf(const GstCaps *caps) {
    const Codec *codec = CodecOf(caps);
    return codec != nullptr ? codec->parser : Parser{nullptr, nullptr};
}

bool SameParser(const GstCaps *one, const GstCaps *other) {
    return CodecOf(one) == CodecOf(other);
}

}  // namespace reader
