#include "companion.h"

#include <gst/gst.h>

#include <filesystem>
#include <stdexcept>

#include "shb.h"

#ifndef TOOL_VERSION
#define TOOL_VERSION "unknown"
#endif

// From the directory of the installed programs; an absolute path stands for itself.
#ifndef PLUGINS_FROM_PROGRAMS
#define PLUGINS_FROM_PROGRAMS ""
#endif

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr const char *kPlugin = "libgstshbsink.so";

// The directory of this program, empty when the system does not say.
fs::path ProgramPlace() {
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path();
}

// Where the plug-in is beside a program in this directory: as installed, and as built.
fs::path PluginOf(const fs::path &programs) {
    fs::path installed = programs / PLUGINS_FROM_PROGRAMS / kPlugin;
    std::error_code error;
    if (fs::exists(installed, error)) {
        return installed;
    }
    const bool built = programs.parent_path().filename() == "tools";
    return built ? programs / "../../shbsink" / kPlugin : fs::path();
}

void LoadPlugin(const fs::path &file) {
    std::error_code error;
    if (file.empty() || !fs::exists(file, error)) {
        return;
    }
    GError *reason = nullptr;
    if (GstPlugin *plugin = gst_plugin_load_file(file.c_str(), &reason); plugin != nullptr) {
        gst_registry_add_plugin(gst_registry_get(), plugin);
        gst_object_unref(plugin);
    }
    g_clear_error(&reason);
}

std::string Dotted(unsigned major, unsigned minor, unsigned patch) {
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

}  // namespace

bool HasFactory(const char *name) {
    GstElementFactory *factory = gst_element_factory_find(name);
    if (factory != nullptr) {
        gst_object_unref(factory);
    }
    return factory != nullptr;
}

void RequireCompanion(const char *factory) {
    if (!HasFactory(factory)) {
        LoadPlugin(PluginOf(ProgramPlace()));
    }
    if (!HasFactory(factory)) {
        throw std::runtime_error(std::string("the GStreamer element \"") + factory +
                                 "\" is missing; GST_PLUGIN_PATH must name the directory of libgstshbsink.so");
    }
}

std::string VersionText(const std::string &program) {
    constexpr unsigned kByte = 0xff;
    const unsigned buffer = shb_version();
    guint major = 0;
    guint minor = 0;
    guint micro = 0;
    guint nano = 0;
    gst_version(&major, &minor, &micro, &nano);
    return program + " " + TOOL_VERSION + " (libshb " + Dotted(buffer >> 16, buffer >> 8 & kByte, buffer & kByte) +
           ", GStreamer " + Dotted(major, minor, micro) + ")";
}

}  // namespace tool
