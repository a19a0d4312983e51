#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>

#include "../free_port.h"

namespace {

// For exec. They point into the texts.
std::vector<char *> Pointers(const std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string &text : texts) {
        pointers.push_back(const_cast<char *>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// This process's own, with these instead or as well.
std::vector<std::string> Environment(const Child::Variables &variables) {
    std::vector<std::string> all;
    for (char **one = environ; *one != nullptr; ++one) {
        const std::string text = *one;
        if (variables.count(text.substr(0, text.find('='))) == 0) {
            all.push_back(text);
        }
    }
    for (const auto &[name, value] : variables) {
        all.push_back(name + "=" + value);
    }
    return all;
}

}  // namespace

Child::Child(const std::vector<std::string> &command, const Variables &variables, Output output) {
    winsize size{};
    size.ws_col = 100;
    size.ws_row = 30;
    // Between the fork and the program nothing may allocate: another thread may hold a lock of the allocator,
    // which the sanitizers' do not let go.
    const tool::Fd in(open("/dev/null", O_RDONLY | O_CLOEXEC));
    tool::Fd out(open(m_dir.File("out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const tool::Fd err(open(m_dir.File("err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (output == Output::kClosedPipe) {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        close(ends[0]);
        out = tool::Fd(ends[1]);
    }
    const std::vector<std::string> environment = Environment(variables);
    const std::vector<char *> arguments = Pointers(command);
    const std::vector<char *> settings = Pointers(environment);
    int terminal = -1;
    const pid_t parent = getpid();
    m_id = output == Output::kTerminal ? forkpty(&terminal, nullptr, nullptr, &size) : fork();
    if (m_id < 0) {
        throw std::runtime_error("fork");
    }
    if (m_id == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (output != Output::kTerminal) {
            if (getppid() != parent) {
                _exit(127);
            }
            dup2(in.Get(), STDIN_FILENO);
            dup2(out.Get(), STDOUT_FILENO);
            dup2(err.Get(), STDERR_FILENO);
        }
        execvpe(arguments[0], arguments.data(), settings.data());
        _exit(127);
    }
    if (terminal >= 0) {
        m_terminal = tool::Fd(terminal);
        fcntl(terminal, F_SETFD, FD_CLOEXEC);
        fcntl(terminal, F_SETFL, O_NONBLOCK);
    }
}

Child::~Child() {
    if (Running()) {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }
}

void Child::Signal(int number) const {
    if (!m_exit) {
        kill(m_id, number);
    }
}

bool Child::Running() {
    int status = 0;
    if (!m_exit && waitpid(m_id, &status, WNOHANG) == m_id) {
        m_exit = WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return !m_exit;
}

std::optional<int> Child::Wait(std::chrono::milliseconds bound) {
    WaitFor(
        [this] {
            // A full terminal would hold it up.
            Screen();
            return !Running();
        },
        bound);
    return m_exit;
}

const std::string &Child::Screen() {
    std::array<char, 4096> buffer{};
    while (m_terminal) {
        const ssize_t got = read(m_terminal.Get(), buffer.data(), buffer.size());
        if (got <= 0) {
            break;
        }
        m_screen.append(buffer.data(), static_cast<size_t>(got));
    }
    return m_screen;
}

void Child::Type(std::string_view keys) const {
    if (!tool::WriteAll(m_terminal.Get(), keys)) {
        throw std::runtime_error("a terminal takes no keys");
    }
}

void Child::Resize(unsigned short columns, unsigned short rows) const {
    winsize size{};
    size.ws_col = columns;
    size.ws_row = rows;
    ioctl(m_terminal.Get(), TIOCSWINSZ, &size);
}

unsigned short FreeUdpPort() {
    return free_port::Take(SOCK_DGRAM);
}
