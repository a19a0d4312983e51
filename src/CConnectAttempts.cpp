#include "CConnectAttempts.h"

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace GSTREAMER {

namespace {

constexpr int kLooks = 2000;
constexpr std::chrono::milliseconds kLookPause{1};
// The way to a server that answers takes milliseconds; to one that does not, all of its time-out.
constexpr int kConnectLooks = 500;

struct Attempt {
    std::string server;
    GMainContext *context;  // owned; the attempt's thread owns it in GLib's sense for as long as the element runs
    GSocket *socket;        // owned, null until the connection stands
    bool underWay;          // no connection yet, and no refusal
    bool ended;             // as far as the socket's client is concerned
    bool hopeless;          // has been heard out without an end
};

std::mutex g_mtxAttempts;               // guards all below
std::vector<std::string> g_vecServers;  // one entry for each source that may connect
std::vector<Attempt> g_vecAttempts;
gulong g_nHook = 0;

std::string ServerName(const gchar *host, guint port) {
    return std::string(host != nullptr ? host : "") + ":" + std::to_string(port);
}

guint EventSignal() {
    return g_signal_lookup("event", G_TYPE_SOCKET_CLIENT);
}

// A context that nobody owns belongs to an element that has been stopped.
bool IsStopped(const Attempt &attempt) {
    const bool stopped = g_main_context_acquire(attempt.context) != FALSE;
    if (stopped) {
        g_main_context_release(attempt.context);
    }
    return stopped;
}

void Drop(Attempt &attempt) {
    g_clear_object(&attempt.socket);
    g_clear_pointer(&attempt.context, g_main_context_unref);
}

// Every connection of the process, on the thread that makes it. (client, event, connectable, connection)
gboolean client_event_hook(GSignalInvocationHint * /*hint*/, guint values, const GValue *value, gpointer /*user*/) {
    GMainContext *const context = g_main_context_get_thread_default();
    auto *const target = values == 4 ? static_cast<GObject *>(g_value_get_object(value + 2)) : nullptr;
    if (context == nullptr || target == nullptr || !G_IS_NETWORK_ADDRESS(target)) {
        return TRUE;
    }
    auto *const address = G_NETWORK_ADDRESS(target);
    const std::string server = ServerName(g_network_address_get_hostname(address), g_network_address_get_port(address));
    const std::lock_guard<std::mutex> lock(g_mtxAttempts);
    if (std::find(g_vecServers.begin(), g_vecServers.end(), server) == g_vecServers.end()) {
        return TRUE;
    }
    auto attempt = std::find_if(g_vecAttempts.begin(), g_vecAttempts.end(),
                                [&](const Attempt &other) { return other.context == context; });
    if (attempt == g_vecAttempts.end()) {
        attempt = g_vecAttempts.insert(attempt, {server, g_main_context_ref(context), nullptr, false, false, false});
    }
    const auto event = static_cast<GSocketClientEvent>(g_value_get_enum(value + 1));
    attempt->underWay =
        event == G_SOCKET_CLIENT_RESOLVING || event == G_SOCKET_CLIENT_RESOLVED || event == G_SOCKET_CLIENT_CONNECTING;
    attempt->ended = event == G_SOCKET_CLIENT_COMPLETE;
    auto *const connection = static_cast<GObject *>(g_value_get_object(value + 3));
    if (attempt->ended && connection != nullptr && G_IS_SOCKET_CONNECTION(connection)) {
        g_clear_object(&attempt->socket);
        attempt->socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(connection));
        g_object_ref(attempt->socket);
    }
    return TRUE;
}

}  // namespace

struct CConnectAttempts::Target {
    std::string server;
    GWeakRef element{};

    bool IsGone() {
        gpointer alive = g_weak_ref_get(&element);
        const bool gone = alive == nullptr;
        g_clear_object(&alive);
        return gone;
    }
};

