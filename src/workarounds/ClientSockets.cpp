#include "workarounds/ClientSockets.h"

#include "framework/Ownership.h"

#include <utility>

namespace GSTREAMER {

ClientSockets::ClientSockets(const std::function<bool()> &is_own)
    : m_events(std::in_place, [this, is_own](GSocketClientEvent event, GNetworkAddress * /*server*/, GObject *connection) {
          if (is_own()) {
              _Note(event, connection);
          }
      }) {}

ClientSockets::~ClientSockets() {
    m_events.reset();
    for (GWeakRef &socket : m_listSockets) {
        g_weak_ref_clear(&socket);
    }
}

void ClientSockets::_Note(GSocketClientEvent event, GObject *connection) {
    const std::lock_guard<std::mutex> lock(m_mtx);
    switch (event) {
        case G_SOCKET_CLIENT_RESOLVING:
            m_stage = Stage::Resolving;
            break;
        case G_SOCKET_CLIENT_COMPLETE:
            m_stage = Stage::Ended;
            break;
        default:
            m_stage = Stage::Connecting;
            break;
    }
    if (!IsA(connection, G_TYPE_SOCKET_CONNECTION)) {
        return;
    }
    GSocket *const socket = g_socket_connection_get_socket(static_cast<GSocketConnection *>(static_cast<gpointer>(connection)));
    // Each event reports the same socket again. References to freed sockets are removed.
    bool known = false;
    for (auto place = m_listSockets.begin(); place != m_listSockets.end();) {
        gpointer alive = g_weak_ref_get(&*place);
        known = known || alive == socket;
        if (alive == nullptr) {
            g_weak_ref_clear(&*place);
            place = m_listSockets.erase(place);
        } else {
            g_object_unref(alive);
            ++place;
        }
    }
    if (!known) {
        m_listSockets.emplace_back();
        g_weak_ref_init(&m_listSockets.back(), socket);
    }
}

ClientSockets::Stage ClientSockets::LastStage() const {
    const std::lock_guard<std::mutex> lock(m_mtx);
    return m_stage;
}

void ClientSockets::Shutdown() {
    const std::lock_guard<std::mutex> lock(m_mtx);
    for (GWeakRef &place : m_listSockets) {
        if (auto *const socket = static_cast<GSocket *>(g_weak_ref_get(&place)); socket != nullptr) {
            g_socket_shutdown(socket, TRUE, TRUE, nullptr);
            g_object_unref(socket);
        }
    }
}

}  // namespace GSTREAMER
