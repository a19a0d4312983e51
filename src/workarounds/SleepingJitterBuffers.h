// Symptom: closing an RTSP source right after its server has gone never ends.
// Seen: rtpjitterbuffer of GStreamer 1.22.0 and 1.26.2. Two threads wait, and a stop wakes one.
// Done: after 2 s each jitter buffer gets a flush-start event, which wakes the other, every 10 ms.
// Cost: such a close takes 2 s. One thread for the time of each stop.
// Test: JitterBuffers.AreWokenWhereverTheySit; cycles-rtsp meets it with real servers.
#pragma once

#include "workarounds/StopHelp.h"
#include "workarounds/Workaround.h"

namespace GSTREAMER {

class SleepingJitterBuffers final : public Workaround {
  public:
    void Attach(GstElement *pipeline) override { m_pPipeline = pipeline; }
    void BeforeStop() override;
    void AfterStop() override;

    // Only while the pipeline is being stopped, on a thread that may wait for its elements.
    static void Wake(GstElement *pipeline);

  private:
    GstElement *m_pPipeline = nullptr;  // not touched after AfterStop
    StopHelp m_help;
};

}  // namespace GSTREAMER
