#include "Process.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "TempDir.h"

namespace peers {
namespace {

// Everything the child needs is made before the fork: behind it only async-signal-safe calls are allowed,
// since other threads of the test may have held any lock.
struct Plan {
    std::vector<char *> argv;
    std::vector<char *> envp;
    int output;
    int report;
    uid_t uid;
    pid_t parent;
};

[[noreturn]] void BecomeChild(const Plan &plan) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    bool ready = input >= 0 && dup2(input, 0) >= 0 && dup2(plan.output, 1) >= 0 && dup2(plan.output, 2) >= 0;
    if (ready && plan.uid != 0) {
        ready = setgroups(0, nullptr) == 0 && setgid(plan.uid) == 0 && setuid(plan.uid) == 0;
    }
    // Behind the change of user, which clears it.
    ready = ready && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == plan.parent;
    if (ready) {
        execvpe(plan.argv[0], plan.argv.data(), plan.envp.data());
    }
    const int reason = errno;
    const ssize_t ignored = write(plan.report, &reason, sizeof reason);
    static_cast<void>(ignored);
    _exit(127);
}

std::vector<char *> Pointers(std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    for (auto &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

Process::Process(const std::vector<std::string> &args, Options options) : options_(std::move(options)) {
    std::vector<std::string> arguments = args;
    std::vector<std::string> environment = options_.setenv;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    const int output = open(options_.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int report[2] = {-1, -1};
    if (output < 0 || pipe2(report, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot prepare " + args[0] + ": " + std::strerror(errno));
    }
    const Plan plan{Pointers(arguments), Pointers(environment), output, report[1], geteuid() == 0 ? options_.uid : 0, getpid()};
    pid_ = fork();
    if (pid_ == 0) {
        BecomeChild(plan);
    }
    close(output);
    close(report[1]);
    int reason = 0;
    const bool failed = pid_ < 0 || read(report[0], &reason, sizeof reason) == static_cast<ssize_t>(sizeof reason);
    close(report[0]);
    if (failed) {
        Reap(false);
        throw std::runtime_error("cannot start " + args[0] + ": " + std::strerror(reason));
    }
}

bool Process::Running() {
    return !Wait(Clock::duration::zero()).has_value();
}

std::optional<int> Process::Wait(Clock::duration bound) {
    if (pid_ > 0 && !status_) {
        siginfo_t info{};
        // WNOWAIT keeps the zombie, and with it the number of its
        // process group, until the rest of the group is gone.
        const auto ended = [&] {
            return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
        };
        if (WaitFor(ended, bound)) {
            Reap(false);
        }
    }
    return status_;
}

void Process::Signal(int number) {
    if (pid_ > 0 && !status_) {
        kill(pid_, number);
    }
}

void Process::Pause() {
    Signal(SIGSTOP);
}

void Process::Resume() {
    Signal(SIGCONT);
}

void Process::Stop() {
    if (pid_ > 0 && !status_) {
        kill(pid_, SIGTERM);
        kill(pid_, SIGCONT);
        if (!Wait(seconds(3))) {
            Reap(true);
        }
    }
}

void Process::Kill() {
    if (pid_ > 0 && !status_) {
        Reap(true);
    }
}

void Process::Reap(bool killed) {
    if (pid_ <= 0) {
        return;
    }
    if (killed) {
        kill(pid_, SIGKILL);
    }
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    kill(-pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Process::Output() const {
    return ReadFile(options_.output);
}

std::vector<std::string> Process::Told(const std::string &prefix) const {
    std::vector<std::string> told;
    std::istringstream all(Output());
    for (std::string line; std::getline(all, line);) {
        if (line.rfind(prefix, 0) == 0) {
            told.push_back(line.substr(prefix.size()));
        }
    }
    return told;
}

unsigned Process::Number(const std::string &word) const {
    const auto told = Told(word + " ");
    return told.empty() || told.back().empty() ? 0 : static_cast<unsigned>(std::stoul(told.back()));
}

void RunCommand(const std::vector<std::string> &args, const std::string &output) {
    Process process(args, {output, {}, 0});
    const auto status = process.Wait(3 * kPatience);
    if (status != 0) {
        throw std::runtime_error(args[0] + " failed: " + process.Output());
    }
}

}  // namespace peers
