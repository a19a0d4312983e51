#include "framework/ServerContact.h"

#include "framework/Ownership.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>

namespace GSTREAMER {

namespace {

// A refusal takes one round trip. An attempt that lasts longer than 1.5 s got no answer.
constexpr gint64 kRefusalUs = 1500000;

// Whether the kernel knows a way to the address. Nothing is sent.
bool HasRoute(const sockaddr_storage &to, gssize size) {
    const int probe = size > 0 ? socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    if (probe < 0) {
        return true;
    }
    const bool routed =
        connect(probe, static_cast<const sockaddr *>(static_cast<const void *>(&to)), static_cast<socklen_t>(size)) == 0;
    close(probe);
    return routed;
}

// Where the connection goes. The size, 0 when that is not known.
gssize AddressOf(GObject *connection, sockaddr_storage &to) {
    if (!IsA(connection, G_TYPE_SOCKET_CONNECTION)) {
        return 0;
    }
    const std::unique_ptr<GSocketAddress, GObjectUnref> address(
        g_socket_connection_get_remote_address(static_cast<GSocketConnection *>(static_cast<gpointer>(connection)), nullptr));
    if (!address || g_socket_address_to_native(address.get(), &to, sizeof to, nullptr) == FALSE) {
        return 0;
    }
    return g_socket_address_get_native_size(address.get());
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
    m_events.emplace([this](GSocketClientEvent event, GNetworkAddress *server, GObject *connection) {
        if (m_strHost == g_network_address_get_hostname(server) &&
            (m_nPort == -1 || m_nPort == g_network_address_get_port(server))) {
            _Note(event, connection);
        }
    });
}

void ServerContact::_Note(GSocketClientEvent event, GObject *connection) {
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
        m_nAddress = AddressOf(connection, m_address);
    } else if (event == G_SOCKET_CLIENT_COMPLETE && connection != nullptr) {
        begin(Stage::Connected);
    } else if (event == G_SOCKET_CLIENT_COMPLETE) {
        m_nGivenUp = now;
    }
}

bool ServerContact::HasAddress(GCancellable *cancellable) const {
    if (m_strHost.empty() || g_hostname_is_ip_address(m_strHost.c_str()) != FALSE) {
        return true;
    }
    GResolver *const resolver = g_resolver_get_default();
    GError *error = nullptr;
    GList *const addresses = g_resolver_lookup_by_name(resolver, m_strHost.c_str(), cancellable, &error);
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
            return HasRoute(m_address, m_nAddress) ? Failure{"The connection to " + m_strHost + " was refused", "refused"}
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
