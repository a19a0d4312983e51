#include "workarounds/SegmentSources.h"

#include "framework/Ownership.h"

#include <string>
#include <utility>

namespace GSTREAMER {

namespace {

using Found = std::function<void(GstElement *)>;
using Asks = std::function<void(GstPad *)>;

void deep_element_added_handler(GstBin * /*pipeline*/, GstBin * /*bin*/, GstElement *element, gpointer found) {
    GstElementFactory *factory = gst_element_get_factory(element);
    if (factory != nullptr && std::string("souphttpsrc") == GST_OBJECT_NAME(factory)) {
        (*static_cast<Found *>(found))(element);
    }
}

void release_found(gpointer found, GClosure * /*closure*/) {
    delete static_cast<Found *>(found);
}

GstPadProbeReturn request_probe(GstPad *pad, GstPadProbeInfo *info, gpointer asks) {
    // What a source sends before its first read, which makes the request.
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_STREAM_START) {
        (*static_cast<Asks *>(asks))(pad);
    }
    return GST_PAD_PROBE_OK;
}

void release_asks(gpointer asks) {
    delete static_cast<Asks *>(asks);
}

}  // namespace

void OnSegmentSource(GstElement *pipeline, Found found) {
    g_signal_connect_data(pipeline, "deep-element-added", G_CALLBACK(deep_element_added_handler), new Found(std::move(found)),
                          release_found, static_cast<GConnectFlags>(0));
}

void BeforeEachRequest(GstElement *source, Asks asks) {
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    auto *const kept = new Asks(std::move(asks));
    if (!pad || gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, request_probe, kept, release_asks) == 0) {
        release_asks(kept);
    }
}

}  // namespace GSTREAMER
