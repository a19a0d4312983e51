// Symptom: closing an HLS source ends the process, in libsoup, when a reload, a variant or a key is answered just then.
// Seen: souphttpsrc of GStreamer 1.22.0 (libsoup 3.2.3) and 1.26.2 (3.6.5), as in UnansweredHttpRequests, in elements that hlsdemux keeps outside of any bin.
// Done: before a stop their HTTP session, which is the playlist's, rests for 30 ms, in which it takes no answer.
// Cost: a close takes 30 ms longer, 100 ms at most.
// Test: ClosingHls.JustWhenAVariantIsAnswered.
#pragma once

#include "workarounds/SyncMessages.h"
#include "workarounds/Workaround.h"

#include <mutex>

namespace GSTREAMER {

class HiddenPlaylistRequests final : public Workaround {
  public:
    // `source` fetches the playlist and outlives this.
    explicit HiddenPlaylistRequests(GstElement *source)
        : m_answers("element", source, [this](GstMessage *message) { _NoteContext(message); }) {}
    ~HiddenPlaylistRequests() override;

    void Attach(GstElement *pipeline) override;
    void BeforeStop() override;

  private:
    // An answer is reported on the thread of the session, whose main context is that thread's.
    void _NoteContext(GstMessage *message);

    SyncMessages m_answers;  // not of the segments, which have sessions of their own
    std::mutex m_mtx;
    GMainContext *m_pContext = nullptr;  // owned; guarded by m_mtx; until the session has rested
};

}  // namespace GSTREAMER
