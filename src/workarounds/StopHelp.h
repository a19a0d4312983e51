// For a stop that may not end by itself: once a patience is over, the help is
// called again and again until the stop has ended.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace GSTREAMER {

class StopHelp {
  public:
    StopHelp() = default;
    ~StopHelp() { End(); }
    StopHelp(const StopHelp &) = delete;
    StopHelp &operator=(const StopHelp &) = delete;

    // `help` is called on a thread of its own, every 10 ms once `patience` is over. Without that thread the
    // stop takes as long as its peer wants, which a WARN line says.
    void Begin(std::chrono::milliseconds patience, std::function<void()> help);
    // `help` is not called any more once this is back. Nothing without a Begin.
    void End();

  private:
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bOver = false;  // guarded by m_mtx
    std::thread m_thread;
};

}  // namespace GSTREAMER
