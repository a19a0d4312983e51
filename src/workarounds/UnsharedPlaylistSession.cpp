#include "workarounds/UnsharedPlaylistSession.h"

#include <utility>

namespace GSTREAMER {

namespace {

constexpr guint kDefaultTimeout = 15;  // s

// What souphttpsrc has set itself when it was made.
std::string ProxyOfEnvironment() {
    const gchar *const proxy = g_getenv("http_proxy");
    return proxy != nullptr ? proxy : "";
}

}  // namespace

UnsharedPlaylistSession::UnsharedPlaylistSession(GstElement *source, std::string proxy)
    : m_pSource(source),
      m_strProxy(proxy.empty() ? ProxyOfEnvironment() : std::move(proxy)),
      m_stateChanges("sync-message::state-changed", source,
                     [this](GstMessage *message) {
                         GstState now = GST_STATE_VOID_PENDING;
                         GstState before = GST_STATE_VOID_PENDING;
                         gst_message_parse_state_changed(message, &before, &now, nullptr);
                         if (before == GST_STATE_NULL && now == GST_STATE_READY) {
                             g_object_get(m_pSource, "timeout", &m_nTimeout, nullptr);
                             g_object_set(m_pSource, "timeout", kDefaultTimeout, "proxy", nullptr, nullptr);
                         }
                     }),
      // need-context comes after souphttpsrc decided to share, before it makes the session.
      m_needs("sync-message::need-context", source, [this](GstMessage * /*message*/) {
          g_object_set(m_pSource, "timeout", m_nTimeout, "proxy", m_strProxy.c_str(), nullptr);
      }) {}

void UnsharedPlaylistSession::Attach(GstElement *pipeline) {
    m_stateChanges.Attach(pipeline);
    m_needs.Attach(pipeline);
}

}  // namespace GSTREAMER
