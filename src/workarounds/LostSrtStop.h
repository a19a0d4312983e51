// Symptom: closing an SRT caller that has no peer never ends.
// Seen: srtsrc of GStreamer 1.26.2. A stop within microseconds of its first read is lost.
// Done: after 2 s the element is unlocked again, and every 10 ms from then on, until it has stopped.
// Cost: such a close takes 2 s. One thread for the time of each stop.
// Test: SrtStop.LostStopIsGivenAgain; cycles-srt meets it with the element itself.
#pragma once

#include "framework/Ownership.h"
#include "workarounds/StopHelp.h"
#include "workarounds/Workaround.h"

namespace GSTREAMER {

class LostSrtStop final : public Workaround {
  public:
    explicit LostSrtStop(GstElement *source) : m_source(ElementRef::Share(source)) {}

    void BeforeStop() override;
    void AfterStop() override;

    // What a stop does to a source of the framework's base class. Other elements, and null, are left alone.
    static void Unlock(GstElement *source);

  private:
    ElementRef m_source;
    StopHelp m_help;
};

}  // namespace GSTREAMER
