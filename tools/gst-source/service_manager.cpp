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

std::optional<std::chrono::microseconds> WatchdogInterval() {
    uint64_t interval = 0;
    if (sd_watchdog_enabled(0, &interval) <= 0) {
        return std::nullopt;
    }
    return std::chrono::microseconds(interval);
}

}  // namespace tool::service_manager
