#include "http/exchange.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <exception>
#include <utility>

#include "http/answers.h"

namespace tool {
namespace {

// What the library reads from and writes to instead of a socket.
class Memory : public httplib::Stream {
  public:
    explicit Memory(const std::string &in) : m_in(in) {}

    bool is_readable() const override { return m_read < m_in.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *to, size_t size) override {
        const size_t part = std::min(size, m_in.size() - m_read);
        std::memcpy(to, m_in.data() + m_read, part);
        m_read += part;
        return static_cast<ssize_t>(part);
    }
    ssize_t write(const char *from, size_t size) override {
        m_out.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string & /*ip*/, int & /*port*/) const override {}
    void get_local_ip_and_port(std::string & /*ip*/, int & /*port*/) const override {}
    socket_t socket() const override { return INVALID_SOCKET; }

    std::string Take() { return std::move(m_out); }

  private:
    const std::string &m_in;
    size_t m_read = 0;
    std::string m_out;
};

HttpRequest RequestOf(const httplib::Request &request) {
    HttpRequest mine{request.method, request.target, {}};
    for (const auto &[name, value] : request.headers) {
        std::string lower = name;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
        mine.headers.emplace(lower, value);
    }
    return mine;
}

void Give(const HttpAnswer &answer, httplib::Response &response) {
    response.status = answer.status;
    for (const auto &[name, value] : answer.headers) {
        response.set_header(name, value);
    }
    if (!answer.body->empty()) {
        response.set_content(answer.body->data(), answer.body->size(), answer.type);
    }
}

}  // namespace

class Exchange::Library : private httplib::Server {
  public:
    explicit Library(Answerer answerer) : m_answerer(std::move(answerer)) {
        set_keep_alive_max_count(kMostRequests);
        set_keep_alive_timeout(kIdleS);
        set_pre_routing_handler([this](const httplib::Request &, httplib::Response &response) {
            Give(AnswerSafely(), response);
            return HandlerResponse::Handled;
        });
        // What the library refuses itself.
        set_error_handler(Handler([](const httplib::Request &, httplib::Response &response) {
            if (response.body.empty()) {
                Give(ErrorAnswer(response.status, "the request is malformed"), response);
            }
        }));
    }

    Result Answer(const Head &head, bool last) {
        Result result;
        if (head.status != 0) {
            result.bytes = Refusal(head);
            return result;
        }
        Memory stream(head.text);
        bool closed = false;
        const bool good = Process(&Library::process_request, stream, last, closed);
        result.bytes = stream.Take();
        result.close = !good || closed || last;
        return result;
    }

  private:
    using Setup = std::function<void(httplib::Request &)>;
    // Debian 12's library takes the addresses from the stream, Debian 13's as arguments.
    using Process12 = bool (httplib::Server::*)(httplib::Stream &, bool, bool &, const Setup &);
    using Process13 = bool (httplib::Server::*)(httplib::Stream &, const std::string &, int, const std::string &, int, bool,
                                                bool &, const Setup &);

    bool Process(Process12 process, httplib::Stream &stream, bool last, bool &closed) {
        return (this->*process)(stream, last, closed, [this](httplib::Request &request) { Note(request); });
    }
    bool Process(Process13 process, httplib::Stream &stream, bool last, bool &closed) {
        return (this->*process)(stream, "", 0, "", 0, last, closed, [this](httplib::Request &request) { Note(request); });
    }

    void Note(httplib::Request &request) {
        m_request = RequestOf(request);
        // The library would compress every answer anew, and with brotli at its slowest level.
        request.headers.erase("Accept-Encoding");
    }

    HttpAnswer AnswerSafely() const {
        try {
            return m_answerer(m_request);
        } catch (const std::exception &) {
            return ErrorAnswer(500, "the answer could not be made");
        }
    }

    static std::string Refusal(const Head &head) {
        const std::string body = *ErrorAnswer(head.status, head.message).body;
        return "HTTP/1.1 " + std::to_string(head.status) +
               " Refused\r\nConnection: close\r\nContent-Type: application/json\r\n" +
               "Cache-Control: no-store\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    const Answerer m_answerer;
    HttpRequest m_request;
};

Exchange::Exchange(Answerer answerer) : m_library(std::make_unique<Library>(std::move(answerer))) {}
Exchange::~Exchange() = default;

Exchange::Result Exchange::Answer(const Head &head, bool last) {
    return m_library->Answer(head, last);
}

}  // namespace tool
