// Writes one track's elementary stream to a file, as a reader of the shared buffer gets it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "fd.h"
#include "frame_tap.h"
#include "sample.h"
#include "shb.h"

namespace tool {

class Dump {
  public:
    // Opens the file and starts reading on a thread of its own. `map` must outlive the dump.
    // `standard_output`: where a path of "-" goes. `tap`, which must outlive the dump: only the frames that
    // it counts are written. Throws std::runtime_error with a message for people.
    Dump(shb_map_t *map, unsigned channel, shb_kind_t kind, const std::string &path, int standard_output,
         const FrameTap *tap = nullptr);
    ~Dump();
    Dump(const Dump &) = delete;
    Dump &operator=(const Dump &) = delete;

    unsigned Channel() const { return m_channel; }
    shb_kind_t Kind() const { return m_kind; }
    const std::string &Path() const { return m_path; }

    // Adds what was written and lost so far to the track's sample.
    void Report(TrackSample &track) const;

    // The dump has ended early: the file refuses or its reader has gone.
    bool Failed() const { return m_failed.load(); }
    // Why; empty when the reader of a pipe went away, which is nobody's
    // fault. To be read after Failed() or Finish().
    const std::string &Error() const { return m_error; }

    // Writes what the buffer still holds and ends the thread. The track's writer should have been closed, and
    // the tap finished.
    void Finish();

  private:
    struct CloseReader {
        void operator()(shb_reader_t *reader) const { shb_reader_close(reader); }
    };

    void Run();
    bool IsWanted(const shb_frame_t &frame, bool finishing);
    bool Write(const uint8_t *data, size_t size);

    const unsigned m_channel;
    const shb_kind_t m_kind;
    const std::string m_path;
    const FrameTap *const m_tap;
    Fd m_file;
    int m_target = -1;
    std::unique_ptr<shb_reader_t, CloseReader> m_reader;
    std::atomic<bool> m_finish{false};
    std::atomic<uint64_t> m_frames{0};
    std::atomic<uint64_t> m_lost{0};
    std::atomic<uint64_t> m_discontinuities{0};
    std::atomic<bool> m_failed{false};
    std::string m_error;  // dump thread until m_failed is set or the thread has ended
    std::thread m_thread;
};

}  // namespace tool
