#include "workarounds/ClientSockets.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace GSTREAMER {

namespace {

// Lives as long as the process: connections may still be made while it exits.
struct Registry {
    std::mutex mutex;
    std::vector<ClientSockets *> all;  // guarded by mutex
    gulong hook = 0;                   // guarded by mutex
};

Registry &TheRegistry() {
    static auto *const registry = new Registry;
    return *registry;
}

guint EventSignal() {
    return g_signal_lookup("event", G_TYPE_SOCKET_CLIENT);
}

}  // namespace

ClientSockets::ClientSockets(std::function<bool()> is_own) : m_fnIsOwn(std::move(is_own)) {
    // The signal is known once its class is.
    g_type_class_unref(g_type_class_ref(G_TYPE_SOCKET_CLIENT));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    registry.all.push_back(this);
    if (registry.all.size() == 1) {
        registry.hook = g_signal_add_emission_hook(EventSignal(), 0, client_event_hook, nullptr, nullptr);
    }
}

ClientSockets::~ClientSockets() {
    {
        Registry &registry = TheRegistry();
        const std::lock_guard<std::mutex> lock(registry.mutex);
        registry.all.erase(std::find(registry.all.begin(), registry.all.end(), this));
        if (registry.all.empty()) {
            g_signal_remove_emission_hook(EventSignal(), registry.hook);
        }
    }
    for (GWeakRef &socket : m_listSockets) {
        g_weak_ref_clear(&socket);
    }
}

// (client, event, connectable, connection)
gboolean ClientSockets::client_event_hook(GSignalInvocationHint * /*hint*/, guint count, const GValue *values,
                                          gpointer /*user*/) {
    constexpr guint kArguments = 4;
    if (count != kArguments) {
        return TRUE;
    }
    // GLib's look for a proxy connects to D-Bus on the same threads, for the whole process.
    auto *const target = static_cast<GObject *>(g_value_get_object(values + 2));
    if (target == nullptr || !G_IS_NETWORK_ADDRESS(target)) {
        return TRUE;
    }
    const auto event = static_cast<GSocketClientEvent>(g_value_get_enum(values + 1));
    auto *const connection = static_cast<GObject *>(g_value_get_object(values + 3));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    for (ClientSockets *sockets : registry.all) {
        if (sockets->m_fnIsOwn()) {
            sockets->_Note(event, connection);
        }
    }
    return TRUE;
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
    if (connection == nullptr || !G_IS_SOCKET_CONNECTION(connection)) {
        return;
    }
    GSocket *const socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(connection));
    // Each event brings it again; what is gone makes room.
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
