#include "CGstUtils.h"

#include "framework/FrameworkLog.h"

#include <fcntl.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cerrno>
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
    // The same state once more, reached from the other side: switching the log on lets every debug statement of every element
    // through to the point where its category is asked, with its data already put into text (tsdemux then spends a third of the
    // pipeline's CPU on hex dumps that nobody sees). Off and on by the threshold leaves the limit at the level that is really
    // in use.
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

void GuardStandardOutput() {
    if (fcntl(STDOUT_FILENO, F_GETFD) >= 0 || errno != EBADF) {
        return;
    }
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    // The lowest free number that is no less: anything else means that somebody has been faster.
    const int out = null == STDOUT_FILENO ? null : fcntl(null, F_DUPFD, STDOUT_FILENO);
    if (out != STDOUT_FILENO && out >= 0) {
        close(out);
    }
    if (null >= 0 && null != STDOUT_FILENO) {
        close(null);
    }
}

}  // namespace GSTREAMER
