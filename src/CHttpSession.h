// An HTTP session for requests that cannot be given options themselves.
//
// hlsdemux makes the reload requests of its playlists (and those for variants and keys) by sources that sit in no bin and keep
// their defaults. Such a source takes its HTTP session, and with it proxy, time-out and what has been authenticated, from a
// context of its parent. The playlist's own source offers its session that way only while its time-out is the default and it
// has no proxy. In every other case this class makes a session with the host's time-out, proxy and credentials and offers it
// instead. The user agent is the requesting source's own affair and out of reach.
#pragma once

#include "framework/Ownership.h"

#include <functional>
#include <mutex>

namespace GSTREAMER {

class CHttpSession {
  public:
    CHttpSession() = default;
    ~CHttpSession() { Close(); }
    CHttpSession(const CHttpSession &) = delete;
    CHttpSession &operator=(const CHttpSession &) = delete;

    // Opens the session and offers it to everything in the pipeline. `configure` sets the options on the source that opens it.
    // That source then asks for the location's headers, once, so that the session is authenticated before the first reload.
    // Does not wait for the answer. Nothing when the source cannot be made.
    void Open(GstElement *pipeline, const char *location, std::function<void(GstElement *)> configure);
    // True once the request of Open has been answered, refused or given up, and when there is none.
    bool IsSettled();
    // Before anything is stopped: until no source of the pipeline, nor this session's, waits for an answer, half a second at most. A
    // souphttpsrc that is stopped just when its answer arrives leaves the answer to nobody, and libsoup closes that with a null
    // pointer, which ends the process; one that is stopped just when GLib has looked something up or connected may wait for ever
    // for what GLib has forgotten. Seen with libsoup 3.2.3 and GLib 2.74. A refusal is given time, since hlsdemux deals badly with
    // one of a segment while it is stopped. Any thread without a lock that a streaming thread takes. `pipeline` may be null.
    void AwaitAnswers(GstElement *pipeline) const;
    // Notes in `keeper` the main context of an HTTP session when the message tells of an answer: that comes on the session's thread.
    static void NoteContext(GObject *keeper, GstMessage *message);
    // Behind AwaitAnswers: lets the session noted in `keeper` rest for a moment, in which it takes no answer. What is stopped meanwhile is
    // stopped between two answers, those included that hlsdemux waits for where nobody sees it (reloads of the playlist). Once for
    // each note. `keeper` may be null.
    static void Rest(GObject *keeper);
    // Ends the request if it is still running. The session lives on while others use it.
    void Close();

  private:
    static GstBusSyncReply message_handler(GstBus *bus, GstMessage *message, gpointer user_data);

    std::function<void(GstElement *)> m_fnConfigure;
    GstElement *m_pPipeline = nullptr;  // borrowed, while open
    GstElement *m_pSource = nullptr;    // owned, while open
    GstBus *m_pBus = nullptr;           // owned, while open
    std::mutex m_mtx;
    bool m_bSettled = true;  // guarded by m_mtx
};

}  // namespace GSTREAMER
