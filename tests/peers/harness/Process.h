// A child process that never outlives its owner: ended by its own id,
// also when a test fails or the test program dies.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Wait.h"

namespace peers {

class Process {
  public:
    struct Options {
        std::string output;               // file that takes standard output and standard error
        std::vector<std::string> setenv;  // NAME=value, in addition to the test's own environment
        uid_t uid = 0;                    // user and group to run as where the test is root; 0 stays what the test is
    };

    // args[0] is looked up in PATH. Throws when the program cannot be started.
    Process(const std::vector<std::string> &args, Options options);
    ~Process() { Stop(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool Running();
    // Exit status as a shell tells it (128 + signal when killed), nothing when it still runs after `bound`.
    std::optional<int> Wait(Clock::duration bound = kPatience);
    void Signal(int number);
    void Pause();
    void Resume();
    // SIGTERM, and SIGKILL if that is not enough. What the process left in its group goes with it.
    void Stop();
    // SIGKILL at once: a peer that vanishes without a word.
    void Kill();

    const std::string &OutputFile() const { return options_.output; }
    std::string Output() const;
    // The rest of each line of the output that begins with `prefix`.
    std::vector<std::string> Told(const std::string &prefix) const;
    // The number behind the last "`word` " that begins a line; 0 when there is none.
    unsigned Number(const std::string &word) const;

  private:
    void Reap(bool killed);

    Options options_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Runs a command to its end; throws with its output when it fails or does not come to one.
void RunCommand(const std::vector<std::string> &args, const std::string &output);

}  // namespace peers
