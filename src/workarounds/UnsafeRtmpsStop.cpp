#include "workarounds/UnsafeRtmpsStop.h"

#include "framework/Ownership.h"
#include "workarounds/HeldSource.h"
#include "workarounds/SocketWait.h"

#include <unistd.h>

#include <chrono>

namespace GSTREAMER {

namespace {

// A live stream brings the next buffer well before.
constexpr int kHoldMs = 300;
// The end of its socket ends a read at once, unless the thread does something else just then.
constexpr std::chrono::seconds kBound{2};
constexpr std::chrono::milliseconds kPause{10};

}  // namespace

UnsafeRtmpsStop::UnsafeRtmpsStop(GstElement *source)
    : m_pSource(source),
      m_streamStatus(OnStreamingThread(
          source, [this] { _SetThread(gettid()); }, [this] { _SetThread(0); })) {}

void UnsafeRtmpsStop::_SetThread(pid_t thread) {
    const std::lock_guard<std::mutex> lock(m_mtx);
    m_nThread = thread;
    m_cond.notify_all();
}

bool UnsafeRtmpsStop::_IsStreaming() const {
    const PadPtr pad(gst_element_get_static_pad(m_pSource, "src"));
    return pad && gst_pad_get_task_state(pad.get()) == GST_TASK_STARTED;
}

void UnsafeRtmpsStop::BeforeStop() {
    if (HoldAtSourcePad(m_pSource, kHoldMs)) {
        return;
    }
    const auto until = std::chrono::steady_clock::now() + kBound;
    while (_IsStreaming() && std::chrono::steady_clock::now() < until) {
        std::unique_lock<std::mutex> lock(m_mtx);
        if (m_nThread == 0) {
            return;
        }
        // Under the lock: as long as it is held, the thread cannot end and become anybody else's.
        EndSocketWait(m_nThread);
        m_cond.wait_for(lock, kPause);
    }
}

}  // namespace GSTREAMER
