// Looking into locations.
#pragma once

#include <string>

namespace GSTREAMER {

// Whether both have the same scheme, host and port. False for a text that names no host.
bool IsSameServer(const std::string &location, const std::string &other);

}  // namespace GSTREAMER
