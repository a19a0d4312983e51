#include "workarounds/SegmentSources.h"

#include "framework/Ownership.h"

#include <utility>

namespace GSTREAMER {

namespace {

using Found = std::function<void(GstElement *)>;
using BeforeRequest = std::function<void(GstPad *)>;

void deep_element_added_handler(GstBin * /*pipeline*/, GstBin * /*bin*/, GstElement *element, gpointer found) {
    GstElementFactory *factory = gst_element_get_factory(element);
    if (factory != nullptr && g_strcmp0(GST_OBJECT_NAME(factory), "souphttpsrc") == 0) {
        (*static_cast<Found *>(found))(element);
    }
}

void release_found(gpointer found, GClosure * /*closure*/) {
    delete static_cast<Found *>(found);
}

GstPadProbeReturn request_probe(GstPad *pad, GstPadProbeInfo *info, gpointer handler) {
    // What a source sends before its first read, which makes the request.
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_STREAM_START) {
        (*static_cast<BeforeRequest *>(handler))(pad);
    }
    return GST_PAD_PROBE_OK;
}

void release_handler(gpointer handler) {
    delete static_cast<BeforeRequest *>(handler);
}

}  // namespace

void OnSegmentSource(GstElement *pipeline, Found found) {
    g_signal_connect_data(pipeline, "deep-element-added", G_CALLBACK(deep_element_added_handler), new Found(std::move(found)),
                          release_found, static_cast<GConnectFlags>(0));
}

void BeforeEachRequest(GstElement *source, BeforeRequest handler) {
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    auto *const kept = new BeforeRequest(std::move(handler));
    if (!pad || gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, request_probe, kept, release_handler) == 0) {
        release_handler(kept);
    }
}

}  // namespace GSTREAMER
