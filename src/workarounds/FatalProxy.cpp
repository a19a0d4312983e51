#include "workarounds/FatalProxy.h"

#include <glib.h>

namespace GSTREAMER {

bool IsFatalProxy(const std::string &proxy) {
    // What souphttpsrc puts in front of a text without a scheme.
    const std::string uri = proxy.find("://") == std::string::npos ? "http://" + proxy : proxy;
    return !proxy.empty() && g_uri_is_valid(uri.c_str(), G_URI_FLAGS_NONE, nullptr) == FALSE;
}

}  // namespace GSTREAMER
