// The HTTP side of a run: metrics, health, API and page. docs/http.md is the guide.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "http/address.h"
#include "http/connections.h"
#include "http/history.h"
#include "http/pictures.h"
#include "http/router.h"
#include "service.h"

namespace tool {

struct HttpOptions {
    std::string address = "127.0.0.1:9090";  // or "[::1]:9090"; port 0: the kernel chooses
    std::string token;                       // empty: none is asked for, which loopback alone may do
    std::string reader = "gst-source-read";  // the program that makes pictures; empty: no pictures
};

class HttpSide {
  public:
    // Listens from here on. Throws std::runtime_error with one line for people when that does not go. `service` is
    // called by threads of this object until it is gone.
    HttpSide(const HttpOptions &options, Service &service);
    // Closes all connections, kills a picture's process and joins all threads; milliseconds.
    ~HttpSide() = default;
    HttpSide(const HttpSide &) = delete;
    HttpSide &operator=(const HttpSide &) = delete;

    // Where it listens, "127.0.0.1:9090".
    std::string Address() const { return m_address.Text(); }
    uint16_t Port() const { return m_address.Port(); }

    // To be called for every sample, once a second, with the time at which it was taken. Any thread.
    void OnSample(const std::shared_ptr<const RunSample> &run,
                  std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

  private:
    // In this order: each needs those before it until it is gone.
    ListenAddress m_address;
    History m_history;
    SampleClock m_samples;
    Fd m_listener;
    Pictures m_pictures;
    Router m_router;
    Connections m_connections;
};

}  // namespace tool
