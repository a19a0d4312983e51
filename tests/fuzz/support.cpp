#include "support.h"

#include "../unit/support/FakeDemux.h"
#include "../unit/support/Faults.h"
#include "../unit/support/RecordingSink.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fuzz {

namespace {

void OnLog(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer) {
    // GLib 2.84 calls critical what 2.74 warns of.
    const bool outOfRange = std::strstr(message, "is invalid or out of range for property") != nullptr;
    if ((level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0 && !outOfRange) {
        std::fprintf(stderr, "%s: %s\n", domain != nullptr ? domain : "?", message);
        std::abort();
    }
}

bool PrepareOnce() {
    // The HTTP source takes a proxy from the environment.
    for (const char *name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
        unsetenv(name);
    }
    g_log_set_default_handler(OnLog, nullptr);
    gst_init(nullptr, nullptr);
    (gst_debug_remove_log_function)(nullptr);  // the default one; without the macro, which compares it to a data pointer
    unit::RegisterRecordingSink();
    unit::RegisterFakeDemux();
    return true;
}

// Names as gst_structure_validate_name wants them.
std::string StructureName(std::string text) {
    text.erase(std::remove_if(
                   text.begin(), text.end(),
                   [](char c) { return g_ascii_isalnum(c) == FALSE && std::string("/-_.:+").find(c) == std::string::npos; }),
               text.end());
    return !text.empty() && g_ascii_isalpha(text.front()) != FALSE ? text : "x" + text;
}

void AddField(Input &in, GstStructure *structure) {
    const std::string name = StructureName(
        ValidText(in, {"mpegversion", "stream-format", "media", "encoding-name", "alignment", "clock-rate", "payload",
                       "codec_data", "systemstream", "packetsize", "parsed", "layer", "type", "owner"}));
    const char *field = name.c_str();
    switch (in.ConsumeIntegralInRange(0, 9)) {
        case 0:
            gst_structure_set(structure, field, G_TYPE_INT, in.ConsumeIntegral<gint>(), nullptr);
            break;
        case 1:
            gst_structure_set(structure, field, G_TYPE_INT, in.ConsumeIntegralInRange<gint>(0, 5), nullptr);
            break;
        case 2:
        case 3:
            gst_structure_set(structure, field, G_TYPE_STRING,
                              ValidText(in, {"video", "audio", "H264", "H265", "AAC", "MPEG4-GENERIC", "OPUS", "VORBIS", "AC3",
                                             "PCMA", "MP3", "MULTIOPUS", "byte-stream", "avc", "adts", "raw"})
                                  .c_str(),
                              nullptr);
            break;
        case 4:
            gst_structure_set(structure, field, G_TYPE_STRING, nullptr, nullptr);
            break;
        case 5:
            gst_structure_set(structure, field, G_TYPE_BOOLEAN, in.ConsumeBool() ? TRUE : FALSE, nullptr);
            break;
        case 6:
            gst_structure_set(structure, field, G_TYPE_DOUBLE, in.ConsumeFloatingPoint<double>(), nullptr);
            break;
        case 7:
            gst_structure_set(structure, field, GST_TYPE_FRACTION, in.ConsumeIntegralInRange<gint>(-3, 100),
                              in.ConsumeIntegralInRange<gint>(1, 100), nullptr);
            break;
        case 8: {
            const std::string bytes = in.ConsumeRandomLengthString(64) + '\0';  // no buffer is made of nothing
            GstBuffer *buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
            gst_structure_set(structure, field, GST_TYPE_BUFFER, buffer, nullptr);
            gst_buffer_unref(buffer);
            break;
        }
        default: {
            const gint from = in.ConsumeIntegralInRange<gint>(-10, 10);
            gst_structure_set(structure, field, GST_TYPE_INT_RANGE, from, from + in.ConsumeIntegralInRange<gint>(1, 10),
                              nullptr);
            break;
        }
    }
}

}  // namespace

void Prepare() {
    static const bool done = PrepareOnce();
    static_cast<void>(done);
}

void Require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

void RequireNothingLeft() {
    const auto left = unit::LiveObjects();
    for (const std::string &name : left) {
        std::fprintf(stderr, "left behind: %s\n", name.c_str());
    }
    Require(left.empty(), "nothing is left behind");
}

std::string Text(Input &in, std::initializer_list<const char *> likely) {
    const std::size_t choice = in.ConsumeIntegralInRange<std::size_t>(0, likely.size());
    if (choice < likely.size()) {
        return likely.begin()[choice];
    }
    const std::string bytes = in.ConsumeRandomLengthString(300);
    return bytes.substr(0, bytes.find('\0'));
}

std::string ValidText(Input &in, std::initializer_list<const char *> likely) {
    const std::string text = Text(in, likely);
    gchar *valid = g_utf8_make_valid(text.c_str(), -1);
    std::string result = valid;
    g_free(valid);
    return result;
}

GstStructure *Structure(Input &in, std::initializer_list<const char *> names) {
    GstStructure *structure = gst_structure_new_empty(StructureName(ValidText(in, names)).c_str());
    for (int fields = in.ConsumeIntegralInRange(0, 6); fields > 0; --fields) {
        AddField(in, structure);
    }
    return structure;
}

GstCaps *Caps(Input &in) {
    if (in.ConsumeIntegralInRange(0, 15) == 0) {
        return gst_caps_new_any();
    }
    GstCaps *caps = gst_caps_new_empty();
    for (int structures = in.ConsumeIntegralInRange(0, 3); structures > 0; --structures) {
        gst_caps_append_structure(
            caps, Structure(in, {"video/x-h264", "video/x-h265", "video/mpegts", "video/mpeg", "audio/mpeg", "audio/x-opus",
                                 "audio/x-ac3", "audio/x-mulaw", "audio/x-alaw", "application/x-rtp", "application/x-id3"}));
    }
    return caps;
}

}  // namespace fuzz
