// The plug-in with shbsink and shbsrc, for tools that stand outside GStreamer's own directories.
#pragma once

#include <string>

namespace tool {

// Makes sure that GStreamer, which must be initialised, has this element of the plug-in. Where neither its own directories
// nor GST_PLUGIN_PATH have it, the plug-in is loaded from where this program was installed or built. Throws
// std::runtime_error with a message for people.
void RequireCompanion(const char *factory);

bool HasFactory(const char *name);

// "gst-source 1.0.0 (libshb 2.1.0, GStreamer 1.22.0)": the program's own version, and those of the libraries in use.
std::string VersionText(const std::string &program);

}  // namespace tool
