#include "workarounds/SyncMessages.h"

#include <string>
#include <utility>

namespace GSTREAMER {

void SyncMessages::Watch(GstElement *pipeline, const char *type, Seen seen) {
    if (m_pBus == nullptr) {
        m_pBus = gst_element_get_bus(pipeline);
        gst_bus_enable_sync_message_emission(m_pBus);
    }
    m_listSeen.push_back(std::move(seen));
    g_signal_connect(m_pBus, (std::string("sync-message::") + type).c_str(), G_CALLBACK(message_handler), &m_listSeen.back());
}

SyncMessages::~SyncMessages() {
    if (m_pBus == nullptr) {
        return;
    }
    for (Seen &seen : m_listSeen) {
        g_signal_handlers_disconnect_by_data(m_pBus, &seen);
    }
    gst_bus_disable_sync_message_emission(m_pBus);
    gst_object_unref(m_pBus);
}

void SyncMessages::message_handler(GstBus * /*bus*/, GstMessage *message, gpointer seen) {
    (*static_cast<Seen *>(seen))(message);
}

}  // namespace GSTREAMER
