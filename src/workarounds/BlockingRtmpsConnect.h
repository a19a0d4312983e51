// Symptom: closing an RTMPS source that connects takes twice the time-out, or the kernel's two minutes.
// Seen: rtmpsrc of GStreamer 1.22.0 and 1.26.2. It connects inside the state change; nothing cancels that.
// Done: once the source is to be closed, the socket that the thread waits for is shut down, every 10 ms.
// Cost: one thread for the time of each connection attempt. Needs /proc.
// Test: Rtmps.ClosesAtOnceWhileThePeerIsSilent, RtmpsPipe.ConnectIsEndedByItsSocket.
#pragma once

#include "workarounds/StopHelp.h"
#include "workarounds/Workaround.h"

#include <functional>
#include <utility>

namespace GSTREAMER {

class BlockingRtmpsConnect final : public Workaround {
  public:
    // `is_closing` is asked on a thread of its own.
    explicit BlockingRtmpsConnect(std::function<bool()> is_closing) : m_fnIsClosing(std::move(is_closing)) {}

    void BeforePlay() override;
    void AfterPlay() override { m_help.End(); }

  private:
    const std::function<bool()> m_fnIsClosing;
    StopHelp m_help;
};

}  // namespace GSTREAMER
