#include "http/http_side.h"

#include <stdexcept>
#include <utility>

namespace tool {
namespace {

ListenAddress CheckedAddress(const HttpOptions &options) {
    ListenAddress address(options.address);
    if (!address.IsLoopback() && options.token.empty()) {
        throw std::runtime_error("other machines reach " + options.address + ", so a token is needed");
    }
    return address;
}

}  // namespace

HttpSide::HttpSide(const HttpOptions &options, Service &service)
    : m_address(CheckedAddress(options)),
      m_listener(m_address.Listen()),
      m_pictures(options.reader, service),
      m_router(options.token, m_address, service, m_history, m_samples, m_pictures),
      m_connections(std::move(m_listener), [this](const HttpRequest &request) { return m_router.Answer(request); }) {}

void HttpSide::OnSample(const std::shared_ptr<const RunSample> &run, std::chrono::steady_clock::time_point now) {
    m_history.Add(*run, now);
    m_samples.Came(now);
}

}  // namespace tool
