#include "Watchdog.h"

#include <dirent.h>
#include <execinfo.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace unit {

namespace {

// True when the debugger was there and has printed the stacks.
bool PrintStacksByDebugger() {
    const std::string self = std::to_string(getpid());
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        // The stacks are what it is for: no symbols from the network, no questions.
        execlp("gdb", "gdb", "-nx", "-batch", "-iex", "set debuginfod enabled off", "-p", self.c_str(), "-ex",
               "thread apply all bt", static_cast<char *>(nullptr));
        _exit(127);
    }
    if (child < 0) {
        return false;
    }
    // Where only ancestors may be looked at.
    prctl(PR_SET_PTRACER, static_cast<unsigned long>(child), 0, 0, 0);
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void PrintOwnStack(int) {
    void *frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    const char end[] = "----\n";
    static_cast<void>(!write(STDERR_FILENO, end, sizeof end - 1));
}

// Without the debugger: each thread prints its own, as far as it can be interrupted.
void PrintStacksBySignal() {
    struct sigaction action {};
    action.sa_handler = PrintOwnStack;
    sigaction(SIGUSR2, &action, nullptr);
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return;
    }
    for (const dirent *entry = readdir(tasks); entry != nullptr; entry = readdir(tasks)) {
        const int thread = std::atoi(entry->d_name);
        if (thread > 0) {
            syscall(SYS_tgkill, getpid(), thread, SIGUSR2);
            // One after the other, or they write through each other.
            // Nothing waits for this but the end of a broken test.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    closedir(tasks);
}

}  // namespace

Watchdog::Watchdog(std::string what, int seconds)
    : m_what(std::move(what)), m_seconds(seconds), m_thread([this] { Watch(); }) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_cond.notify_all();
    m_thread.join();
}

void Watchdog::Watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    // By the second, so that one in which the whole machine stood still for minutes counts as one.
    for (int second = 0; second < m_seconds; ++second) {
        if (m_cond.wait_for(lock, std::chrono::seconds(1), [this] { return m_done; })) {
            return;
        }
    }
    std::fprintf(stderr, "hangs: %s, for more than %d s\n", m_what.c_str(), m_seconds);
    if (!PrintStacksByDebugger()) {
        PrintStacksBySignal();
    }
    std::abort();
}

}  // namespace unit
