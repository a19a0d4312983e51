// A request and its answer, apart from the connection that carries them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tool {

struct HttpRequest {
    std::string method;
    std::string target;                          // as sent, with its percent-encoding
    std::map<std::string, std::string> headers;  // names in lower case; the first one of several

    // Empty when there is none.
    std::string Header(const std::string &name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? "" : found->second;
    }
};

struct HttpAnswer {
    int status = 200;
    std::string type = "application/json";
    // Shared, because many clients get the same one.
    std::shared_ptr<const std::string> body = std::make_shared<std::string>();
    std::vector<std::pair<std::string, std::string>> headers;
};

}  // namespace tool
