// The ways of showing a run.
#pragma once

#include <string>
#include <vector>

#include "sample.h"

namespace tool {

enum class Phase { kRunning, kClosing, kEnded };

// What this process itself takes of the machine.
struct ProcessSample {
    double cpu_s = 0;  // of all threads, since it started
    uint64_t resident_bytes = 0;
    uint64_t threads = 0;
    uint64_t descriptors = 0;
    double start_time_s = 0;  // since 1970-01-01 UTC
};

struct RunSample {
    double elapsed_s = 0;
    std::string buffer_name;  // of the one buffer of all sources; empty when each has its own
    Phase phase = Phase::kRunning;
    std::vector<SourceSample> sources;
    ProcessSample process;
    std::string config_file;   // empty without one
    uint64_t reloads = 0;      // of the file that took effect
    bool reload_good = true;   // the last one did
    double reload_time_s = 0;  // when it did, since 1970-01-01 UTC
};

class View {
  public:
    virtual ~View() = default;
    View(const View &) = delete;
    View &operator=(const View &) = delete;

    // A report. False when nobody can see it any more, because the
    // other side of the pipe or the terminal is gone.
    virtual bool Show(const RunSample &run) = 0;
    // The end: the last report with final numbers.
    virtual void Finish(const RunSample &run) = 0;
    // True for a view that is worth redrawing between two reports when something has changed.
    virtual bool IsLive() const { return false; }

    // What a person types; -1 for nothing. To be asked before every wait, because it comes and goes.
    virtual int InputDescriptor() const { return -1; }
    // To be called when that is readable.
    enum class Asked { kNothing, kRedraw, kQuit };
    virtual Asked OnInput() { return Asked::kNothing; }

  protected:
    View() = default;
};

}  // namespace tool
