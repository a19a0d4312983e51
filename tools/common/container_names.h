// File names that promise a container.
#pragma once

#include <string>

namespace tool {

// The suffix, ".mp4" for one, when a file of this name would be taken for a container; "" otherwise.
std::string ContainerSuffix(const std::string &path);

}  // namespace tool
