// Bytes to and from a server on this machine.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fd.h"

class HttpClient {
  public:
    explicit HttpClient(uint16_t port, int receive_buffer = 0) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receive_buffer > 0) {
            setsockopt(m_fd.Get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            m_fd.Close();
        }
    }
    bool Connected() const { return static_cast<bool>(m_fd); }

    // False when the server has closed the connection.
    bool Send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = send(m_fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }
    void EndSending() const { shutdown(m_fd.Get(), SHUT_WR); }

    // Until the server closes, or until nothing has come for `patience`.
    std::string ReadToEnd(std::chrono::milliseconds patience = std::chrono::seconds(60)) {
        std::string all;
        while (More(all, patience)) {
        }
        return all;
    }
    // One answer with a Content-Length; of HEAD without its body.
    std::string ReadAnswer(bool body = true) {
        constexpr std::chrono::seconds kPatience{60};
        size_t end = std::string::npos;
        while ((end = m_rest.find("\r\n\r\n")) == std::string::npos) {
            if (!More(m_rest, kPatience)) {
                return "";
            }
        }
        const size_t length = m_rest.find("Content-Length: ");
        size_t whole = end + 4;
        if (body && length < end) {
            whole += std::strtoul(m_rest.c_str() + length + 16, nullptr, 10);
        }
        while (m_rest.size() < whole && More(m_rest, kPatience)) {
        }
        std::string answer = m_rest.substr(0, whole);
        m_rest.erase(0, whole);
        return answer;
    }

  private:
    bool More(std::string &to, std::chrono::milliseconds patience) const {
        pollfd ready{m_fd.Get(), POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(patience.count())) <= 0) {
            return false;
        }
        std::array<char, 65536> part{};
        const ssize_t got = recv(m_fd.Get(), part.data(), part.size(), 0);
        if (got > 0) {
            to.append(part.data(), static_cast<size_t>(got));
        }
        return got > 0;
    }

    tool::Fd m_fd;
    std::string m_rest;
};

// The whole answer to one request on a connection of its own. `headers`: lines that end in CR LF.
inline std::string Fetch(uint16_t port, const std::string &target, const std::string &method = "GET",
                         const std::string &headers = "") {
    HttpClient client(port);
    client.Send(method + " " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + headers + "\r\n");
    return client.ReadToEnd();
}

inline int StatusOf(const std::string &answer) {
    return answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0;
}

inline std::string BodyOf(const std::string &answer) {
    const size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "" : answer.substr(end + 4);
}
