// Symptom: closing an HLS source while a reload, a variant or a key is answered ends the process, in libsoup.
// Seen: souphttpsrc of GStreamer 1.22.0 and 1.26.2, inside hlsdemux, which keeps it outside of any bin.
// Done: before a stop their HTTP session, which is the playlist's, handles nothing for 30 ms.
// Cost: a close takes 30 ms longer, 100 ms at most.
// Test: ClosingHls.JustWhenAVariantIsAnswered.
#pragma once

#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <mutex>

namespace GSTREAMER {

class HiddenPlaylistRequests final : public Workaround {
  public:
    // `source` fetches the playlist. It is not touched after AfterStop.
    explicit HiddenPlaylistRequests(GstElement *source)
        : m_answers("sync-message::element", source, [this](GstMessage *message) { _NoteContext(message); }) {}
    ~HiddenPlaylistRequests() override;

    void Attach(GstElement *pipeline) override;
    void BeforeStop() override;

  private:
    // An answer is reported on the thread of the session, whose main context is that thread's.
    void _NoteContext(GstMessage *message);

    SyncMessages m_answers;  // not of the segments, which have sessions of their own
    std::mutex m_mtx;
    GMainContext *m_pContext = nullptr;  // owned; guarded by m_mtx; until the session has paused
};

}  // namespace GSTREAMER
