#include "workarounds/LostSrtStop.h"

#include <gst/base/gstbasesrc.h>

namespace GSTREAMER {

namespace {

// A stop that is not lost ends within half of this, in a refused handshake too.
constexpr std::chrono::seconds kPatience{2};

}  // namespace

void LostSrtStop::Unlock(GstElement *source) {
    if (!IsA(source, GST_TYPE_BASE_SRC)) {
        return;
    }
    if (const auto unlock = GST_BASE_SRC_GET_CLASS(source)->unlock; unlock != nullptr) {
        unlock(GST_BASE_SRC(source));
    }
}

void LostSrtStop::BeforeStop() {
    m_help.Begin(kPatience, [this] { Unlock(m_source); });
}

void LostSrtStop::AfterStop() {
    m_help.End();
}

}  // namespace GSTREAMER
