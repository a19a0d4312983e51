#include "workarounds/BlockingRtmpsConnect.h"

#include "workarounds/SocketWait.h"

#include <unistd.h>

namespace GSTREAMER {

void BlockingRtmpsConnect::BeforePlay() {
    // AfterPlay joins the help thread, so `player` is inside the state change while it runs.
    constexpr std::chrono::milliseconds kFirstLook{10};
    m_help.Begin(kFirstLook, [this, player = gettid()] {
        if (m_fnIsClosing()) {
            EndSocketWait(player);
        }
    });
}

}  // namespace GSTREAMER
