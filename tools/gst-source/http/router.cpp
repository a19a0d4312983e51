#include "http/router.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "http/answers.h"
#include "http/api.h"
#include "http/guard.h"
#include "http/metrics.h"
#include "http/page.h"
#include "http/target.h"

namespace tool {
namespace {

// A sample is taken once a second.
constexpr double kFreshS = 5;

const SourceSample *Find(const RunSample &run, const std::string &name) {
    const auto found = std::find_if(run.sources.begin(), run.sources.end(),
                                    [&name](const SourceSample &source) { return source.name == name; });
    return found == run.sources.end() ? nullptr : &*found;
}

HttpAnswer NoSource(const std::string &name) {
    return ErrorAnswer(404, "there is no source \"" + name + "\"");
}

HttpAnswer NoPath() {
    return ErrorAnswer(404, "nothing is here; known are /, /metrics, /healthz, /readyz and /api/sources");
}

// What a program may ask for without the token: whether the service lives, and what the page is made of.
bool IsOpen(const std::vector<std::string> &path) {
    return path.empty() ||
           (path.size() == 1 && (path[0] == "healthz" || path[0] == "readyz" || PageFileNamed(path[0]) != nullptr));
}

const char *MethodsOf(const std::vector<std::string> &path) {
    const bool restart = path.size() == 4 && path[0] == "api" && path[1] == "sources" && path[3] == "restart";
    return restart ? "POST" : "GET, HEAD";
}

bool Allows(const std::string &methods, const std::string &method) {
    return !method.empty() && (", " + methods + ",").find(", " + method + ",") != std::string::npos;
}

}  // namespace

void SampleClock::Came(Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    m_last = now;
}

std::optional<double> SampleClock::AgeS(Clock::time_point now) const {
    const std::lock_guard lock(m_mutex);
    return m_last ? std::optional<double>(std::chrono::duration<double>(now - *m_last).count()) : std::nullopt;
}

Router::Router(std::string token, const ListenAddress &address, Service &service, const History &history,
               const SampleClock &samples, Pictures &pictures)
    : m_token(std::move(token)),
      m_address(address),
      m_service(service),
      m_history(history),
      m_samples(samples),
      m_pictures(pictures) {}

HttpAnswer Router::Answer(const HttpRequest &request) {
    HttpAnswer answer = Routed(request);
    const auto has = [&answer](const char *name) {
        return std::any_of(answer.headers.begin(), answer.headers.end(),
                           [name](const auto &header) { return header.first == name; });
    };
    if (!has("Cache-Control")) {
        answer.headers.emplace_back("Cache-Control", "no-store");
    }
    answer.headers.emplace_back("Content-Security-Policy",
                                "default-src 'self'; img-src 'self' blob:; object-src 'none'; base-uri 'none'; "
                                "form-action 'none'; frame-ancestors 'none'");
    answer.headers.emplace_back("X-Content-Type-Options", "nosniff");
    answer.headers.emplace_back("Referrer-Policy", "no-referrer");
    answer.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
    return answer;
}

HttpAnswer Router::Routed(const HttpRequest &request) {
    if (request.headers.count("host") > 0 && !m_address.IsHost(request.Header("host"))) {
        return ErrorAnswer(403, "the Host header is not an address of this service; ask for http://" + m_address.Text() + "/");
    }
    const auto path = SplitTarget(request.target);
    if (!path) {
        return ErrorAnswer(400, "the path is malformed");
    }
    if (!m_token.empty() && !IsOpen(*path) && !HasToken(request, m_token)) {
        HttpAnswer answer = ErrorAnswer(401, "give the token: \"Authorization: Bearer TOKEN\"");
        answer.headers.emplace_back("WWW-Authenticate", "Bearer");
        return answer;
    }
    const char *methods = MethodsOf(*path);
    if (!Allows(methods, request.method)) {
        HttpAnswer answer = ErrorAnswer(405, std::string("this path takes ") + methods);
        answer.headers.emplace_back("Allow", methods);
        return answer;
    }
    if (path->size() <= 1) {
        const std::string name = path->empty() ? "" : path->front();
        if (name == "healthz") {
            return Health();
        }
        if (name == "readyz") {
            return Ready();
        }
        return name == "metrics" ? Metrics(request) : File(request, name);
    }
    if (path->front() != "api") {
        return NoPath();
    }
    if (path->size() == 2) {
        return (*path)[1] == "run" ? Run() : ((*path)[1] == "sources" ? Sources(request) : NoPath());
    }
    return (*path)[1] == "sources" && path->size() <= 4 ? OfSource(request, *path) : NoPath();
}

double Router::AgeS() const {
    return m_samples.AgeS(Clock::now()).value_or(0);
}

HttpAnswer Router::Health() const {
    const auto age = m_samples.AgeS(Clock::now());
    if (!age) {
        return TextAnswer("no sample of the sources has been taken yet", 503);
    }
    if (*age > kFreshS) {
        return TextAnswer("no sample of the sources for " + std::to_string(std::lround(*age)) + " s", 503);
    }
    return m_service.Newest()->phase == Phase::kRunning ? TextAnswer("ok") : TextAnswer("the run is ending", 503);
}

// A camera that does not play says nothing about this service: it would be restarted for nothing.
HttpAnswer Router::Ready() const {
    const auto age = m_samples.AgeS(Clock::now());
    const auto run = m_service.Newest();
    const FlowCounts counts = CountFlows(*run);
    const bool ready = age && *age <= kFreshS && run->phase == Phase::kRunning && counts.not_opened == 0;
    Record record;
    record["ready"] = ready;
    record["sources"] = run->sources.size();
    record.update(FlowCountsRecord(counts));
    return JsonAnswer(record, ready ? 200 : 503);
}

HttpAnswer Router::FromCache(Cached &cached, const HttpRequest &request, const char *type,
                             const std::function<std::string(const RunSample &)> &make) {
    const auto run = m_service.Newest();
    const auto second = static_cast<int64_t>(AgeS());
    const auto now = Clock::now();
    // An old sample only gets older. On a machine that takes long to make its text, many clients must not have it made anew
    // for each of them.
    constexpr int kShare = 10;
    const bool older = cached.second != second && now - cached.made >= kShare * cached.cost;
    if (cached.run != run || older || !cached.plain) {
        auto text = std::make_shared<const std::string>(make(*run));
        const auto made = Clock::now();
        cached = {run, second, made, made - now, std::move(text), nullptr};
    }
    HttpAnswer answer;
    answer.type = type;
    answer.headers.emplace_back("Vary", "Accept-Encoding");
    answer.body = cached.plain;
    if (TakesGzip(request)) {
        if (!cached.gzip) {
            cached.gzip = std::make_shared<const std::string>(Gzip(*cached.plain));
        }
        answer.body = cached.gzip;
        answer.headers.emplace_back("Content-Encoding", "gzip");
    }
    return answer;
}

HttpAnswer Router::Metrics(const HttpRequest &request) {
    return FromCache(m_metrics, request, "text/plain; version=0.0.4; charset=utf-8",
                     [this](const RunSample &run) { return MetricsText(run, AgeS()); });
}

HttpAnswer Router::Run() const {
    Record record = RunRecord(*m_service.Newest(), TimeNow());
    record["sample_age_s"] = Rounded(AgeS());
    return JsonAnswer(record);
}

HttpAnswer Router::Sources(const HttpRequest &request) {
    return FromCache(m_sources, request, "application/json",
                     [](const RunSample &run) { return JsonLine(SourcesRecord(run, TimeNow())); });
}

HttpAnswer Router::OfSource(const HttpRequest &request, const Segments &path) {
    const auto run = m_service.Newest();
    const std::string &name = path[2];
    const std::string what = path.size() == 4 ? path[3] : "";
    const SourceSample *source = Find(*run, name);
    if (source == nullptr) {
        return NoSource(name);
    }
    if (path.size() == 3) {
        return JsonAnswer(SourceRecord(*run, *source, TimeNow()));
    }
    if (what == "history") {
        return JsonAnswer(HistoryRecord(m_history.Of(name).value_or(std::vector<HistoryPoint>())));
    }
    if (what == "log") {
        return JsonAnswer(Record(m_service.Log(name)));
    }
    if (what == "picture") {
        return Picture(request, name);
    }
    return what == "restart" ? Restart(request, name) : NoPath();
}

HttpAnswer Router::Picture(const HttpRequest &request, const std::string &source) {
    const tool::Picture picture = m_pictures.Ask(source);
    // Browsers report every 404 as an error of the page.
    if (!picture.jpeg && request.target.find("?else=json") != std::string::npos) {
        return JsonAnswer(Record{{"picture", nullptr}, {"reason", TextOrNull(picture.reason)}});
    }
    if (!picture.jpeg) {
        return ErrorAnswer(404, picture.reason.empty() ? "the first picture is being made; ask again" : picture.reason);
    }
    HttpAnswer answer;
    answer.type = "image/jpeg";
    answer.body = picture.jpeg;
    const double age = std::chrono::duration<double>(Clock::now() - picture.made).count();
    answer.headers.emplace_back("Age", std::to_string(std::lround(age)));
    answer.headers.emplace_back("Cache-Control", "private, no-cache");
    return WithTag(request, std::move(answer), "picture-" + std::to_string(picture.number));
}

HttpAnswer Router::Restart(const HttpRequest &request, const std::string &source) {
    const std::string reason = CrossSiteReason(request);
    if (!reason.empty()) {
        return ErrorAnswer(403, reason);
    }
    return m_service.Restart(source) ? JsonAnswer(Record{{"restarting", source}}, 202) : NoSource(source);
}

HttpAnswer Router::File(const HttpRequest &request, const std::string &name) const {
    const PageFile *file = PageFileNamed(name);
    if (file == nullptr) {
        return NoPath();
    }
    HttpAnswer answer;
    answer.type = file->type;
    answer.body = TakesGzip(request) ? file->gzip : file->plain;
    answer.headers.emplace_back("Vary", "Accept-Encoding");
    if (TakesGzip(request)) {
        answer.headers.emplace_back("Content-Encoding", "gzip");
    }
    answer.headers.emplace_back("Cache-Control", "no-cache");
    return WithTag(request, std::move(answer), file->tag);
}

}  // namespace tool
