#include "workarounds/BlockingRtmpsConnect.h"

#include "workarounds/SocketWait.h"

#include <unistd.h>

namespace GSTREAMER {

void BlockingRtmpsConnect::BeforePlay() {
    // The thread waits for the end of this help before it goes on to anything else.
    constexpr std::chrono::milliseconds kFirstLook{10};
    m_help.Begin(kFirstLook, [this, player = gettid()] {
        if (m_fnIsClosing()) {
            EndSocketWait(player);
        }
    });
}

}  // namespace GSTREAMER
