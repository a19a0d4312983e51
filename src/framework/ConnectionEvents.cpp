#include "framework/ConnectionEvents.h"

#include "framework/Ownership.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace GSTREAMER {

namespace {

// Never destroyed: connections may still be made while the process exits.
struct Registry {
    std::mutex mutex;
    std::vector<const ConnectionEvents *> all;  // guarded by mutex
    gulong hook = 0;                            // guarded by mutex
};

Registry &TheRegistry() {
    static auto *const registry = new Registry;
    return *registry;
}

guint EventSignal() {
    return g_signal_lookup("event", G_TYPE_SOCKET_CLIENT);
}

}  // namespace

ConnectionEvents::ConnectionEvents(Handler handler) : m_fnHandler(std::move(handler)) {
    // g_signal_lookup finds the signal only once the class exists.
    g_type_class_unref(g_type_class_ref(G_TYPE_SOCKET_CLIENT));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    registry.all.push_back(this);
    if (registry.all.size() == 1) {
        registry.hook = g_signal_add_emission_hook(EventSignal(), 0, client_event_hook, nullptr, nullptr);
    }
}

ConnectionEvents::~ConnectionEvents() {
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    registry.all.erase(std::find(registry.all.begin(), registry.all.end(), this));
    if (registry.all.empty()) {
        g_signal_remove_emission_hook(EventSignal(), registry.hook);
    }
}

// (client, event, connectable, connection)
gboolean ConnectionEvents::client_event_hook(GSignalInvocationHint * /*hint*/, guint count, const GValue *values,
                                             gpointer /*user*/) {
    constexpr guint kArguments = 4;
    // Network addresses only: GLib's proxy look-up opens the process's D-Bus connection on these threads.
    void *const server = count == kArguments ? g_value_get_object(values + 2) : nullptr;
    if (!IsA(server, G_TYPE_NETWORK_ADDRESS)) {
        return TRUE;
    }
    const auto event = static_cast<GSocketClientEvent>(g_value_get_enum(values + 1));
    auto *const connection = static_cast<GObject *>(g_value_get_object(values + 3));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    for (const ConnectionEvents *events : registry.all) {
        events->m_fnHandler(event, static_cast<GNetworkAddress *>(server), connection);
    }
    return TRUE;
}

}  // namespace GSTREAMER
