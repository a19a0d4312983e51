#include "HttpServer.h"

#include "../unit/support/Loopback.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace unit {

HttpServer::HttpServer(Answer answer) : m_answer(std::move(answer)), m_listener(BoundSocket(SOCK_STREAM)) {
    EXPECT_EQ(0, listen(m_listener, SOMAXCONN));
    m_accepting = std::thread([this] { Accept(); });
}

HttpServer::~HttpServer() {
    shutdown(m_listener, SHUT_RDWR);
    m_accepting.join();
    close(m_listener);
    for (const int connection : m_connections) {
        shutdown(connection, SHUT_RDWR);
    }
    for (std::thread &one : m_serving) {
        one.join();
    }
    for (const int connection : m_connections) {
        close(connection);
    }
}

std::string HttpServer::Url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(PortOf(m_listener)) + path;
}

void HttpServer::Accept() {
    for (;;) {
        const int connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            return;
        }
        const int now = 1;
        setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &now, sizeof now);
        m_connections.push_back(connection);
        m_serving.emplace_back([this, connection] { Serve(connection); });
    }
}

void HttpServer::Serve(int connection) {
    const std::string end_of_head = "\r\n\r\n";
    std::string received;
    for (;;) {
        const std::size_t end = received.find(end_of_head);
        if (end == std::string::npos) {
            std::array<char, 4096> block{};
            const ssize_t got = recv(connection, block.data(), block.size(), 0);
            if (got <= 0) {
                return;
            }
            received.append(block.data(), static_cast<std::size_t>(got));
            continue;
        }
        const std::size_t path = received.find(' ') + 1;
        ++m_asked;
        const std::string body = m_answer(received.substr(path, received.find(' ', path) - path));
        received.erase(0, end + end_of_head.size());
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + end_of_head + body;
        if (send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) {
            return;
        }
    }
}

}  // namespace unit
