// Looking into locations.
#pragma once

namespace GSTREAMER {

// Whether both have the same scheme, host and port. False for a text that names no host, and for null.
bool IsSameServer(const char *location, const char *other);

}  // namespace GSTREAMER
