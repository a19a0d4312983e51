// Lets another process of the same user ask a run with a file of sources to read that file again, and hear what came of it.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"

namespace tool {

struct ControlAnswer {
    bool good = false;
    std::string text;     // lines for people
    bool reached = true;  // false: the run did not answer
};

class ControlServer {
  public:
    // Called on a thread of the server, one at a time.
    using Reload = std::function<ControlAnswer()>;

    // `config`: the real path of the file; `only`: the one source of it that is run, or empty. Throws std::runtime_error with a
    // message for people when another run has the same, or when there is no place for the socket.
    ControlServer(const std::string &config, const std::string &only, Reload reload);
    // Waits for an answer that is being made.
    ~ControlServer();
    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    const std::string &Path() const { return m_path; }

  private:
    void Run();

    const Reload m_reload;
    std::string m_path;
    Fd m_listener;
    Fd m_stop;
    std::thread m_thread;
};

// Asks every run that has the file open. Empty when there is none.
std::vector<ControlAnswer> AskForReload(const std::string &config);

// Directories where the sockets may be, the one for new ones first.
std::vector<std::string> ControlDirectories(const std::function<const char *(const char *)> &environment);

}  // namespace tool
