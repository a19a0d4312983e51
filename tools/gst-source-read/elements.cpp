#include "elements.h"

#include <stdexcept>
#include <string_view>

#include "companion.h"

namespace reader {

void StartGStreamer() {
    GError *reason = nullptr;
    if (gst_init_check(nullptr, nullptr, &reason) == FALSE) {
        const ErrorPtr owned(reason);
        throw std::runtime_error(std::string("GStreamer cannot be used: ") +
                                 (reason != nullptr ? reason->message : "no reason"));
    }
    tool::RequireCompanion("shbsrc");
}

void RequireElement(const char *factory, const char *package) {
    if (!tool::HasFactory(factory)) {
        throw std::runtime_error(std::string("the GStreamer element \"") + factory + "\" is missing; it is in the package " +
                                 package);
    }
}

GstElement *MakeElement(const char *factory, const char *package) {
    RequireElement(factory, package);
    GstElement *element = gst_element_factory_make(factory, nullptr);
    if (element == nullptr) {
        throw std::runtime_error(std::string("the GStreamer element \"") + factory + "\" cannot be made");
    }
    return element;
}

std::string ErrorText(GstMessage *message) {
    GError *error = nullptr;
    gchar *detail = nullptr;
    gst_message_parse_error(message, &error, &detail);
    const ErrorPtr owned(error);
    const TextPtr owned_detail(detail);
    std::string text = error != nullptr ? error->message : "unknown";
    // The framework's own words say little; what failed stands in the last line of the details.
    if (detail != nullptr) {
        std::string_view lines(detail);
        const size_t last = lines.rfind('\n');
        if (last != std::string_view::npos && last + 1 < lines.size()) {
            text += " (" + std::string(lines.substr(last + 1)) + ")";
        }
    }
    for (char &c : text) {
        c = c == '\n' ? ' ' : c;
    }
    return text;
}

}  // namespace reader
