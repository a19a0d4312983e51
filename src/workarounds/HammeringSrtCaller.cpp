#include "workarounds/HammeringSrtCaller.h"

#include <algorithm>
#include <chrono>

namespace GSTREAMER {

namespace {

constexpr gint64 kFirstWaitMs = 100;
constexpr gint64 kLongestWaitMs = 1000;
// A retry that took longer than this was no refusal: a peer that does not answer takes 3 s.
constexpr gint64 kRefusalUs = G_USEC_PER_SEC;

}  // namespace

void HammeringSrtCaller::Attach(GstElement *pipeline) {
    m_warnings.Attach(pipeline);
}

void HammeringSrtCaller::_WaitBeforeRetry() {
    const bool refused = m_nLastRetry != 0 && g_get_monotonic_time() - m_nLastRetry < kRefusalUs;
    m_nWaitMs = refused ? std::min(std::max(2 * m_nWaitMs, kFirstWaitMs), kLongestWaitMs) : 0;
    std::unique_lock<std::mutex> lock(m_mtx);
    m_cond.wait_for(lock, std::chrono::milliseconds(m_nWaitMs), [this] { return m_bStopping; });
    lock.unlock();
    m_nLastRetry = g_get_monotonic_time();
}

void HammeringSrtCaller::BeforeStop() {
    {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_bStopping = true;
    }
    m_cond.notify_all();
}

}  // namespace GSTREAMER
