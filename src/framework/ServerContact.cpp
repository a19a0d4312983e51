#include "framework/ServerContact.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace GSTREAMER {

namespace {

// A refusal comes at once, also round the world; what takes longer is silence.
constexpr gint64 kRefusalUs = 1500000;

// Lives as long as the process: connections may still be made while it exits.
struct Registry {
    std::mutex mutex;
    std::vector<ServerContact *> all;  // guarded by mutex
    gulong hook = 0;                   // guarded by mutex
};

Registry &TheRegistry() {
    static auto *const registry = new Registry;
    return *registry;
}

guint EventSignal() {
    return g_signal_lookup("event", G_TYPE_SOCKET_CLIENT);
}

// Whether the kernel knows a way to where the connection is to go. Nothing is sent.
bool HasRoute(GObject *connection) {
    GSocketAddress *address = connection != nullptr && G_IS_SOCKET_CONNECTION(connection)
                                  ? g_socket_connection_get_remote_address(G_SOCKET_CONNECTION(connection), nullptr)
                                  : nullptr;
    if (address == nullptr) {
        return true;
    }
    sockaddr_storage native{};
    bool routed = true;
    const gssize size = g_socket_address_get_native_size(address);
    if (size > 0 && g_socket_address_to_native(address, &native, sizeof native, nullptr) != FALSE) {
        const int probe = socket(native.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto *const to = static_cast<const sockaddr *>(static_cast<const void *>(&native));
        routed = probe < 0 || connect(probe, to, static_cast<socklen_t>(size)) == 0;
        if (probe >= 0) {
            close(probe);
        }
    }
    g_object_unref(address);
    return routed;
}

}  // namespace

ServerContact::ServerContact(const std::string &location) {
    GUri *const uri = g_uri_parse(location.c_str(), G_URI_FLAGS_PARSE_RELAXED, nullptr);
    if (uri == nullptr) {
        return;
    }
    m_strHost = g_uri_get_host(uri) != nullptr ? g_uri_get_host(uri) : "";
    m_nPort = g_uri_get_port(uri);
    m_bTls = g_strcmp0(g_uri_get_scheme(uri), "https") == 0;
    g_uri_unref(uri);
    if (m_strHost.empty()) {
        return;
    }
    // The signal is known once its class is.
    g_type_class_unref(g_type_class_ref(G_TYPE_SOCKET_CLIENT));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    if (registry.all.empty()) {
        registry.hook = g_signal_add_emission_hook(EventSignal(), 0, client_event_hook, nullptr, nullptr);
    }
    registry.all.push_back(this);
}

ServerContact::~ServerContact() {
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    const auto place = std::find(registry.all.begin(), registry.all.end(), this);
    if (place == registry.all.end()) {
        return;
    }
    registry.all.erase(place);
    if (registry.all.empty()) {
        g_signal_remove_emission_hook(EventSignal(), registry.hook);
    }
}

// (client, event, connectable, connection)
gboolean ServerContact::client_event_hook(GSignalInvocationHint * /*hint*/, guint count, const GValue *values,
                                          gpointer /*user*/) {
    constexpr guint kArguments = 4;
    auto *const server = count == kArguments ? static_cast<GObject *>(g_value_get_object(values + 2)) : nullptr;
    if (server == nullptr || !G_IS_NETWORK_ADDRESS(server)) {
        return TRUE;
    }
    const auto event = static_cast<GSocketClientEvent>(g_value_get_enum(values + 1));
    auto *const connection = static_cast<GObject *>(g_value_get_object(values + 3));
    Registry &registry = TheRegistry();
    const std::lock_guard<std::mutex> lock(registry.mutex);
    for (ServerContact *contact : registry.all) {
        contact->_Note(event, G_NETWORK_ADDRESS(server), connection);
    }
    return TRUE;
}

void ServerContact::_Note(GSocketClientEvent event, GNetworkAddress *server, GObject *connection) {
    if (m_strHost != g_network_address_get_hostname(server) ||
        (m_nPort != -1 && m_nPort != g_network_address_get_port(server))) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mtx);
    const gint64 now = g_get_monotonic_time();
    const auto begin = [&](Stage stage) {
        m_stage = stage;
        m_nBegun = now;
        m_nGivenUp = 0;
    };
    if (event == G_SOCKET_CLIENT_RESOLVING) {
        begin(Stage::Resolving);
    } else if (event == G_SOCKET_CLIENT_CONNECTING) {
        begin(Stage::Connecting);
        m_bRouted = HasRoute(connection);
    } else if (event == G_SOCKET_CLIENT_COMPLETE && connection != nullptr) {
        begin(Stage::Connected);
    } else if (event == G_SOCKET_CLIENT_COMPLETE) {
        m_nGivenUp = now;
    }
}

bool ServerContact::HasAddress() const {
    if (m_strHost.empty() || g_hostname_is_ip_address(m_strHost.c_str()) != FALSE) {
        return true;
    }
    GResolver *const resolver = g_resolver_get_default();
    GError *error = nullptr;
    GList *const addresses = g_resolver_lookup_by_name(resolver, m_strHost.c_str(), nullptr, &error);
    const bool unknown = addresses == nullptr && error != nullptr && error->domain == G_RESOLVER_ERROR;
    g_resolver_free_addresses(addresses);
    g_clear_error(&error);
    g_object_unref(resolver);
    return !unknown;
}

ServerContact::Failure ServerContact::LastFailure() const {
    const std::lock_guard<std::mutex> lock(m_mtx);
    const gint64 end = m_nGivenUp != 0 ? m_nGivenUp : g_get_monotonic_time();
    const bool silent = end - m_nBegun > kRefusalUs;
    switch (m_stage) {
        case Stage::None:
            break;
        case Stage::Resolving:
            return {"The name " + m_strHost + " could not be resolved", "dns"};
        case Stage::Connecting:
            if (silent) {
                return {"No answer to the connection request to " + m_strHost, "timeout"};
            }
            return m_bRouted ? Failure{"The connection to " + m_strHost + " was refused", "refused"}
                             : Failure{"There is no route to " + m_strHost, "no-route"};
        case Stage::Connected:
            if (silent) {
                return {m_strHost + " has taken the connection and does not answer", "timeout"};
            }
            return m_bTls ? Failure{"There was no TLS session with " + m_strHost, "tls"}
                          : Failure{m_strHost + " has closed the connection without an answer", "closed"};
    }
    return {};
}

}  // namespace GSTREAMER
