// One track, frame by frame, across whatever happens to its writer and to its host.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "buffers.h"
#include "options.h"

namespace reader {

class Follower {
  public:
    using Tell = std::function<void(const std::string &)>;

    // `tell` gets what a person should know, one line each. Throws
    // std::runtime_error with a message for people, as Next does.
    Follower(const Options &options, std::string name, Tell tell);

    enum class Got { kFrame, kNothing, kEnd };
    // Waits up to `timeout_ms` for the next frame. kEnd: none will come any more.
    Got Next(int timeout_ms);

    // Of the last frame.
    const shb_frame_t &Frame() const { return m_frame; }
    std::string_view Data() const { return {m_data.data(), m_frame.size}; }
    pid_t Creator() const { return m_creator; }
    // What the track carries, when that is not what it was before this frame.
    const std::optional<shb_description_t> &NewDescription() const { return m_newDescription; }

    std::string TrackName() const;

  private:
    void Use(Map map);
    void TakeFrame();
    void TakeDescription();
    bool WriterGone() const;

    const Options &m_options;
    const std::string m_name;
    const Tell m_tell;

    Map m_map;
    Reader m_reader;
    pid_t m_creator = 0;
    uint64_t m_lastEpoch = 0;  // of the last frame, 0 before the first one of a buffer
    uint64_t m_home = 0;       // the epoch that a run without following reads to its end
    bool m_ending = false;     // that epoch's writer has gone

    std::vector<char> m_data;
    shb_frame_t m_frame{};
    std::optional<shb_description_t> m_description;
    std::optional<shb_description_t> m_newDescription;
};

}  // namespace reader
