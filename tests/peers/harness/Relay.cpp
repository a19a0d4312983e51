#include "Relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "Ports.h"

namespace peers {
namespace {

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

int TcpSocket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

constexpr int kLookMs = 50;  // how soon a release is noticed

}  // namespace

Relay::Relay(uint16_t target) : target_(target), listener_(ListenOnLoopback(port_)) {
    if (pipe2(wake_, O_CLOEXEC) != 0) {
        throw std::runtime_error("no relay");
    }
    thread_ = std::thread([this] { Run(); });
}

Relay::~Relay() {
    close(wake_[1]);
    thread_.join();
    while (!other_.empty()) {
        Forget(other_.begin()->first);
    }
    close(wake_[0]);
    close(listener_);
}

void Relay::Accept() {
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
        return;
    }
    ++accepted_;
    int server = -1;
    if (!held_) {
        server = TcpSocket();
        const sockaddr_in address = Loopback(target_);
        if (connect(server, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            close(server);
            close(client);
            return;
        }
        other_[server] = client;
    }
    other_[client] = server;
}

void Relay::Forget(int one) {
    const int other = other_[one];
    other_.erase(one);
    close(one);
    if (other >= 0) {
        other_.erase(other);
        close(other);
    }
}

bool Relay::Pass(int from) {
    char data[65536];
    const ssize_t got = recv(from, data, sizeof data, 0);
    if (got <= 0) {
        return false;
    }
    const int to = other_[from];
    for (ssize_t done = 0; to >= 0 && done < got;) {
        const ssize_t sent = send(to, data + done, static_cast<size_t>(got - done), MSG_NOSIGNAL);
        if (sent < 0) {
            return false;
        }
        done += sent;
    }
    return true;
}

void Relay::Run() {
    for (;;) {
        const bool held = held_;
        std::vector<pollfd> waiting{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        std::vector<int> lonely;
        for (const auto &[one, other] : other_) {
            if (other < 0 && !held) {
                lonely.push_back(one);
            } else if (!held || other < 0) {
                waiting.push_back({one, POLLIN, 0});
            }
        }
        for (const int one : lonely) {
            Forget(one);
        }
        poll(waiting.data(), waiting.size(), kLookMs);
        if (waiting[0].revents != 0) {
            return;
        }
        if (waiting[1].revents != 0) {
            Accept();
        }
        for (size_t i = 2; i < waiting.size(); ++i) {
            const int one = waiting[i].fd;
            if (waiting[i].revents != 0 && other_.count(one) != 0 && !Pass(one)) {
                Forget(one);
            }
        }
    }
}

}  // namespace peers
