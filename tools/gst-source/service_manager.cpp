#include "service_manager.h"

#include <systemd/sd-daemon.h>

namespace tool::service_manager {

void Ready(const std::string &status) {
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void Status(const std::string &status) {
    sd_notify(0, ("STATUS=" + status).c_str());
}

void Stopping() {
    sd_notify(0, "STOPPING=1\nSTATUS=closing the sources");
}

void Alive() {
    sd_notify(0, "WATCHDOG=1");
}

}  // namespace tool::service_manager
