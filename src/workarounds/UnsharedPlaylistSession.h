// Symptom: with a time-out other than 15 s, or a proxy, HLS reloads, variants and keys go without any option.
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2 shares its HTTP session at its defaults only.
// Done: the playlist's source has the defaults while it decides, and its options before it makes the session.
// Cost: none.
// Test: Hls.EveryRequestComesThroughTheProxy, HlsPlays.FramesEqualTheMaterial/requests.
#pragma once

#include "framework/Ownership.h"
#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <string>

namespace GSTREAMER {

class UnsharedPlaylistSession final : public Workaround {
  public:
    // `source` fetches the playlist. It is not touched after AfterStop. It does not give back a password in its `proxy`.
    UnsharedPlaylistSession(GstElement *source, std::string proxy);

    void Attach(GstElement *pipeline) override;

  private:
    GstElement *const m_pSource;
    const std::string m_strProxy;
    guint m_nTimeout = 0;  // s; while the source has the default. Thread that starts the source
    // Both come while the source is started, on the thread that starts it.
    SyncMessages m_stateChanges;
    SyncMessages m_needs;
};

}  // namespace GSTREAMER
