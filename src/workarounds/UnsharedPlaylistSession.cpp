#include "workarounds/UnsharedPlaylistSession.h"

#include <utility>

namespace GSTREAMER {

namespace {

constexpr guint kDefaultTimeout = 15;  // s

}  // namespace

UnsharedPlaylistSession::UnsharedPlaylistSession(GstElement *source, std::string proxy)
    : m_pSource(source), m_strProxy(std::move(proxy)) {}

void UnsharedPlaylistSession::Attach(GstElement *pipeline) {
    // Both messages come while the source is started, on the thread that starts it.
    m_messages.Watch(pipeline, "state-changed", [this](GstMessage *message) {
        GstState now = GST_STATE_VOID_PENDING;
        GstState before = GST_STATE_VOID_PENDING;
        gst_message_parse_state_changed(message, &before, &now, nullptr);
        if (GST_MESSAGE_SRC(message) == GST_OBJECT_CAST(m_pSource) && before == GST_STATE_NULL && now == GST_STATE_READY) {
            g_object_get(m_pSource, "timeout", &m_nTimeout, nullptr);
            g_object_set(m_pSource, "timeout", kDefaultTimeout, "proxy", nullptr, nullptr);
        }
    });
    // It asks for a session between its decision and the making of its own.
    m_messages.Watch(pipeline, "need-context", [this](GstMessage *message) {
        if (GST_MESSAGE_SRC(message) == GST_OBJECT_CAST(m_pSource)) {
            g_object_set(m_pSource, "timeout", m_nTimeout, "proxy", m_strProxy.c_str(), nullptr);
        }
    });
}

}  // namespace GSTREAMER
