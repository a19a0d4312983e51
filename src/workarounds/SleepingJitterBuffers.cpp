#include "workarounds/SleepingJitterBuffers.h"

#include "framework/Ownership.h"

namespace GSTREAMER {

namespace {

// A stop that needs no help takes a fraction of this.
constexpr std::chrono::seconds kPatience{2};

}  // namespace

void SleepingJitterBuffers::Wake(GstElement *pipeline) {
    GstIterator *const buffers = gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline), "rtpjitterbuffer");
    // A bin that changes ends the iteration. The next call comes 10 ms later.
    gst_iterator_foreach(
        buffers,
        [](const GValue *value, gpointer /*user*/) {
            const PadPtr pad(gst_element_get_static_pad(static_cast<GstElement *>(g_value_get_object(value)), "sink"));
            if (pad) {
                // One that has been stopped refuses it.
                gst_pad_send_event(pad.get(), gst_event_new_flush_start());
            }
        },
        nullptr);
    gst_iterator_free(buffers);
}

void SleepingJitterBuffers::BeforeStop() {
    m_help.Begin(kPatience, [this] { Wake(m_pPipeline); });
}

void SleepingJitterBuffers::AfterStop() {
    m_help.End();
}

}  // namespace GSTREAMER
