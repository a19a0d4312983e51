#include "http/picture_child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include "text.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    Fd read;
    Fd write;
};

std::optional<Pipe> MakePipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    return Pipe{Fd(ends[0]), Fd(ends[1])};
}

class SpawnSettings {
  public:
    SpawnSettings(int out, int err) {
        posix_spawn_file_actions_init(&m_files);
        posix_spawn_file_actions_addopen(&m_files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&m_files, out, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&m_files, err, STDERR_FILENO);
        // Libraries open files that children would inherit.
        posix_spawn_file_actions_addclosefrom_np(&m_files, STDERR_FILENO + 1);
        posix_spawnattr_init(&m_attributes);
        posix_spawnattr_setflags(&m_attributes,
                                 static_cast<short>(POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
        posix_spawnattr_setpgroup(&m_attributes, 0);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&m_files);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;

    const posix_spawn_file_actions_t *Files() const { return &m_files; }
    const posix_spawnattr_t *Attributes() const { return &m_attributes; }

  private:
    posix_spawn_file_actions_t m_files{};
    posix_spawnattr_t m_attributes{};
};

// 0, or why there is no process.
int Start(const std::vector<std::string> &command, int out, int err, pid_t &id) {
    std::vector<std::string> words = command;
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const SpawnSettings settings(out, err);
    return posix_spawnp(&id, argv[0], settings.Files(), settings.Attributes(), argv.data(), environ);
}

std::string LastLine(const std::string &text) {
    const size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos) {
        return "";
    }
    const size_t begin = text.rfind('\n', end);
    return Printable(
        text.substr(begin == std::string::npos ? 0 : begin + 1, end - (begin == std::string::npos ? 0 : begin + 1) + 1));
}

double Seconds(const timeval &time) {
    constexpr double kMicro = 1e6;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / kMicro;
}

class Run {
  public:
    Run(pid_t id, Pipe out, Pipe err, Clock::time_point deadline, size_t most, int stop)
        : m_id(id), m_out(std::move(out)), m_err(std::move(err)), m_deadline(deadline), m_most(most), m_stop(stop) {
        m_out.write.Close();
        m_err.write.Close();
        // Pictures wait for the streams; no stream waits for a picture.
        constexpr int kNice = 10;
        setpriority(PRIO_PROCESS, static_cast<id_t>(m_id), kNice);
    }

    ChildResult Finish() {
        while (m_why.empty() && !Ended() && (m_out.read || m_err.read || !m_ended)) {
            Wait();
        }
        if (!m_ended) {
            KillAndReap();
        }
        if (m_why.empty()) {
            Drain(m_out.read, m_result.out, m_most);
            Drain(m_err.read, m_errors, kMostErrors);
        }
        m_result.cpu_s = Seconds(m_usage.ru_utime) + Seconds(m_usage.ru_stime);
        m_result.good = m_why.empty() && m_reaped && WIFEXITED(m_status) && WEXITSTATUS(m_status) == 0 && !m_result.out.empty();
        m_result.reason = m_result.good ? "" : Reason();
        return std::move(m_result);
    }

  private:
    static constexpr size_t kMostErrors = 4096;

    bool Ended() {
        if (!m_ended) {
            siginfo_t info{};
            // It stays a zombie, so that its process group can still be killed.
            if (waitid(P_PID, static_cast<id_t>(m_id), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == m_id) {
                KillAndReap();
            }
        }
        return m_ended;
    }

    // Also what it has started itself. Its id stays its own until it has been waited for.
    void KillAndReap() {
        kill(-m_id, SIGKILL);
        pid_t waited = -1;
        do {
            waited = wait4(m_id, &m_status, 0, &m_usage);
        } while (waited < 0 && errno == EINTR);
        m_reaped = waited == m_id;
        m_ended = true;
    }

    // For what comes first: something to read, the end of the patience, or a look at whether it has ended.
    void Wait() {
        constexpr int kLookMs = 10;
        std::array<pollfd, 3> ready{{{m_stop, POLLIN, 0}, {m_out.read.Get(), POLLIN, 0}, {m_err.read.Get(), POLLIN, 0}}};
        if (poll(ready.data(), ready.size(), kLookMs) < 0 && errno != EINTR) {
            m_why = "it cannot be waited for";
            return;
        }
        if ((ready[0].revents & POLLIN) != 0) {
            m_why = "the service ends";
        } else if (Clock::now() >= m_deadline) {
            m_why = "the picture took too long";
        }
        if (ready[1].revents != 0) {
            Drain(m_out.read, m_result.out, m_most + 1);
            m_why = m_result.out.size() > m_most ? "the picture is too large" : m_why;
        }
        if (ready[2].revents != 0) {
            Drain(m_err.read, m_errors, kMostErrors);
        }
    }

    // What is there now; the rest of a text that has become too long is thrown away.
    static void Drain(Fd &from, std::string &to, size_t most) {
        std::array<char, 65536> part{};
        while (from) {
            pollfd ready{from.Get(), POLLIN, 0};
            if (poll(&ready, 1, 0) <= 0) {
                return;
            }
            const ssize_t got = read(from.Get(), part.data(), part.size());
            if (got <= 0) {
                from.Close();
                return;
            }
            to.append(part.data(), std::min(static_cast<size_t>(got), most - std::min(to.size(), most)));
            if (to.size() >= most) {
                return;
            }
        }
    }

    std::string Reason() const {
        if (!m_why.empty()) {
            return m_why;
        }
        if (m_reaped && WIFSIGNALED(m_status)) {
            return "the program that makes pictures ended by signal " + std::to_string(WTERMSIG(m_status));
        }
        const std::string line = LastLine(m_errors);
        return line.empty() ? "the program that makes pictures failed" : line;
    }

    const pid_t m_id;
    Pipe m_out;
    Pipe m_err;
    const Clock::time_point m_deadline;
    const size_t m_most;
    const int m_stop;
    ChildResult m_result;
    std::string m_errors;
    std::string m_why;  // it is killed; empty while nothing is wrong
    bool m_ended = false;
    bool m_reaped = false;
    int m_status = 0;
    rusage m_usage{};
};

}  // namespace

ChildResult RunChild(const std::vector<std::string> &command, std::chrono::milliseconds longest, size_t most, int stop) {
    ChildResult result;
    auto out = MakePipe();
    auto err = MakePipe();
    pid_t id = -1;
    const int error = out && err ? Start(command, out->write.Get(), err->write.Get(), id) : errno;
    if (error != 0) {
        result.reason = command.front() + " cannot be started: " + std::strerror(error);
        return result;
    }
    return Run(id, std::move(*out), std::move(*err), Clock::now() + longest, most, stop).Finish();
}

}  // namespace tool
