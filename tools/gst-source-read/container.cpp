#include "container.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace reader {
namespace {

constexpr int64_t kHour = INT64_C(3'600'000'000'000);

bool EndsWith(const std::string &text, std::string_view end) {
    return text.size() > end.size() &&
           std::equal(end.rbegin(), end.rend(), text.rbegin(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::string Joined(const std::vector<std::string> &names) {
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) {
        text += (i == 0 ? "" : (i + 1 == names.size() ? " or " : ", ")) + names[i];
    }
    return text;
}

// What tells one codec from another, without the form that a parser can change.
CapsPtr Essence(const GstCaps *caps) {
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    GstCaps *essence = gst_caps_new_empty_simple(gst_structure_get_name(structure));
    for (const char *field : {"mpegversion", "layer", "rate", "channels"}) {
        if (const GValue *value = gst_structure_get_value(structure, field)) {
            gst_caps_set_value(essence, field, value);
        }
    }
    return CapsPtr(essence);
}

bool IsLoas(const GstCaps *caps) {
    const char *form = gst_structure_get_string(gst_caps_get_structure(caps, 0), "stream-format");
    return form != nullptr && std::string_view(form) == "loas";
}

bool SameField(const GstStructure *one, const GstStructure *other, const char *field) {
    const GValue *a = gst_structure_get_value(one, field);
    const GValue *b = gst_structure_get_value(other, field);
    return a == nullptr || b == nullptr ? a == b : gst_value_compare(a, b) == GST_VALUE_EQUAL;
}

}  // namespace

const std::vector<Container> &Containers() {
    // A sample of MP4 lasts 2^31 units at most, of which there are 90000 a second for video. The clock of a
    // transport stream begins anew after 26 hours.
    static const std::vector<Container> containers{{"mkv",
                                                    "MKV",
                                                    {".mkv", ".mka"},
                                                    "matroskamux",
                                                    "gstreamer1.0-plugins-good",
                                                    "avc",
                                                    "hvc1",
                                                    "raw",
                                                    false,
                                                    true,
                                                    Silence::kNoPresentation,
                                                    INT64_MAX},
                                                   {"mp4",
                                                    "MP4",
                                                    {".mp4", ".m4v", ".m4a"},
                                                    "mp4mux",
                                                    "gstreamer1.0-plugins-good",
                                                    "avc",
                                                    "hvc1",
                                                    "raw",
                                                    false,
                                                    false,
                                                    Silence::kCannot,
                                                    6 * kHour},
                                                   {"mpegts",
                                                    "TS",
                                                    {".ts", ".mts", ".m2ts"},
                                                    "mpegtsmux",
                                                    "gstreamer1.0-plugins-bad",
                                                    "byte-stream",
                                                    "byte-stream",
                                                    "adts",
                                                    true,
                                                    true,
                                                    Silence::kGap,
                                                    12 * kHour}};
    return containers;
}

const Container *ContainerOf(const std::string &path) {
    for (const Container &container : Containers()) {
        for (const char *suffix : container.suffixes) {
            if (EndsWith(path, suffix)) {
                return &container;
            }
        }
    }
    return nullptr;
}

const Container *ContainerNamed(const std::string &name) {
    const auto named = std::find_if(Containers().begin(), Containers().end(),
                                    [&name](const Container &container) { return name == container.name; });
    return named != Containers().end() ? &*named : ContainerOf("x." + name);
}

std::string KnownSuffixes() {
    std::vector<std::string> suffixes;
    for (const Container &container : Containers()) {
        suffixes.emplace_back(container.suffixes.front());
    }
    return Joined(suffixes);
}

bool Carries(const Container &container, const GstCaps *caps) {
    const GstElementFactory *factory = gst_element_factory_find(container.muxer);
    if (factory == nullptr || IsLoas(caps)) {
        return false;
    }
    const CapsPtr essence = Essence(caps);
    bool carries = false;
    for (const GList *item = gst_element_factory_get_static_pad_templates(const_cast<GstElementFactory *>(factory));
         item != nullptr; item = item->next) {
        auto *pad_template = static_cast<GstStaticPadTemplate *>(item->data);
        if (pad_template->direction == GST_PAD_SINK) {
            const CapsPtr taken(gst_static_pad_template_get_caps(pad_template));
            carries = carries || gst_caps_can_intersect(taken.get(), essence.get()) != FALSE;
        }
    }
    gst_object_unref(const_cast<GstElementFactory *>(factory));
    return carries;
}

std::string ContainersFor(const GstCaps *caps) {
    std::vector<std::string> names;
    for (const Container &container : Containers()) {
        if (Carries(container, caps)) {
            names.emplace_back(container.title);
        }
    }
    return Joined(names);
}

CapsPtr FormIn(const Container &container, const GstCaps *caps) {
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    const std::string_view name = gst_structure_get_name(structure);
    GstCaps *form = gst_caps_new_empty_simple(name.data());
    if (name == "video/x-h264" || name == "video/x-h265") {
        gst_caps_set_simple(form, "stream-format", G_TYPE_STRING,
                            name == "video/x-h264" ? container.h264_format : container.h265_format, "alignment", G_TYPE_STRING,
                            "au", nullptr);
    } else if (name == "audio/mpeg") {
        int version = 4;
        gst_structure_get_int(structure, "mpegversion", &version);
        gst_caps_set_simple(form, "mpegversion", G_TYPE_INT, version, nullptr);
        if (version != 1) {
            gst_caps_set_simple(form, "stream-format", G_TYPE_STRING, container.aac_format, nullptr);
        }
    }
    return CapsPtr(form);
}

bool SameIn(const Container &container, const GstCaps *one, const GstCaps *other) {
    const GstStructure *a = gst_caps_get_structure(one, 0);
    const GstStructure *b = gst_caps_get_structure(other, 0);
    if (!gst_structure_has_name(a, gst_structure_get_name(b))) {
        return false;
    }
    std::vector<const char *> fields{"mpegversion", "layer", "stream-format"};
    if (!container.changes_picture) {
        fields.insert(fields.end(), {"width", "height", "codec_data", "rate", "channels", "streamheader"});
    }
    return std::all_of(fields.begin(), fields.end(), [a, b](const char *field) { return SameField(a, b, field); });
}

}  // namespace reader
