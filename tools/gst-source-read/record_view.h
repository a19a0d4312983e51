// What a person, or a program, sees of a recording.
#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include "mux_run.h"
#include "record.h"
#include "screen.h"

namespace reader {

// Lines on standard error; on a terminal, the progress in place under them.
class RecordView : public MuxObserver {
  public:
    // `json`: an object for each file on standard output.
    RecordView(std::string name, bool json);
    ~RecordView() override;

    void Tell(const std::string &line) override;
    void Opened(const FileWriter &file, const MuxStatus &status) override;
    void Finished(const FileWriter &file, const MuxStatus &status, bool complete) override;
    void Progress(const MuxStatus &status) override;
    // Standard output takes the objects; the recording does not depend on it, but ends in order without it.
    bool IsHeard() const override { return m_deaf == nullptr; }
    // The last line. Throws what standard output has failed with.
    void Conclude(const MuxStatus &status);

  private:
    using Clock = std::chrono::steady_clock;

    void Clear();
    void Report(const tool::Record &record);

    const std::string m_name;
    const bool m_json;
    std::unique_ptr<tool::Screen> m_screen;  // null: no terminal
    bool m_drawn = false;
    Clock::time_point m_begin = Clock::now();
    Clock::time_point m_due = Clock::now();
    bool m_told_of_waiting = false;
    std::string m_told_formats;
    std::exception_ptr m_deaf;
};

}  // namespace reader