CConnectAttempts::CConnectAttempts(GstElement *element) : m_pTarget(new Target) {
    gchar *host = nullptr;
    gint port = 0;
    GObjectClass *const properties = G_OBJECT_GET_CLASS(element);
    if (g_object_class_find_property(properties, "host") != nullptr &&
        g_object_class_find_property(properties, "port") != nullptr) {
        g_object_get(element, "host", &host, "port", &port, nullptr);
    }
    m_pTarget->server = ServerName(host, static_cast<guint>(port));
    g_free(host);
    g_weak_ref_init(&m_pTarget->element, element);
    // The signal is known once its class is.
    g_type_class_unref(g_type_class_ref(G_TYPE_SOCKET_CLIENT));
    const std::lock_guard<std::mutex> lock(g_mtxAttempts);
    if (g_vecServers.empty()) {
        g_nHook = g_signal_add_emission_hook(EventSignal(), 0, client_event_hook, nullptr, nullptr);
    }
    g_vecServers.push_back(m_pTarget->server);
}

CConnectAttempts::~CConnectAttempts() {
    g_weak_ref_clear(&m_pTarget->element);
    const std::lock_guard<std::mutex> lock(g_mtxAttempts);
    g_vecServers.erase(std::find(g_vecServers.begin(), g_vecServers.end(), m_pTarget->server));
    const auto kept = std::remove_if(g_vecAttempts.begin(), g_vecAttempts.end(), [](Attempt &attempt) {
        const bool done = attempt.hopeless || (attempt.ended && IsStopped(attempt));
        if (done) {
            Drop(attempt);
        }
        return done;
    });
    g_vecAttempts.erase(kept, g_vecAttempts.end());
    if (g_vecServers.empty()) {
        g_signal_remove_emission_hook(EventSignal(), g_nHook);
        std::for_each(g_vecAttempts.begin(), g_vecAttempts.end(), Drop);
        g_vecAttempts.clear();
    }
}

void CConnectAttempts::AwaitConnection() {
    for (int look = 0; look < kConnectLooks; ++look) {
        {
            const std::lock_guard<std::mutex> lock(g_mtxAttempts);
            bool begun = false;
            bool underWay = false;
            for (const Attempt &attempt : g_vecAttempts) {
                if (attempt.server == m_pTarget->server) {
                    const bool runs = !IsStopped(attempt);
                    begun = begun || runs || attempt.ended;
                    underWay = underWay || (runs && attempt.underWay);
                }
            }
            if (begun && !underWay) {
                return;
            }
        }
        std::this_thread::sleep_for(kLookPause);
    }
}

bool CConnectAttempts::Sweep() {
    for (int look = 0; !m_pTarget->IsGone(); ++look) {
        if (look == kLooks) {
            const std::lock_guard<std::mutex> lock(g_mtxAttempts);
            for (Attempt &attempt : g_vecAttempts) {
                attempt.hopeless = attempt.hopeless || (attempt.server == m_pTarget->server && IsStopped(attempt));
            }
            return false;
        }
        if (look > 0) {
            std::this_thread::sleep_for(kLookPause);
        }
        // Copies, since what is heard out here says so to the hook.
        std::vector<Attempt> attempts;
        {
            const std::lock_guard<std::mutex> lock(g_mtxAttempts);
            for (const Attempt &attempt : g_vecAttempts) {
                if (attempt.server == m_pTarget->server) {
                    attempts.push_back(attempt);
                    g_main_context_ref(attempt.context);
                    if (attempt.socket != nullptr) {
                        g_object_ref(attempt.socket);
                    }
                }
            }
        }
        for (Attempt &attempt : attempts) {
            // One that runs is another source's.
            if (g_main_context_acquire(attempt.context) != FALSE) {
                if (attempt.socket != nullptr) {
                    g_socket_shutdown(attempt.socket, TRUE, TRUE, nullptr);
                }
                // What the attempt starts anew belongs to its own context.
                g_main_context_push_thread_default(attempt.context);
                while (g_main_context_iteration(attempt.context, FALSE) != FALSE) {
                }
                g_main_context_pop_thread_default(attempt.context);
                g_main_context_release(attempt.context);
            }
            Drop(attempt);
        }
    }
    return true;
}

}  // namespace GSTREAMER
