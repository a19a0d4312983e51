// Symptom: HLS segments are requested without the host's time-out, retries, proxy, agent and credentials.
// Seen: hlsdemux of GStreamer 1.22.0 and 1.26.2. It gives the source that it makes for them none of these.
// Done: the source gets the options when it is made, and credentials before requests to that server.
// Cost: none.
// Test: HlsPlays.FramesEqualTheMaterial/requests, Hls.CredentialsGoToThePlaylistsServerOnly.
#pragma once

#include "workarounds/Workaround.h"

#include <functional>
#include <string>

namespace GSTREAMER {

// User name and password, each empty when there is none, for the server of a location.
struct Credentials {
    std::string location;
    std::string user;
    std::string password;
};

class BareSegmentSource final : public Workaround {
  public:
    // `configure` sets what every server is sent; called on streaming threads of the pipeline.
    BareSegmentSource(std::function<void(GstElement *)> configure, Credentials credentials);

    void Attach(GstElement *pipeline) override;

  private:
    const std::function<void(GstElement *)> m_fnConfigure;
    const Credentials m_credentials;
};

}  // namespace GSTREAMER
