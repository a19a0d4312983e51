// Ends a test program that hangs, and shows where: what waits for what is in the stacks of all threads.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace unit {

class Watchdog {
  public:
    // `what` is printed when the scope lasts longer than `seconds`; the process is aborted
    // then. The bound is far above any expected time.
    explicit Watchdog(std::string what, int seconds = 60);
    ~Watchdog();
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

  private:
    void Watch();

    const std::string m_what;
    const int m_seconds;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_done = false;
    std::thread m_thread;
};

}  // namespace unit
