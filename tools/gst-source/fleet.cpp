#include "fleet.h"

#include <algorithm>
#include <map>
#include <utility>

#include "format.h"
#include "source_fields.h"

namespace tool {

void AddSecretsOf(const SourceConfig &config, Masker &masker) {
    for (const std::string &url : {config.url, config.hls.proxy}) {
        for (const std::string &secret : SecretsOf(url)) {
            masker.Add(secret);
        }
    }
    masker.AddCredentials(config.user, config.password);
    masker.AddCredentials(config.hls.proxy_id, config.hls.proxy_pwd);
    masker.Add(config.srt.passphrase);
    masker.Add(config.rtmp.token);
}

Fleet::Fleet(Masker masker, NewsDesk &news) : m_masker(std::move(masker)), m_news(news) {}

Fleet::~Fleet() = default;

void Fleet::Introduce(const SourceConfig &config) {
    AddSecretsOf(config, m_masker);
    m_news.Add(config.name, m_masker.Mask(config.url));
}

void Fleet::Share(const std::vector<SourceConfig> &sources, const std::string &buffer) {
    const auto shared = std::make_shared<SharedBuffer>(buffer, static_cast<unsigned>(sources.size()), sources.front().memory);
    double stall_watch = 0;
    for (const SourceConfig &source : sources) {
        Introduce(source);
        stall_watch = std::max(stall_watch, StallWatchOf(source));
        const auto channel = static_cast<unsigned>(m_stations.size());
        m_stations.push_back(std::make_unique<Station>(source, channel, shared, sources.size() == 1));
    }
    // One buffer has one time: the longest, so that no source is ended too early.
    shared->SetStallWatch(stall_watch);
}

Fleet::Changes Fleet::Apply(const std::vector<SourceConfig> &wanted) {
    Changes changes;
    std::map<std::string, Station *> present;
    for (const auto &station : m_stations) {
        present[station->Name()] = station.get();
    }
    for (const SourceConfig &config : wanted) {
        const auto found = present.find(config.name);
        if (found == present.end()) {
            ++changes.added;
            Introduce(config);
            // Opened by the next Tick().
            m_stations.push_back(std::make_unique<Station>(config, 0, nullptr, true));
            continue;
        }
        Station &station = *found->second;
        present.erase(found);
        if (station.IsRetired()) {
            // It is still being closed, and comes back.
            ++changes.added;
            Introduce(config);
            station.Reopen(config);
        } else if (SameStream(station.Config(), config) && station.Config().memory == config.memory) {
            ++changes.untouched;
        } else {
            ++changes.changed;
            Introduce(config);
            station.Reopen(config);
        }
    }
    for (const auto &[name, station] : present) {
        changes.removed += station->IsRetired() ? 0U : 1U;
        station->Retire();
    }
    SortLike(wanted);
    return changes;
}

void Fleet::SortLike(const std::vector<SourceConfig> &wanted) {
    std::map<std::string, size_t> places;
    for (const SourceConfig &config : wanted) {
        places.emplace(config.name, places.size());
    }
    const auto place = [&places](const Station &station) {
        const auto found = places.find(station.Name());
        return station.IsRetired() || found == places.end() ? places.size() : found->second;
    };
    std::stable_sort(m_stations.begin(), m_stations.end(),
                     [&place](const auto &left, const auto &right) { return place(*left) < place(*right); });
}

bool Fleet::Restart(const std::string &name) {
    for (const auto &station : m_stations) {
        if (station->Name() == name && !station->IsRetired()) {
            station->Reopen(SourceConfig(station->Config()));
            return true;
        }
    }
    return false;
}

void Fleet::Tick() {
    // A thousand sources take seconds to open, in which the run would answer nobody.
    constexpr std::chrono::milliseconds kOpening{300};
    const auto open_until = Clock::now() + kOpening;
    const uint64_t edition = m_news.Edition();
    const bool news = std::exchange(m_edition, edition) != edition;
    for (auto station = m_stations.begin(); station != m_stations.end();) {
        if (news) {
            (*station)->Take(m_news.Of((*station)->Name()));
        }
        if ((*station)->Tick(Clock::now() < open_until)) {
            ++station;
        } else {
            m_news.Remove((*station)->Name());
            station = m_stations.erase(station);
        }
    }
}

bool Fleet::AllTried() const {
    return std::all_of(m_stations.begin(), m_stations.end(),
                       [](const auto &station) { return station->IsRetired() || station->WasTried(); });
}

bool Fleet::AnyHope() const {
    return std::any_of(m_stations.begin(), m_stations.end(), [](const auto &station) { return !station->IsBlocked(); });
}

std::vector<std::string> Fleet::Close(Clock::time_point deadline) {
    for (const auto &station : m_stations) {
        station->BeginClose();
    }
    std::vector<std::string> hanging;
    for (const auto &station : m_stations) {
        if (!station->AwaitClose(deadline)) {
            const SourceSample &sample = station->Latest();
            hanging.push_back(HasOwnBuffer(sample) ? sample.name : sample.url);
        }
    }
    return hanging;
}

}  // namespace tool
