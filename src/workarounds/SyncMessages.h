// What an object of a pipeline posts on the bus, seen on the thread that posts it.
#pragma once

#include <gst/gst.h>

#include <functional>

namespace GSTREAMER {

class SyncMessages {
  public:
    // `type` is the message's name as in "sync-message::NAME". `from` is only compared with who posts.
    // `handler` runs on the thread that posts.
    SyncMessages(const char *type, gconstpointer from, std::function<void(GstMessage *)> handler);
    ~SyncMessages() { Detach(); }
    SyncMessages(const SyncMessages &) = delete;
    SyncMessages &operator=(const SyncMessages &) = delete;

    // From now on the pipeline's messages are seen, until this goes or is detached. Nothing may be posted at that moment.
    void Attach(GstElement *pipeline);
    void Detach();

  private:
    static void message_handler(GstBus *bus, GstMessage *message, gpointer user_data);

    const char *const m_pszType;
    const gconstpointer m_pFrom;
    const std::function<void(GstMessage *)> m_fnHandler;
    GstBus *m_pBus = nullptr;  // owned, while attached
    gulong m_nHandler = 0;
};

// The same for the streaming thread of a source element's pad "src": `enter` runs on it as it begins, `leave` as
// it ends. In between, and not outside, what the thread does is for this element.
SyncMessages OnStreamingThread(GstElement *source, std::function<void()> enter, std::function<void()> leave);

}  // namespace GSTREAMER
