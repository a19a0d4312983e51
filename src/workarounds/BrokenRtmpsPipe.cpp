#include "workarounds/BrokenRtmpsPipe.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace GSTREAMER {

namespace {

sigset_t PipeSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

}  // namespace

void BrokenRtmpsPipe::Block::Begin() {
    const sigset_t pipe = PipeSignal();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    m_bUnblock = sigismember(&before, SIGPIPE) == 0;
    sigset_t waiting;
    m_bTake = m_bUnblock || (sigpending(&waiting) == 0 && sigismember(&waiting, SIGPIPE) == 0);
}

void BrokenRtmpsPipe::Block::End() {
    const sigset_t pipe = PipeSignal();
    const timespec at_once{0, 0};
    while (m_bTake && sigtimedwait(&pipe, nullptr, &at_once) < 0 && errno == EINTR) {
    }
    if (m_bUnblock) {
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    }
    m_bTake = false;
    m_bUnblock = false;
}

// Pool threads inherit the signal mask of their creator and serve others later. GLib 2.74: the block ends
// before the task's thread starts. GLib 2.84: a first task starts the spawner thread unblocked.
BrokenRtmpsPipe::BrokenRtmpsPipe(GstElement *source)
    : m_streamStatus(OnStreamingThread(source, [this](GstStreamStatusType type) {
          if (type == GST_STREAM_STATUS_TYPE_CREATE) {
              m_play.End();
          } else if (type == GST_STREAM_STATUS_TYPE_ENTER) {
              m_streaming.Begin();
          } else if (type == GST_STREAM_STATUS_TYPE_LEAVE) {
              m_streaming.End();
          }
      })) {
    gst_object_unref(gst_task_new([](gpointer) {}, nullptr, nullptr));
}

}  // namespace GSTREAMER
