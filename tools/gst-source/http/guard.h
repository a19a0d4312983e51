// Who may ask: the token, the name of this machine, and no page of another site.
#pragma once

#include <string>

#include "http/message.h"

namespace tool {

// Takes the same time wherever two texts of one length differ, so that nobody finds a token letter by letter.
bool SameSecret(const std::string &token, const std::string &said);

// Whether the request carries the token, as "Authorization: Bearer TOKEN".
bool HasToken(const HttpRequest &request, const std::string &token);

// Empty, or why a request that changes something is refused: a browser sends it for a page of another site, or
// could, because nothing in it makes the browser ask first.
std::string CrossSiteReason(const HttpRequest &request);

}  // namespace tool
