// Answers that many paths give.
#pragma once

#include <string>

#include "http/message.h"
#include "record.h"

namespace tool {

HttpAnswer JsonAnswer(const Record &record, int status = 200);
HttpAnswer TextAnswer(const std::string &text, int status = 200);
// {"error": "..."}
HttpAnswer ErrorAnswer(int status, const std::string &message);
// Whether the client takes gzip.
bool TakesGzip(const HttpRequest &request);
std::string Gzip(const std::string &text);
// An answer that has not changed since the client got it becomes 304.
HttpAnswer WithTag(const HttpRequest &request, HttpAnswer answer, const std::string &tag);

}  // namespace tool
