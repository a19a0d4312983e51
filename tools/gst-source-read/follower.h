// One track, frame by frame, across whatever happens to its writer and to its host.
#pragma once

#include <functional>
#include <memory>
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
    int Creator() const { return m_host.creator_pid; }
    // What the track carries, when that is not what it was before this frame.
    const std::optional<shb_description_t> &NewDescription() const { return m_newDescription; }

    std::string TrackName() const;

  private:
    struct CloseFollow {
        void operator()(shb_follow_t *follow) const { shb_follow_close(follow); }
    };

    [[noreturn]] void Fail(int result) const;
    bool TellOfHost(uint32_t events);
    void TellOfFrame(uint32_t events);

    const Options &m_options;
    const std::string m_name;
    const Tell m_tell;

    std::unique_ptr<shb_follow_t, CloseFollow> m_follow;
    shb_info_t m_host{};
    bool m_waiting = false;  // for a host, and a person knows
    uint64_t m_home = 0;     // the epoch that a run without following reads to its end

    std::vector<char> m_data;
    shb_frame_t m_frame{};
    std::optional<shb_description_t> m_newDescription;
};

}  // namespace reader
