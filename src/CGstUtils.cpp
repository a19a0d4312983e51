#include "CGstUtils.h"

#include "framework/FrameworkLog.h"

#include <gst/gst.h>

#include <mutex>

namespace GSTREAMER {

static std::mutex g_muxGstLock;
static bool g_bGstInitFlag = false;

void GstInit() {
    const std::lock_guard<std::mutex> lock(g_muxGstLock);
    if (g_bGstInitFlag) {
        return;
    }
    g_bGstInitFlag = true;
    gst_init(nullptr, nullptr);
    gst_debug_set_active(TRUE);
    gst_debug_set_default_threshold(GST_LEVEL_ERROR);
    // gst_debug_set_active(TRUE) makes every debug statement format its arguments (a third of the CPU in
    // tsdemux). Off and on again by the threshold gives the same log level without that cost.
    gst_debug_set_active(FALSE);
    gst_debug_set_default_threshold(GST_LEVEL_ERROR);
    WatchFrameworkLog();
}

void GstDeInit() {
    const std::lock_guard<std::mutex> lock(g_muxGstLock);
    if (!g_bGstInitFlag) {
        return;
    }
    g_bGstInitFlag = false;
    UnwatchFrameworkLog();
    gst_deinit();
}

}  // namespace GSTREAMER
