#include "workarounds/SharedSegmentSession.h"

#include "workarounds/SegmentSources.h"

namespace GSTREAMER {

void SharedSegmentSession::Attach(GstElement *pipeline) {
    OnSegmentSource(pipeline, [](GstElement *source) {
        const gchar *const no_cookies[] = {nullptr};
        g_object_set(source, "cookies", no_cookies, nullptr);
    });
}

}  // namespace GSTREAMER
