#include "workarounds/HeldSource.h"

#include "framework/Ownership.h"

#include <condition_variable>
#include <mutex>

namespace GSTREAMER {

struct HeldSource::Hold {
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bHeld = false;  // guarded by m_mtx

    static GstPadProbeReturn hold_probe(GstPad * /*pad*/, GstPadProbeInfo * /*info*/, gpointer user_data) {
        Hold &hold = **static_cast<std::shared_ptr<Hold> *>(user_data);
        const std::lock_guard<std::mutex> lock(hold.m_mtx);
        hold.m_bHeld = true;
        hold.m_cond.notify_all();
        return GST_PAD_PROBE_OK;
    }
    static void forget(gpointer user_data) { delete static_cast<std::shared_ptr<Hold> *>(user_data); }
};

HeldSource::HeldSource(GstElement *source) {
    const PadPtr pad(source != nullptr ? gst_element_get_static_pad(source, "src") : nullptr);
    if (!pad || gst_pad_get_task_state(pad.get()) != GST_TASK_STARTED) {
        return;
    }
    m_pHold = std::make_shared<Hold>();
    auto *const probes = new std::shared_ptr<Hold>(m_pHold);
    constexpr auto kFirstBuffer = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER);
    if (gst_pad_add_probe(pad.get(), kFirstBuffer, Hold::hold_probe, probes, Hold::forget) == 0) {
        Hold::forget(probes);
    }
}

bool HeldSource::Await(std::chrono::milliseconds bound) {
    if (!m_pHold) {
        return false;
    }
    std::unique_lock<std::mutex> lock(m_pHold->m_mtx);
    return m_pHold->m_cond.wait_for(lock, bound, [this] { return m_pHold->m_bHeld; });
}

}  // namespace GSTREAMER
