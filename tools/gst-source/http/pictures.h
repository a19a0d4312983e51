// The newest picture of every source that somebody looks at, made by gst-source-read in a process of its own: a decoder that
// crashes must not take the run with it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "fd.h"
#include "http/picture_schedule.h"
#include "service.h"

namespace tool {

struct Picture {
    std::shared_ptr<const std::string> jpeg;  // none yet: null
    std::chrono::steady_clock::time_point made;
    uint64_t number = 0;  // another one for every picture of the run
    std::string reason;   // why the last attempt gave none
};

class Pictures {
  public:
    // `program`: gst-source-read, or empty: there are no pictures.
    Pictures(std::string program, const Service &service);
    // Kills a child that still runs.
    ~Pictures();
    Pictures(const Pictures &) = delete;
    Pictures &operator=(const Pictures &) = delete;

    // What is at hand; a newer one is made soon. Any thread.
    Picture Ask(const std::string &source);

  private:
    void Work();
    void Make(const std::string &source, std::unique_lock<std::mutex> &lock);
    void Forget();

    const std::string m_program;
    const Service &m_service;
    const Fd m_stop;  // readable once this object goes away
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_ending = false;
    PictureSchedule m_schedule;
    std::map<std::string, Picture> m_pictures;
    uint64_t m_made = 0;
    std::thread m_thread;
};

}  // namespace tool
