// What each path answers. Knows nothing of sockets.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "http/address.h"
#include "http/history.h"
#include "http/message.h"
#include "http/pictures.h"
#include "service.h"

namespace tool {

// When the newest sample came. Any thread.
class SampleClock {
  public:
    using Clock = std::chrono::steady_clock;
    void Came(Clock::time_point now);
    // Nothing before the first one.
    std::optional<double> AgeS(Clock::time_point now) const;

  private:
    mutable std::mutex m_mutex;
    std::optional<Clock::time_point> m_last;
};

class Router {
  public:
    // `token`: empty when none is asked for. All references are needed for as long as this lives.
    Router(std::string token, const ListenAddress &address, Service &service, const History &history,
           const SampleClock &samples, Pictures &pictures);

    // One thread at a time.
    HttpAnswer Answer(const HttpRequest &request);

  private:
    using Clock = std::chrono::steady_clock;
    // A body that stays the same until the next sample, and itself made smaller.
    struct Cached {
        std::shared_ptr<const RunSample> run;
        int64_t second = 0;  // age of the sample then
        Clock::time_point made;
        Clock::duration cost{0};  // of making it
        std::shared_ptr<const std::string> plain;
        std::shared_ptr<const std::string> gzip;
    };
    using Segments = std::vector<std::string>;

    HttpAnswer Routed(const HttpRequest &request);
    HttpAnswer Health() const;
    HttpAnswer Ready() const;
    HttpAnswer Metrics(const HttpRequest &request);
    HttpAnswer Run() const;
    HttpAnswer Sources(const HttpRequest &request);
    HttpAnswer OfSource(const HttpRequest &request, const Segments &path);
    HttpAnswer Picture(const HttpRequest &request, const std::string &source);
    HttpAnswer Restart(const HttpRequest &request, const std::string &source);
    HttpAnswer File(const HttpRequest &request, const std::string &name) const;
    HttpAnswer FromCache(Cached &cached, const HttpRequest &request, const char *type,
                         const std::function<std::string(const RunSample &)> &make);
    double AgeS() const;

    const std::string m_token;
    const ListenAddress &m_address;
    Service &m_service;
    const History &m_history;
    const SampleClock &m_samples;
    Pictures &m_pictures;
    Cached m_metrics;
    Cached m_sources;
};

}  // namespace tool
