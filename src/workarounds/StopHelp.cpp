#include "workarounds/StopHelp.h"

#include "Logger.h"

#include <exception>
#include <utility>

namespace GSTREAMER {

void StopHelp::Begin(std::chrono::milliseconds patience, std::function<void()> help) {
    End();
    m_bOver = false;
    try {
        m_thread = std::thread([this, patience, help = std::move(help)] {
            constexpr std::chrono::milliseconds kPause{10};
            std::unique_lock<std::mutex> lock(m_mtx);
            for (auto pause = patience; !m_cond.wait_for(lock, pause, [this] { return m_bOver; }); pause = kPause) {
                lock.unlock();
                help();
                lock.lock();
            }
        });
    } catch (const std::exception &error) {
        LOG_WARN("[GSTREAMER] Unable to watch a stop, it takes as long as its peer wants. " << error.what());
    }
}

void StopHelp::End() {
    {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_bOver = true;
    }
    m_cond.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

}  // namespace GSTREAMER
