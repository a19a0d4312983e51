#include "packages.h"

#include <gst/pbutils/pbutils.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace reader {
namespace {

struct Element {
    const char *factory;
    const char *package;
};

constexpr const char *kBase = "gstreamer1.0-plugins-base";
constexpr const char *kGood = "gstreamer1.0-plugins-good";
constexpr const char *kBad = "gstreamer1.0-plugins-bad";
constexpr const char *kLibav = "gstreamer1.0-libav";

constexpr std::array kElements{
    Element{"appsink", kBase},
    Element{"appsrc", kBase},
    Element{"audioconvert", kBase},
    Element{"audioresample", kBase},
    Element{"decodebin", kBase},
    Element{"videoconvert", kBase},
    Element{"videoscale", kBase},
    Element{"autoaudiosink", kGood},
    Element{"autovideosink", kGood},
    Element{"deinterlace", kGood},
    Element{"jpegenc", kGood},
    Element{"pngenc", kGood},
    Element{"aacparse", kGood},
    Element{"ac3parse", kGood},
    Element{"mpegaudioparse", kGood},
    Element{"h264parse", kBad},
    Element{"h265parse", kBad},
    Element{"opusparse", kBad},
    Element{"ximagesink", "gstreamer1.0-x"},
    Element{"alsasink", "gstreamer1.0-alsa"},
    Element{"waylandsink", kBad},
};

// What a decoder for it is called by people, and where the one is that plays all of its forms.
struct Codec {
    const char *media;
    int version;  // "mpegversion" of audio/mpeg; 0: any
    const char *name;
    const char *package;
};

constexpr std::array kCodecs{
    Codec{"video/x-h264", 0, "H.264", kLibav},
    Codec{"video/x-h265", 0, "H.265", kLibav},
    Codec{"audio/mpeg", 4, "AAC", kLibav},
    Codec{"audio/mpeg", 2, "AAC", kLibav},
    Codec{"audio/mpeg", 1, "MPEG audio", kGood},
    Codec{"audio/x-ac3", 0, "AC-3", kLibav},
    Codec{"audio/x-eac3", 0, "E-AC-3", kLibav},
    Codec{"audio/x-opus", 0, "Opus", kBase},
    Codec{"audio/x-vorbis", 0, "Vorbis", kBase},
    Codec{"audio/x-alaw", 0, "G.711 A-law", kGood},
    Codec{"audio/x-mulaw", 0, "G.711 mu-law", kGood},
};

}  // namespace

ElementPtr NewElement(const char *factory) {
    GstElement *element = gst_element_factory_make(factory, nullptr);
    if (element == nullptr) {
        throw std::runtime_error(MissingElement(factory));
    }
    gst_object_ref_sink(element);
    return ElementPtr(element);
}

std::string MissingElement(const std::string &factory) {
    const std::string what = "the GStreamer element \"" + factory + "\" is missing";
    const auto *known = std::find_if(kElements.begin(), kElements.end(),
                                     [&factory](const Element &element) { return factory == element.factory; });
    return known == kElements.end() ? what : what + "; it is in the package " + known->package;
}

std::string MissingDecoder(const GstCaps *media) {
    if (media == nullptr || gst_caps_get_size(media) == 0) {
        return "the stream needs a decoder that is not installed";
    }
    const GstStructure *form = gst_caps_get_structure(media, 0);
    gint version = 0;
    gst_structure_get_int(form, "mpegversion", &version);
    for (const Codec &codec : kCodecs) {
        if (gst_structure_has_name(form, codec.media) && (codec.version == 0 || codec.version == version)) {
            return std::string(codec.name) + " needs a decoder: apt install " + codec.package;
        }
    }
    return std::string(gst_structure_get_name(form)) + " needs a decoder that is not installed";
}

std::string MissingPart(GstMessage *message) {
    if (gst_is_missing_plugin_message(message) == FALSE) {
        return "";
    }
    const TextPtr detail(gst_missing_plugin_message_get_installer_detail(message));
    // What is missing stands behind the last bar: "element-NAME", "decoder-CAPS".
    const char *bar = detail ? std::strrchr(detail.get(), '|') : nullptr;
    const std::string part = bar != nullptr ? bar + 1 : "";
    constexpr const char *kElement = "element-";
    constexpr const char *kDecoder = "decoder-";
    if (part.rfind(kElement, 0) == 0) {
        return MissingElement(part.substr(std::strlen(kElement)));
    }
    if (part.rfind(kDecoder, 0) == 0) {
        const CapsPtr media(gst_caps_from_string(part.c_str() + std::strlen(kDecoder)));
        return MissingDecoder(media.get());
    }
    const TextPtr description(gst_missing_plugin_message_get_description(message));
    return std::string("a part of GStreamer is missing: ") + (description ? description.get() : "unknown");
}

}  // namespace reader
