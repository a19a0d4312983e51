#include "workarounds/SyncMessages.h"

#include <string>
#include <utility>

namespace GSTREAMER {

void SyncMessages::Begin(GstElement *pipeline, const char *type, std::function<void(GstMessage *)> handle) {
    End();
    const std::string signal = std::string("sync-message::") + type;
    m_fnHandle = std::move(handle);
    m_pBus = gst_element_get_bus(pipeline);
    gst_bus_enable_sync_message_emission(m_pBus);
    m_nHandler = g_signal_connect(m_pBus, signal.c_str(), G_CALLBACK(sync_message_handler), this);
}

void SyncMessages::End() {
    if (m_pBus != nullptr) {
        g_signal_handler_disconnect(m_pBus, m_nHandler);
        gst_bus_disable_sync_message_emission(m_pBus);
        g_clear_pointer(&m_pBus, gst_object_unref);
    }
}

void SyncMessages::sync_message_handler(GstBus * /*bus*/, GstMessage *message, gpointer user_data) {
    static_cast<SyncMessages *>(user_data)->m_fnHandle(message);
}

}  // namespace GSTREAMER
