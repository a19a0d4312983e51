#include "workarounds/UnansweredHttpRequests.h"

#include "framework/Ownership.h"

#include <chrono>
#include <thread>

namespace GSTREAMER {

namespace {

constexpr std::chrono::milliseconds kBound{500};
constexpr std::chrono::milliseconds kLookPause{1};
// Far more than hlsdemux takes to deal with a segment that has been refused.
constexpr std::chrono::milliseconds kRefusalPause{30};

// The headers of an answer go out as a sticky event, which lasts until the next request.
struct Requests {
    int waiting = 0;   // sources that stream and have no answer yet
    int answered = 0;  // sources whose last request has been answered
};

void CountRequest(GstElement *source, Requests &requests) {
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    if (!pad) {
        return;
    }
    GstEvent *headers = gst_pad_get_sticky_event(pad.get(), GST_EVENT_CUSTOM_DOWNSTREAM_STICKY, 0);
    if (headers != nullptr) {
        ++requests.answered;
    } else if (gst_pad_get_task_state(pad.get()) == GST_TASK_STARTED) {
        ++requests.waiting;
    }
    g_clear_pointer(&headers, gst_event_unref);
}

Requests CountRequests(GstElement *pipeline) {
    Requests requests;
    GstIterator *const sources = gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline), "souphttpsrc");
    const GstIteratorForeachFunction count = [](const GValue *value, gpointer user) {
        CountRequest(static_cast<GstElement *>(g_value_get_object(value)), *static_cast<Requests *>(user));
    };
    // A bin that changes ends the iteration: all are counted again.
    while (gst_iterator_foreach(sources, count, &requests) == GST_ITERATOR_RESYNC) {
        gst_iterator_resync(sources);
        requests = Requests();
    }
    gst_iterator_free(sources);
    return requests;
}

}  // namespace

void UnansweredHttpRequests::BeforeStop() {
    const auto until = std::chrono::steady_clock::now() + kBound;
    Requests last;
    while (std::chrono::steady_clock::now() < until) {
        const Requests now = CountRequests(m_pPipeline);
        if (now.waiting == 0 && (last.waiting == 0 || now.answered > last.answered)) {
            break;
        }
        std::this_thread::sleep_for(now.waiting != 0 ? kLookPause : kRefusalPause);
        last = now;
    }
}

}  // namespace GSTREAMER
