// Once-only initialisation of the framework.
#pragma once

namespace GSTREAMER {

// Initialises GStreamer once, whoever asks first; later calls do nothing until GstDeInit. Any thread.
__attribute__((visibility("default"))) void GstInit();

// Tears GStreamer down when GstInit has initialised it. No source may exist: teardown with an open source
// dead-locks in GLib's thread pool. After it, element factories of this GStreamer version stay unavailable
// for the rest of the process, so that sources can still be created but no longer be opened. Any thread.
__attribute__((visibility("default"))) void GstDeInit();

}  // namespace GSTREAMER
