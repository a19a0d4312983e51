// What is known of a track's presence, as records say it.
#pragma once

#include <cstdint>

#include "shb.h"

namespace tool {

// Of an shb_presence_t.
inline const char *PresenceName(uint32_t presence) {
    switch (presence) {
        case SHB_PRESENCE_EXPECTED:
            return "expected";
        case SHB_PRESENCE_ABSENT:
            return "absent";
        default:
            return "unknown";
    }
}

}  // namespace tool
