// Once-only initialisation of the framework.
#pragma once

namespace GSTREAMER {

// Initialises GStreamer once, whoever asks first; later calls do nothing until GstDeInit. Any thread.
__attribute__((visibility("default"))) void GstInit();

// Tears GStreamer down when GstInit has initialised it. No source may exist: teardown with an open source dead-locks in GLib's
// thread pool. After it, element factories of this GStreamer version stay unavailable for the rest of the process, so that
// sources can still be created but no longer be opened. Any thread.
__attribute__((visibility("default"))) void GstDeInit();

// Standard output that the host has closed leads to /dev/null from here on. Otherwise the next file or socket that anybody opens gets
// its number, and the log goes into that. Any thread.
void GuardStandardOutput();

}  // namespace GSTREAMER
