#include "gstreamer.h"

#include <stdexcept>

#include "packages.h"
#include "text.h"

namespace reader {

void StartGStreamer() {
    GError *error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
        const std::string reason = error != nullptr ? error->message : "no reason given";
        g_clear_error(&error);
        throw std::runtime_error("GStreamer cannot start: " + reason);
    }
}

Ref<GstElement> MakeElement(const char *factory) {
    GstElement *element = gst_element_factory_make(factory, nullptr);
    if (element == nullptr) {
        throw std::runtime_error(MissingElement(factory));
    }
    gst_object_ref_sink(element);
    return Ref<GstElement>(element);
}

std::string ErrorText(GstMessage *message) {
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const std::string text = std::string(GST_MESSAGE_SRC_NAME(message)) + ": " + error->message;
    g_error_free(error);
    return tool::Printable(text);
}

}  // namespace reader
