// A child that is run instruction by instruction, and what it changed.
#pragma once

#include <sys/ptrace.h>

#include "shb_layout.h"
#include "shb_support.h"

namespace shbtest {

// A child under the debugger's eye: runs `prepare`, stops, runs `watched`, stops again, runs `rest`, stops.
class Traced {
  public:
    Traced(
        const std::function<void()> &prepare, const std::function<void()> &watched, const std::function<void()> &rest = [] {})
        : child_([&] {
              prepare();
              if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                  return 3;
              raise(SIGSTOP);
              watched();
              raise(SIGSTOP);
              rest();
              raise(SIGSTOP);
              return 0;
          }) {
        int status = 0;
        waitpid(child_.Id(), &status, 0);
        able_ = WIFSTOPPED(status);
    }
    bool Able() const { return able_; }
    // One instruction further; false when the watched part is over.
    bool Step() { return Go(PTRACE_SINGLESTEP); }
    // To the next beginning or end of a system call.
    bool StepCall() { return Go(PTRACE_SYSCALL); }
    // To the end of the part.
    void Finish() { Go(PTRACE_CONT); }
    void Kill() { child_.Kill(); }

  private:
    bool Go(__ptrace_request how) {
        int status = 0;
        if (ptrace(how, child_.Id(), nullptr, nullptr) != 0 || waitpid(child_.Id(), &status, 0) != child_.Id())
            return false;
        return WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
    }
    Child child_;
    bool able_ = false;
};

// Tells whether a buffer differs from what it was the last time, but for the heartbeat.
class Changes {
  public:
    explicit Changes(const std::string &path) : segment_(path), last_(segment_.size - SHB_PAGE_BYTES) { Next(); }
    bool Next() {
        const uint8_t *tracks = segment_.bytes + SHB_PAGE_BYTES;
        if (memcmp(last_.data(), tracks, last_.size()) == 0)
            return false;
        memcpy(last_.data(), tracks, last_.size());
        return true;
    }

  private:
    const Segment segment_;
    std::vector<uint8_t> last_;
};

}  // namespace shbtest
