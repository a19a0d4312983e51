// Symptom: with a time-out other than 15 s, or a proxy, hlsdemux requests reloads, variants and keys without time-out, proxy and credentials.
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2. It offers its HTTP session to these requests only while both options have their defaults.
// Done: the playlist's source has the defaults while it decides, and its options again before it makes the session.
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
    // `source` fetches the playlist and outlives this. `proxy` is what it has been given, since it does not give back the password in it.
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
