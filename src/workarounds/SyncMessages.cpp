#include "workarounds/SyncMessages.h"

#include "framework/Ownership.h"

#include <utility>

namespace GSTREAMER {

SyncMessages::SyncMessages(const char *signal, gconstpointer from, std::function<void(GstMessage *)> handler)
    : m_pszSignal(signal), m_pFrom(from), m_fnHandler(std::move(handler)) {}

void SyncMessages::Attach(GstElement *pipeline) {
    Detach();
    m_pBus = gst_element_get_bus(pipeline);
    gst_bus_enable_sync_message_emission(m_pBus);
    m_nHandler = g_signal_connect(m_pBus, m_pszSignal, G_CALLBACK(message_handler), this);
}

void SyncMessages::Detach() {
    if (m_pBus != nullptr) {
        g_signal_handler_disconnect(m_pBus, m_nHandler);
        gst_bus_disable_sync_message_emission(m_pBus);
        g_clear_pointer(&m_pBus, gst_object_unref);
    }
}

void SyncMessages::message_handler(GstBus * /*bus*/, GstMessage *message, gpointer user_data) {
    const auto *self = static_cast<const SyncMessages *>(user_data);
    if (self->m_pFrom != nullptr && GST_MESSAGE_SRC(message) == self->m_pFrom) {
        self->m_fnHandler(message);
    }
}

SyncMessages OnStreamingThread(GstElement *source, std::function<void(GstStreamStatusType)> handler) {
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    return {"sync-message::stream-status", pad.get(), [handler = std::move(handler)](GstMessage *message) {
                // Anybody may post what looks like one and holds none: the framework's own parsing trusts it.
                const GstStructure *structure = gst_message_get_structure(message);
                gint type = 0;
                if (structure != nullptr &&
                    gst_structure_get_enum(structure, "type", GST_TYPE_STREAM_STATUS_TYPE, &type) != FALSE) {
                    handler(static_cast<GstStreamStatusType>(type));
                }
            }};
}

}  // namespace GSTREAMER
