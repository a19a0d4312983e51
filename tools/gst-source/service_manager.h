// Reports to the system's service manager, when there is one.
#pragma once

#include <string>

namespace tool::service_manager {

// All sources have been opened.
void Ready(const std::string &status);
// One line for people.
void Status(const std::string &status);
void Stopping();
// To be called several times in every interval that the manager expects.
void Alive();

}  // namespace tool::service_manager
