// From a shared buffer through a muxer into files or a pipe: what record and read --format have in common.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "av_source.h"
#include "container.h"
#include "cutter.h"
#include "file_writer.h"

namespace reader {

struct MuxSettings {
    AvSource::Settings source;
    const Container *container = nullptr;
    int64_t segment = 0;   // ns, as in Cutter::Rules
    int64_t duration = 0;  // ns
    uint64_t frames = 0;
    int64_t timeout = 0;    // ns without a frame after which the run ends; 0: none
    bool one_file = false;  // to a pipe: what would take another file ends the run
};

// What a run has come to so far.
struct MuxStatus {
    int64_t recorded = 0;  // ns
    uint64_t files = 0;
    uint64_t bytes = 0;  // of the files that are closed
    std::array<uint64_t, kKinds> frames{};
    std::array<uint64_t, kKinds> lost{};
    std::array<std::string, kKinds> formats;  // as people read them, empty: no such track
    const FileWriter *newest = nullptr;
    bool gone = false;  // the host
};

// Who is told.
class MuxObserver {
  public:
    MuxObserver() = default;
    MuxObserver(const MuxObserver &) = delete;
    MuxObserver &operator=(const MuxObserver &) = delete;
    virtual ~MuxObserver() = default;

    // One line for people.
    virtual void Tell(const std::string &line) = 0;
    virtual void Opened(const FileWriter &file, const MuxStatus &status) = 0;
    // `complete`: it has its end; if not, the line before says why.
    virtual void Finished(const FileWriter &file, const MuxStatus &status, bool complete) = 0;
    // Some times a second.
    virtual void Progress(const MuxStatus &status) = 0;
    // False: nobody takes the report any more, which ends the run.
    virtual bool IsHeard() const { return true; }
};

class MuxRun : private Files {
  public:
    using Clock = std::chrono::steady_clock;
    // Makes the writer of a file. Throws std::runtime_error with a message for people.
    using MakeWriter = std::function<std::unique_ptr<FileWriter>(const FileStart &, const FileWriter::TrackCaps &)>;

    MuxRun(MuxSettings settings, MakeWriter make_writer, MuxObserver &observer);

    // Until a signal, the end of the source, or one that the settings name. False when a failure ended it, which
    // the observer knows. Throws std::runtime_error when nothing came of it, and PipeClosed.
    bool Go();
    const MuxStatus &Status() const { return m_status; }

  private:
    struct OpenFile {
        uint64_t number = 0;
        bool closed = false;  // waits for its end
        std::unique_ptr<FileWriter> writer;
    };

    void Open(const FileStart &start) override;
    void Write(uint64_t file, Frame frame) override;
    void Skip(uint64_t file, shb_kind_t kind, int64_t time) override;
    void EndTrack(uint64_t file, shb_kind_t kind) override;
    void Close(uint64_t file) override;
    FileWriter *WriterOf(uint64_t file);

    void Step();
    void TakeEvents();
    void TakeEvent(const AvSource::Event &event);
    void TellLoss(const AvSource::Event &event);
    void TakeFrames(bool all);
    void LookAtFiles();
    bool IsOver();
    void Wait() const;
    void CloseAll();
    void Fail(const std::string &reason);
    std::string NotCarried(FormatId format) const;

    const MuxSettings m_settings;
    const MakeWriter m_makeWriter;
    MuxObserver &m_observer;
    MuxStatus m_status;
    std::list<OpenFile> m_files;
    std::string m_failure;  // "": none
    std::optional<Clock::time_point> m_first_frame;
    Clock::time_point m_last_frame = Clock::now();
    Cutter m_cutter;
    std::unique_ptr<AvSource> m_source;
};

}  // namespace reader
