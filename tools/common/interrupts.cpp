#include "interrupts.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <string_view>

#include "emergency.h"

namespace tool::interrupts {
namespace {

std::atomic<int> g_wake{-1};
std::atomic<int> g_terminal{-1};
std::atomic<bool> g_stop{false};
std::atomic<long long> g_stop_ms{0};
std::atomic<bool> g_redraw{false};
std::atomic<bool> g_reload{false};

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<long long>::is_always_lock_free,
              "signal handlers can use only lock-free atomics");

long long NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

void Wake() {
    const int saved = errno;
    const eventfd_t one = 1;
    const ssize_t written = write(g_wake.load(), &one, sizeof one);
    static_cast<void>(written);  // full means awake already
    errno = saved;
}

void OnStop(int number) {
    constexpr long long kSameWishMs = 500;
    constexpr int kSignalExit = 128;
    if (!g_stop.load()) {
        g_stop_ms.store(NowMs());
        g_stop.store(true);
    } else if (NowMs() - g_stop_ms.load() >= kSameWishMs) {
        emergency::Clean();
        _exit(kSignalExit + number);
    }
    Wake();
}

void OnResize(int /*number*/) {
    g_redraw.store(true);
    Wake();
}

void OnReload(int /*number*/) {
    g_reload.store(true);
    Wake();
}

void Handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // Without SA_RESTART: a write that waits for a stalled terminal must come back.
    sigaction(number, &action, nullptr);
}

void WriteToTerminal(std::string_view sequence) {
    const ssize_t written = write(g_terminal.load(), sequence.data(), sequence.size());
    static_cast<void>(written);  // a handler can do nothing about it
}

void OnSuspend(int number) {
    const int saved = errno;
    emergency::LeaveKeyMode();
    WriteToTerminal("\x1b[?25h");
    Handle(number, SIG_DFL);
    raise(number);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    // The process stops here and goes on here.
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    Handle(number, OnSuspend);
    emergency::EnterKeyMode();
    WriteToTerminal("\x1b[?25l");
    errno = saved;
    OnResize(number);
}

// Also without OnSuspend: after SIGSTOP, and of a process that began in the background.
void OnContinue(int number) {
    emergency::EnterKeyMode();
    OnResize(number);
}

}  // namespace

void HoldHangup() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void Install(int terminal, bool hangup_reloads) {
    g_wake.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    Handle(SIGINT, OnStop);
    Handle(SIGTERM, OnStop);
    Handle(SIGHUP, hangup_reloads ? OnReload : OnStop);
    Handle(SIGWINCH, OnResize);
    Handle(SIGPIPE, SIG_IGN);
    g_terminal.store(terminal);
    if (terminal >= 0) {
        Handle(SIGTSTP, OnSuspend);
        Handle(SIGCONT, OnContinue);
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void LeaveToOtherThreads() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP, SIGCONT}) {
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int WakeDescriptor() {
    return g_wake.load();
}

void WakeUp() {
    Wake();
}

void Acknowledge() {
    eventfd_t count = 0;
    eventfd_read(g_wake.load(), &count);
}

bool StopRequested() {
    return g_stop.load();
}

std::function<bool()> PatienceAfterStop() {
    constexpr long long kPatienceMs = 2000;
    return [until = NowMs() + kPatienceMs] { return StopRequested() && NowMs() >= until; };
}

bool ReloadRequested() {
    return g_reload.load();
}

bool TakeReload() {
    return g_reload.exchange(false);
}

bool RedrawWanted() {
    return g_redraw.load();
}

bool TakeRedraw() {
    return g_redraw.exchange(false);
}

}  // namespace tool::interrupts
