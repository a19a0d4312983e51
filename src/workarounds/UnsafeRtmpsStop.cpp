#include "workarounds/UnsafeRtmpsStop.h"

#include "framework/Ownership.h"
#include "workarounds/HeldSource.h"
#include "workarounds/SocketWait.h"

#include <unistd.h>

#include <chrono>

namespace GSTREAMER {

namespace {

// A live stream brings the next buffer well before.
constexpr std::chrono::milliseconds kPatience{300};
// The end of its socket ends a read at once, unless the thread does something else just then.
constexpr std::chrono::milliseconds kBound{2300};
constexpr std::chrono::milliseconds kPause{10};

}  // namespace

UnsafeRtmpsStop::UnsafeRtmpsStop(GstElement *source)
    : m_pSource(source), m_streamStatus(OnStreamingThread(source, [this](GstStreamStatusType type) {
          if (type == GST_STREAM_STATUS_TYPE_ENTER || type == GST_STREAM_STATUS_TYPE_LEAVE) {
              const std::lock_guard<std::mutex> lock(m_mtx);
              m_nThread = type == GST_STREAM_STATUS_TYPE_ENTER ? gettid() : 0;
          }
      })) {}

bool UnsafeRtmpsStop::_IsStreaming() const {
    const PadPtr pad(gst_element_get_static_pad(m_pSource, "src"));
    return pad && gst_pad_get_task_state(pad.get()) == GST_TASK_STARTED;
}

// Under the lock: as long as it is held, the thread cannot end and become anybody else's.
void UnsafeRtmpsStop::_EndRead() {
    const std::lock_guard<std::mutex> lock(m_mtx);
    if (m_nThread != 0) {
        EndSocketWait(m_nThread);
    }
}

void UnsafeRtmpsStop::BeforeStop() {
    HeldSource held(m_pSource);
    const auto until = std::chrono::steady_clock::now() + kBound;
    auto patience = kPatience;
    while (_IsStreaming() && !held.Await(patience) && std::chrono::steady_clock::now() < until) {
        _EndRead();
        patience = kPause;
    }
}

}  // namespace GSTREAMER
