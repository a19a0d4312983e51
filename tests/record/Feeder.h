// Writes a material into a shared buffer in real time, as a host would: what readers get is known to the frame.
#pragma once

#include <shb.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../peers/harness/Wait.h"
#include "RecordedFile.h"

namespace peers {

nanoseconds Monotonic();

struct FeederOptions {
    bool adts = true;           // false: raw AAC, as from RTMP
    bool decodingTimes = true;  // false: the video has none
    bool described = true;      // false: a frame of each track comes before its description
    shb_geometry_t geometry{};
    std::string name;  // of the buffer; empty: one of its own
};

class Feeder {
  public:
    explicit Feeder(const Material &material, const FeederOptions &options = {});
    ~Feeder();
    Feeder(const Feeder &) = delete;
    Feeder &operator=(const Feeder &) = delete;

    const std::string &Name() const { return name_; }
    // Goes on with the beginning of another material, in new epochs.
    void Change(const Material &material);
    // Frames of the material at hand that have been written.
    size_t Count(shb_kind_t kind) const;
    bool WaitFrames(shb_kind_t kind, size_t count) const;
    // CLOCK_MONOTONIC before and after a frame was written, and that of its decoding time.
    nanoseconds Before(shb_kind_t kind, size_t position) const;
    nanoseconds After(shb_kind_t kind, size_t position) const;
    nanoseconds Due(shb_kind_t kind, size_t position) const;

  private:
    struct Track {
        shb_writer_t *writer = nullptr;
        const RecordedStream *stream = nullptr;
        std::vector<nanoseconds> before, after;
    };

    void Start(const Material &material);
    void Stop();
    void Open(shb_kind_t kind, const Material &material);
    void Run();
    void Write(shb_kind_t kind, const RecordedPacket &packet);

    const FeederOptions options_;
    std::string name_;
    shb_buffer_t *buffer_ = nullptr;
    Track tracks_[2];
    nanoseconds origin_{0};  // CLOCK_MONOTONIC of time 0 of the material
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::thread thread_;
};

}  // namespace peers
