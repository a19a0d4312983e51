// A run without streams, for the HTTP side.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "service.h"
#include "shb.h"

// Sources in the states that an operator meets.
tool::RunSample FakeFleet();
// `count` sources that play.
tool::RunSample LargeFleet(size_t count);

class FakeService : public tool::Service {
  public:
    explicit FakeService(tool::RunSample run) { Set(std::move(run)); }

    std::shared_ptr<const tool::RunSample> Newest() const override {
        const std::lock_guard lock(m_mutex);
        return m_run;
    }
    std::vector<std::string> Log(const std::string &source) const override {
        const std::lock_guard lock(m_mutex);
        const auto found = m_logs.find(source);
        return found == m_logs.end() ? std::vector<std::string>() : found->second;
    }
    bool Restart(const std::string &source) override {
        const std::lock_guard lock(m_mutex);
        const auto &sources = m_run->sources;
        const bool known = std::any_of(sources.begin(), sources.end(),
                                       [&](const tool::SourceSample &sample) { return sample.name == source; });
        if (known) {
            m_restarts.push_back(source);
        }
        return known;
    }

    void Set(tool::RunSample run) {
        const std::lock_guard lock(m_mutex);
        m_run = std::make_shared<const tool::RunSample>(std::move(run));
    }
    void SetLog(const std::string &source, std::vector<std::string> lines) {
        const std::lock_guard lock(m_mutex);
        m_logs[source] = std::move(lines);
    }
    std::vector<std::string> Restarts() const {
        const std::lock_guard lock(m_mutex);
        return m_restarts;
    }

  private:
    mutable std::mutex m_mutex;
    std::shared_ptr<const tool::RunSample> m_run;
    std::map<std::string, std::vector<std::string>> m_logs;
    std::vector<std::string> m_restarts;
};
