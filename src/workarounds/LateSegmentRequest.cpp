#include "workarounds/LateSegmentRequest.h"

#include "workarounds/SegmentSources.h"

namespace GSTREAMER {

void LateSegmentRequest::Attach(GstElement *pipeline) {
    OnSegmentSource(pipeline, [stopping = m_pStopping](GstElement *source) {
        BeforeEachRequest(source, [stopping](GstPad *pad) {
            if (*stopping) {
                // Looked at before the request. (A flush of the element would wait for the lock that its stop holds.)
                GST_OBJECT_LOCK(pad);
                GST_PAD_SET_FLUSHING(pad);
                GST_OBJECT_UNLOCK(pad);
            }
        });
    });
}

}  // namespace GSTREAMER
