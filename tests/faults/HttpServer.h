// An HTTP server on the loopback interface whose answers the test makes.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <string>
#include <thread>

namespace unit {

class HttpServer {
  public:
    // Gives the body of the answer to a request for that path. Called on a thread of the connection.
    using Answer = std::function<std::string(const std::string &path)>;

    explicit HttpServer(Answer answer);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    std::string Url(const std::string &path) const;
    // Requests that have come.
    int Asked() const { return m_asked; }

  private:
    void Accept();
    void Serve(int connection);

    const Answer m_answer;
    const int m_listener;
    std::atomic<int> m_asked{0};
    std::list<int> m_connections;      // thread that accepts; the destructor behind it
    std::list<std::thread> m_serving;  // as m_connections
    std::thread m_accepting;
};

}  // namespace unit
