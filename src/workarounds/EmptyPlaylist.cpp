#include "workarounds/EmptyPlaylist.h"

#include "framework/Elements.h"

namespace GSTREAMER {

void EmptyPlaylist::Attach(GstElement * /*pipeline*/) {
    const PadPtr pad(gst_element_get_static_pad(m_pSource, "src"));
    if (pad) {
        gst_pad_add_probe(pad.get(),
                          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          playlist_probe, nullptr, nullptr);
    }
}

GstPadProbeReturn EmptyPlaylist::playlist_probe(GstPad *pad, GstPadProbeInfo *info, gpointer /*user_data*/) {
    if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
        return GST_PAD_PROBE_REMOVE;
    }
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS) {
        return GST_PAD_PROBE_OK;
    }
    PostReadError(GST_PAD_PARENT(pad), "The playlist is empty.");
    return GST_PAD_PROBE_REMOVE;
}

}  // namespace GSTREAMER
