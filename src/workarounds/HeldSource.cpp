#include "workarounds/HeldSource.h"

#include "framework/Ownership.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace GSTREAMER {

namespace {

// Shared by the waiting thread and the probe, which lives as long as the pad.
struct Hold {
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bHeld = false;
};

GstPadProbeReturn hold_probe(GstPad * /*pad*/, GstPadProbeInfo * /*info*/, gpointer user_data) {
    Hold &hold = **static_cast<std::shared_ptr<Hold> *>(user_data);
    const std::lock_guard<std::mutex> lock(hold.m_mtx);
    hold.m_bHeld = true;
    hold.m_cond.notify_all();
    return GST_PAD_PROBE_OK;
}

void release_hold(gpointer user_data) {
    delete static_cast<std::shared_ptr<Hold> *>(user_data);
}

}  // namespace

bool HoldAtSourcePad(GstElement *source, int bound_ms) {
    const PadPtr pad(source != nullptr ? gst_element_get_static_pad(source, "src") : nullptr);
    if (!pad || gst_pad_get_task_state(pad.get()) != GST_TASK_STARTED) {
        return false;
    }
    const auto hold = std::make_shared<Hold>();
    auto *const probes = new std::shared_ptr<Hold>(hold);
    if (gst_pad_add_probe(pad.get(), static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER),
                          hold_probe, probes, release_hold) == 0) {
        release_hold(probes);
        return false;
    }
    std::unique_lock<std::mutex> lock(hold->m_mtx);
    return hold->m_cond.wait_for(lock, std::chrono::milliseconds(bound_ms), [&] { return hold->m_bHeld; });
}

}  // namespace GSTREAMER
