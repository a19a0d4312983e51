// Symptom: closing an RTSP source waits for a silent server until the time-out, without one for ever.
// Seen: rtspsrc of GStreamer 1.22.0 and 1.26.2, within an answer, or stopped before it connects.
// Done: after 2 s the sockets that it has connected are shut down, every 10 ms until it has stopped.
// Cost: such a close takes 2 s. One thread for the time of each stop.
// Test: Closing.PeersThatStall (CRtspSource, half a handshake), ClosingRtsp.JustBeforeTheConnectionIsMade.
#pragma once

#include "workarounds/ClientSockets.h"
#include "workarounds/StopHelp.h"
#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

namespace GSTREAMER {

class StalledRtspRequest final : public Workaround {
  public:
    explicit StalledRtspRequest(GstElement *source);

    void Attach(GstElement *pipeline) override;
    void BeforeStop() override;
    void AfterStop() override;

  private:
    const guint m_nMark;  // of the threads that work for this, other for each
    ClientSockets m_sockets;
    SyncMessages m_progress;  // rtspsrc says by such messages that it begins and ends something with the server
    StopHelp m_help;
};

}  // namespace GSTREAMER
