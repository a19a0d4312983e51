#include "workarounds/StalledRtspRequest.h"

#include <atomic>

namespace GSTREAMER {

namespace {

// A stop of a server that answers takes a fraction of this.
constexpr std::chrono::seconds kPatience{2};

std::atomic<guint> g_nLastMark{0};
thread_local guint t_nMark = 0;

}  // namespace

StalledRtspRequest::StalledRtspRequest(GstElement *source)
    : m_nMark(++g_nLastMark),
      m_sockets([mark = m_nMark] { return t_nMark == mark; }),
      m_progress("sync-message::progress", source, [mark = m_nMark](GstMessage *message) {
          GstProgressType type = GST_PROGRESS_TYPE_ERROR;
          gst_message_parse_progress(message, &type, nullptr, nullptr);
          t_nMark = type == GST_PROGRESS_TYPE_START || type == GST_PROGRESS_TYPE_CONTINUE ? mark : 0;
      }) {}

void StalledRtspRequest::Attach(GstElement *pipeline) {
    m_progress.Attach(pipeline);
}

void StalledRtspRequest::BeforeStop() {
    m_help.Begin(kPatience, [this] { m_sockets.Shutdown(); });
}

void StalledRtspRequest::AfterStop() {
    m_help.End();
}

}  // namespace GSTREAMER
