#include "framework/Caps.h"

#include "Logger.h"

#include <cstdio>

namespace GSTREAMER {

std::string PadName(GstPad *pad) {
    const TextPtr name(gst_pad_get_name(pad));
    return name ? name.get() : "";
}

const char *TextField(const GstStructure *structure, const char *field) {
    const GValue *value = gst_structure_get_value(structure, field);
    return value != nullptr && G_VALUE_HOLDS_STRING(value) ? g_value_get_string(value) : nullptr;
}

const GstStructure *FirstStructure(const GstCaps *caps) {
    return gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0) : nullptr;
}

void PrintCaps(const GstCaps *caps) {
    const TextPtr text(gst_caps_to_string(caps));
    PRINT_BY_STDIO("strcaps string :%s \n", text ? text.get() : "");
}

}  // namespace GSTREAMER
