#include "http/guard.h"

#include <strings.h>

namespace tool {

bool SameSecret(const std::string &token, const std::string &said) {
    bool different = token.size() != said.size();
    for (size_t i = 0; i < said.size() && !token.empty(); ++i) {
        different |= said[i] != token[i % token.size()];
    }
    return !different && !token.empty();
}

bool HasToken(const HttpRequest &request, const std::string &token) {
    const std::string scheme = "Bearer ";
    const std::string said = request.Header("authorization");
    return said.size() > scheme.size() && strncasecmp(said.c_str(), scheme.c_str(), scheme.size()) == 0 &&
           SameSecret(token, said.substr(scheme.size()));
}

std::string CrossSiteReason(const HttpRequest &request) {
    const std::string site = request.Header("sec-fetch-site");
    const std::string origin = request.Header("origin");
    const std::string host = request.Header("host");
    if (!site.empty() && site != "same-origin") {
        return "the request comes from a page of another site";
    }
    if (!origin.empty() && strcasecmp(origin.c_str(), ("http://" + host).c_str()) != 0 &&
        strcasecmp(origin.c_str(), ("https://" + host).c_str()) != 0) {
        return "the request comes from a page of another site";
    }
    const std::string type = request.Header("content-type");
    if (request.Header("x-requested-with").empty() &&
        strcasecmp(type.substr(0, type.find(';')).c_str(), "application/json") != 0) {
        return "give the header \"X-Requested-With\" (any value) or \"Content-Type: application/json\"";
    }
    return "";
}

}  // namespace tool
