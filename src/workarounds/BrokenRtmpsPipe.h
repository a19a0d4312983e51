// Symptom: SIGPIPE ends the process when an RTMPS server closes its connection.
// Seen: rtmpsrc of GStreamer 1.22.0 and 1.26.2. Its librtmp writes to connections that the peer has closed.
// Done: the threads that enter librtmp (play, streaming, stop) block the signal meanwhile and drop their own.
// Cost: none.
// Test: RtmpsPipe.NothingOfTheProcessChanges.
#pragma once

#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

namespace GSTREAMER {

class BrokenRtmpsPipe final : public Workaround {
  public:
    explicit BrokenRtmpsPipe(GstElement *source);

    void Attach(GstElement *pipeline) override { m_streamStatus.Attach(pipeline); }
    void BeforePlay() override { m_play.Begin(); }
    void AfterPlay() override { m_play.End(); }
    void BeforeStop() override { m_stop.Begin(); }
    void AfterStop() override { m_stop.End(); }

    // Between Begin and the first End, both on one thread, that thread gets no SIGPIPE.
    // One that waited before waits on.
    class Block {
      public:
        void Begin();
        void End();

      private:
        bool m_bUnblock = false;  // the signal was not blocked before
        bool m_bTake = false;     // none was waiting before
    };

  private:
    Block m_play;       // worker, until the streaming thread starts
    Block m_streaming;  // streaming thread
    Block m_stop;       // thread of the stop
    SyncMessages m_streamStatus;
};

}  // namespace GSTREAMER
