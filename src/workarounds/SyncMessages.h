// What an object of a pipeline posts on the bus, seen on the thread that posts it.
#pragma once

#include <gst/gst.h>

#include <functional>

namespace GSTREAMER {

class SyncMessages {
  public:
    // `signal` is the bus's for one type, "sync-message::NAME". `from` is only compared with who posts.
    // `handler` runs on the thread that posts.
    SyncMessages(const char *signal, gconstpointer from, std::function<void(GstMessage *)> handler);
    ~SyncMessages() { Detach(); }
    SyncMessages(const SyncMessages &) = delete;
    SyncMessages &operator=(const SyncMessages &) = delete;

    // The pipeline's messages are seen until this goes or is detached. Nobody may post just then.
    void Attach(GstElement *pipeline);
    void Detach();

  private:
    static void message_handler(GstBus *bus, GstMessage *message, gpointer user_data);

    const char *const m_pszSignal;
    const gconstpointer m_pFrom;
    const std::function<void(GstMessage *)> m_fnHandler;
    GstBus *m_pBus = nullptr;  // owned, while attached
    gulong m_nHandler = 0;
};

// The same for the streaming thread of a source element's pad "src". What `handler` gets: CREATE on the
// thread that starts it, right before; ENTER on itself as it begins; LEAVE on itself as it ends. Between
// ENTER and LEAVE, and not outside, it works for this element.
SyncMessages OnStreamingThread(GstElement *source, std::function<void(GstStreamStatusType)> handler);

}  // namespace GSTREAMER
