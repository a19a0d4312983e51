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
    // The same state once more, reached from the other side: switching the log on lets every debug statement
    // of every element through to the point where its category is asked, with its data already put into text
    // (tsdemux then spends a third of the pipeline's CPU on hex dumps that nobody sees). Off and on by the
    // threshold leaves the limit at the level that is really in use.
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
