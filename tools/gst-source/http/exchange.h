// Bytes of a request into bytes of its answer, by the HTTP library; sockets are somebody else's.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "http/head.h"
#include "http/message.h"

namespace tool {

class Exchange {
  public:
    using Answerer = std::function<HttpAnswer(const HttpRequest &)>;
    explicit Exchange(Answerer answerer);
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    struct Result {
        std::string bytes;
        bool close = true;  // the connection ends with this answer
    };
    // The answer to a head that CheckHead() has looked at, whose body has been left out. `last`: it closes the
    // connection. One thread at a time.
    Result Answer(const Head &head, bool last);

    static constexpr size_t kMostRequests = 1000;  // of one connection
    static constexpr int kIdleS = 60;              // between two of them

  private:
    class Library;
    const std::unique_ptr<Library> m_library;
};

}  // namespace tool
