#include "control.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "emergency.h"
#include "interrupts.h"

namespace tool {
namespace {

constexpr size_t kLongestAnswer = size_t{128} * 1024;
// A reload opens and closes nothing while it is asked for, but its file may name a thousand sources.
constexpr int kPatienceS = 60;

// Names of files are of any length, those of sockets are not.
std::string SocketName(const std::string &config) {
    constexpr size_t kLetters = 24;
    const std::unique_ptr<gchar, decltype(&g_free)> sum(
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, config.c_str(), static_cast<gssize>(config.size())), g_free);
    return std::string(sum.get()).substr(0, kLetters);
}

sockaddr_un AddressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error(path + ": too long for a socket");
    }
    path.copy(static_cast<char *>(address.sun_path), path.size());
    return address;
}

Fd Connect(const std::string &path) {
    Fd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = AddressOf(path);
    const timeval patience{kPatienceS, 0};
    // A run that takes no more connections would hold up the connect as well.
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (!socket || connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return {};
    }
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return socket;
}

// A directory that nobody but this user can write to.
bool IsOwn(const std::string &directory) {
    struct stat info {};
    return lstat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid() &&
           (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

const char *FromEnvironment(const char *name) {
    return std::getenv(name);
}

std::string MakeDirectory() {
    for (const std::string &directory : ControlDirectories(FromEnvironment)) {
        if (mkdir(directory.c_str(), S_IRWXU) == 0 || (errno == EEXIST && IsOwn(directory))) {
            return directory;
        }
    }
    throw std::runtime_error(
        "there is no directory for the control socket: neither RUNTIME_DIRECTORY nor XDG_RUNTIME_DIR nor /tmp");
}

Fd Listen(const std::string &path) {
    const sockaddr_un address = AddressOf(path);
    // Two runs that begin at once would take each other's socket for one that a killed run has left.
    const Fd directory(open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory) {
        flock(directory.Get(), LOCK_EX);
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        Fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (listener && bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
            chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0 && listen(listener.Get(), 4) == 0) {
            return listener;
        }
        if (!listener || errno != EADDRINUSE) {
            break;
        }
        if (const Fd other = Connect(path)) {
            ucred who{};
            socklen_t size = sizeof who;
            getsockopt(other.Get(), SOL_SOCKET, SO_PEERCRED, &who, &size);
            throw std::runtime_error("another run has this file open (process " + std::to_string(who.pid) + ")");
        }
        if (errno != ECONNREFUSED && errno != ENOENT) {
            throw std::runtime_error("another run has this file open, and does not answer: " + path + ": " +
                                     std::strerror(errno));
        }
        unlink(path.c_str());
    }
    throw std::runtime_error(path + ": " + std::strerror(errno));
}

ControlAnswer Ask(const Fd &server) {
    const char wish = 'r';
    std::string answer(kLongestAnswer, '\0');
    ssize_t got = -1;
    if (send(server.Get(), &wish, 1, MSG_NOSIGNAL) == 1) {
        got = recv(server.Get(), answer.data(), answer.size(), 0);
    }
    if (got < 1) {
        return {false, "the run did not answer\n", false};
    }
    answer.resize(static_cast<size_t>(got));
    return {answer.front() == '+', answer.substr(1), true};
}

}  // namespace

std::vector<std::string> ControlDirectories(const std::function<const char *(const char *)> &environment) {
    std::vector<std::string> directories;
    if (const char *service = environment("RUNTIME_DIRECTORY"); service != nullptr && *service == '/') {
        // systemd separates several by colons.
        directories.push_back(std::string(service).substr(0, std::string(service).find(':')));
    }
    if (const char *user = environment("XDG_RUNTIME_DIR"); user != nullptr && *user == '/') {
        directories.push_back(std::string(user) + "/gst-source");
    }
    if (geteuid() == 0) {
        directories.emplace_back("/run/gst-source");
    }
    directories.push_back("/tmp/gst-source-" + std::to_string(geteuid()));
    return directories;
}

ControlServer::ControlServer(const std::string &config, const std::string &only, Reload reload)
    : m_reload(std::move(reload)),
      m_path(MakeDirectory() + "/" + SocketName(config) + (only.empty() ? "" : "." + SocketName(only))),
      m_listener(Listen(m_path)),
      m_stop(eventfd(0, EFD_CLOEXEC)),
      m_thread(&ControlServer::Run, this) {
    emergency::AddFile(m_path);
}

ControlServer::~ControlServer() {
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
    unlink(m_path.c_str());
    emergency::ForgetFile(m_path);
}

void ControlServer::Run() {
    // One that interrupts a recv() here would drop what somebody asks for.
    interrupts::LeaveToOtherThreads();
    for (;;) {
        std::array<pollfd, 2> wait{{{m_listener.Get(), POLLIN, 0}, {m_stop.Get(), POLLIN, 0}}};
        if (poll(wait.data(), wait.size(), -1) < 0) {
            continue;
        }
        if ((wait[1].revents & POLLIN) != 0) {
            return;
        }
        const Fd client(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        const timeval patience{1, 0};
        char wish = 0;
        if (!client) {
            // Out of descriptors, for example: the one who asks is still there, and poll() would come back at once.
            constexpr int kPauseMs = 100;
            poll(&wait[1], 1, kPauseMs);
            continue;
        }
        if (setsockopt(client.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == 0 &&
            recv(client.Get(), &wish, 1, 0) == 1 && wish == 'r') {
            ControlAnswer answer;
            try {
                answer = m_reload();
            } catch (const std::exception &error) {
                answer = {false, std::string("the reload broke off: ") + error.what() + "\n"};
            }
            const std::string packet = (answer.good ? "+" : "-") + answer.text.substr(0, kLongestAnswer - 1);
            send(client.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
}

std::vector<ControlAnswer> AskForReload(const std::string &config) {
    std::vector<std::string> directories = ControlDirectories(FromEnvironment);
    // That of the system's service.
    directories.emplace_back("/run/gst-source");
    std::vector<std::string> paths;
    for (const std::string &directory : directories) {
        std::error_code error;
        for (const auto &entry : std::filesystem::directory_iterator(directory, error)) {
            const std::string path = entry.path().string();
            const bool known = std::find(paths.begin(), paths.end(), path) != paths.end();
            if (!known && entry.path().filename().string().rfind(SocketName(config), 0) == 0) {
                paths.push_back(path);
            }
        }
    }
    std::vector<ControlAnswer> answers;
    for (const std::string &path : paths) {
        if (const Fd server = Connect(path)) {
            answers.push_back(Ask(server));
        }
    }
    return answers;
}

}  // namespace tool
