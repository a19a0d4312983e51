// Symptom: after an empty playlist, an HLS source stays "connected" for ever without media.
// Seen: hlsdemux of GStreamer 1.22.0 and 1.26.2. It ignores the end of a stream that brought nothing.
// Done: an error ends the session when the first playlist request ends without a byte.
// Cost: none.
// Test: HostileHls.ListsAndSegmentsThatAreNone.
#pragma once

#include "workarounds/Workaround.h"

namespace GSTREAMER {

class EmptyPlaylist final : public Workaround {
  public:
    // `source` fetches the playlist. It is not touched after AfterStop.
    explicit EmptyPlaylist(GstElement *source) : m_pSource(source) {}

    void Attach(GstElement *pipeline) override;

  private:
    static GstPadProbeReturn playlist_probe(GstPad *pad, GstPadProbeInfo *info, gpointer user_data);

    GstElement *const m_pSource;
};

}  // namespace GSTREAMER
