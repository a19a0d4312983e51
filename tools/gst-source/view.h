// The ways of showing a run.
#pragma once

#include <string>
#include <vector>

#include "sample.h"

namespace tool {

enum class Phase { kRunning, kClosing, kEnded };

struct RunSample {
    double elapsed_s = 0;
    std::string buffer_name;
    Phase phase = Phase::kRunning;
    std::vector<SourceSample> sources;
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

  protected:
    View() = default;
};

}  // namespace tool
