#include "workarounds/LateSegmentRequest.h"

#include "workarounds/SegmentSources.h"

namespace GSTREAMER {

void LateSegmentRequest::Attach(GstElement *pipeline) {
    OnSegmentSource(pipeline, [stopping = m_pStopping](GstElement *source) {
        BeforeEachRequest(source, [stopping](GstPad *pad) {
            if (*stopping) {
                // The source looks at this before the request. Flushing it by event would wait for its stop.
                GST_OBJECT_LOCK(pad);
                GST_PAD_SET_FLUSHING(pad);
                GST_OBJECT_UNLOCK(pad);
            }
        });
    });
}

}  // namespace GSTREAMER
