#include "framework/Uri.h"

#include "framework/Ownership.h"

#include <string>

namespace GSTREAMER {

namespace {

// Empty for a text that names no host.
std::string ServerOf(const char *location) {
    if (location == nullptr) {
        return {};
    }
    gchar *scheme = nullptr;
    gchar *host = nullptr;
    gint port = -1;
    // Gives the port of the scheme where there is none. What follows the host may be encoded in any way.
    constexpr auto kFlags = static_cast<GUriFlags>(G_URI_FLAGS_SCHEME_NORMALIZE | G_URI_FLAGS_ENCODED_PATH |
                                                   G_URI_FLAGS_ENCODED_QUERY | G_URI_FLAGS_ENCODED_FRAGMENT);
    g_uri_split_network(location, kFlags, &scheme, &host, &port, nullptr);
    const TextPtr scheme_owner(scheme);
    const TextPtr host_owner(host);
    if (scheme == nullptr || host == nullptr || *host == '\0') {
        return {};
    }
    const TextPtr folded(g_ascii_strdown(host, -1));
    return std::string(scheme) + "://" + folded.get() + ":" + std::to_string(port);
}

}  // namespace

bool IsSameServer(const char *location, const char *other) {
    const std::string server = ServerOf(location);
    if (server.empty()) {
        return false;
    }
    return server == ServerOf(other);
}

}  // namespace GSTREAMER
