#include "http/answers.h"

#include <zlib.h>

#include <stdexcept>

namespace tool {

HttpAnswer JsonAnswer(const Record &record, int status) {
    HttpAnswer answer;
    answer.status = status;
    answer.body = std::make_shared<const std::string>(JsonLine(record));
    return answer;
}

HttpAnswer TextAnswer(const std::string &text, int status) {
    HttpAnswer answer;
    answer.status = status;
    answer.type = "text/plain; charset=utf-8";
    answer.body = std::make_shared<const std::string>(text + "\n");
    return answer;
}

HttpAnswer ErrorAnswer(int status, const std::string &message) {
    return JsonAnswer(Record{{"error", message}}, status);
}

bool TakesGzip(const HttpRequest &request) {
    const std::string encodings = request.Header("accept-encoding");
    const size_t gzip = encodings.find("gzip");
    return gzip != std::string::npos && encodings.compare(gzip + 4, 4, ";q=0") != 0;
}

std::string Gzip(const std::string &text) {
    z_stream stream{};
    // 16 above the window's bits is zlib's sign for the format of gzip.
    constexpr int kGzip = 15 + 16;
    constexpr int kMemory = 8;
    // The fastest level: an answer is made anew every second, and numbers shrink well with it.
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kGzip, kMemory, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("no memory for compression");
    }
    std::string small(deflateBound(&stream, text.size()), '\0');
    std::string source = text;
    stream.next_in = reinterpret_cast<Bytef *>(source.data());
    stream.avail_in = static_cast<uInt>(source.size());
    stream.next_out = reinterpret_cast<Bytef *>(small.data());
    stream.avail_out = static_cast<uInt>(small.size());
    const int result = deflate(&stream, Z_FINISH);
    small.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("compression failed");
    }
    return small;
}

HttpAnswer WithTag(const HttpRequest &request, HttpAnswer answer, const std::string &tag) {
    answer.headers.emplace_back("ETag", "\"" + tag + "\"");
    if (request.Header("if-none-match").find("\"" + tag + "\"") != std::string::npos) {
        answer.status = 304;
        answer.body = std::make_shared<const std::string>();
    }
    return answer;
}

}  // namespace tool
