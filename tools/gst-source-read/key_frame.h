// The newest key frame of a track, with what a decoder needs to make a picture of it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "buffers.h"
#include "key_picture.h"
#include "options.h"

namespace reader {

struct KeyFrame {
    VideoCodec codec = VideoCodec::kH264;
    std::string description;         // for people
    std::vector<std::string> units;  // access units, the parameter sets in front
    bool want_last = false;          // of the pictures that come of them; otherwise the first
};

class KeyFrameTaker {
  public:
    // Throws std::runtime_error with a message for people, as Take does.
    explicit KeyFrameTaker(const Options &options);

    // "video 0.0 of camera".
    const std::string &TrackName() const { return m_track; }
    // Waits for as long as the options say, and says what for.
    KeyFrame Take();

  private:
    struct CloseReader {
        void operator()(shb_reader_t *reader) const { shb_reader_close(reader); }
    };
    using Clock = std::chrono::steady_clock;

    // False while there is none.
    bool ReadFrame(int timeout_ms);
    // False when its writer does not know yet what it carries.
    bool Begin(KeyFrame &taken);
    std::string CodecData();
    // What the track lacks.
    std::string Lack() const;
    void SayWaiting(bool begun);

    const Options &m_options;
    const std::string m_name;
    const std::string m_track;
    const Map m_map;
    std::unique_ptr<shb_reader_t, CloseReader> m_reader;
    const Clock::time_point m_start = Clock::now();
    bool m_waitingSaid = false;
    shb_frame_t m_frame{};
    std::string m_data;
};

}  // namespace reader
