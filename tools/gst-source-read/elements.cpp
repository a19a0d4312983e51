#include "elements.h"

#include <filesystem>
#include <stdexcept>
#include <string_view>

#ifndef PLUGINS_DIR
#define PLUGINS_DIR ""
#endif

namespace reader {
namespace {

constexpr const char *kPlugin = "libgstshbsink.so";

bool HasFactory(const char *name) {
    GstElementFactory *factory = gst_element_factory_find(name);
    if (factory != nullptr) {
        gst_object_unref(factory);
    }
    return factory != nullptr;
}

// Where the tool has been installed, and where it has been built: neither need be a place of GStreamer's.
void LoadPlugin() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path built = program.parent_path() / "../../shbsink";
    for (const std::filesystem::path &folder : {std::filesystem::path(PLUGINS_DIR), built}) {
        const std::filesystem::path file = folder / kPlugin;
        if (HasFactory("shbsrc") || !std::filesystem::exists(file, error)) {
            continue;
        }
        GError *reason = nullptr;
        GstPlugin *plugin = gst_plugin_load_file(file.c_str(), &reason);
        const ErrorPtr owned(reason);
        if (plugin != nullptr) {
            gst_registry_add_plugin(gst_registry_get(), plugin);
            gst_object_unref(plugin);
        }
    }
}

}  // namespace

void StartGStreamer() {
    GError *reason = nullptr;
    if (gst_init_check(nullptr, nullptr, &reason) == FALSE) {
        const ErrorPtr owned(reason);
        throw std::runtime_error(std::string("GStreamer cannot be used: ") +
                                 (reason != nullptr ? reason->message : "no reason"));
    }
    LoadPlugin();
    if (!HasFactory("shbsrc")) {
        throw std::runtime_error(
            "the GStreamer element \"shbsrc\" is missing; GST_PLUGIN_PATH must name the directory of libgstshbsink.so");
    }
}

void RequireElement(const char *factory, const char *package) {
    if (!HasFactory(factory)) {
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
