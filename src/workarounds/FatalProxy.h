// Symptom: a proxy that is no URI ends the process. One whose path is no UTF-8 is ignored (critical).
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2. It aborts as it makes its HTTP session.
// Done: such a proxy is found out before it is set.
// Cost: none.
// Test: ProxyDeathTest.WhatSouphttpsrcEndsTheProcessOver, Options.HlsProxyThatWouldEndTheProcessIsRefused.
#pragma once

#include <string>

namespace GSTREAMER {

// An empty text is no proxy.
bool IsFatalProxy(const std::string &proxy);

}  // namespace GSTREAMER
