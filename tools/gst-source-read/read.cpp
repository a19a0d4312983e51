#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "buffers.h"
#include "commands.h"
#include "fd.h"
#include "follower.h"
#include "interrupts.h"
#include "output.h"
#include "record.h"
#include "text.h"

namespace reader {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Often enough to end soon after a signal.
constexpr std::chrono::milliseconds kTick{100};

tool::Record TimeOrNull(uint64_t ns) {
    return ns == SHB_TIME_NONE ? tool::Record(nullptr) : tool::Record(ns);
}

tool::Record DescriptionRecord(shb_kind_t kind, const shb_description_t &media) {
    tool::Record record;
    record["codec"] = tool::TextOrNull(media.code);
    record["profile"] = tool::TextOrNull(media.profile);
    record["level"] = tool::TextOrNull(media.level);
    record["format"] = tool::TextOrNull(media.format);
    record["codec_data_bytes"] = media.codec_data_bytes;
    if (kind == SHB_VIDEO) {
        record["width_px"] = tool::NumberOrNull(media.width);
        record["height_px"] = tool::NumberOrNull(media.height);
        record["scan"] = tool::ScanName(media.scan_type);
        record["announced_fps"] = tool::NumberOrNull(tool::Rounded(AnnouncedFps(media)));
        record["reference_frames"] = tool::NumberOrNull(media.ref_frames);
        record["reorder_frames"] = tool::CountOrNull(media.reorder_frames);
    } else {
        record["sample_rate_hz"] = tool::NumberOrNull(media.sample_rate);
        record["audio_channels"] = tool::NumberOrNull(media.channels);
        record["samples_per_frame"] = tool::NumberOrNull(media.samples_per_frame);
        record["nominal_bitrate_bps"] = tool::NumberOrNull(media.nominal_bitrate);
    }
    return record;
}

tool::Record FrameRecord(const Follower &track, shb_kind_t kind) {
    const shb_frame_t &frame = track.Frame();
    tool::Record record;
    record["type"] = "frame";
    record["creator_pid"] = track.Creator();
    record["epoch"] = frame.epoch;
    record["sequence"] = frame.sequence;
    record["lost"] = frame.lost;
    record["lost_before"] = frame.lost_before;
    record["left_out"] = frame.left_out;
    record["pts_ns"] = TimeOrNull(frame.pts);
    record["dts_ns"] = TimeOrNull(frame.dts);
    record["duration_ns"] = TimeOrNull(frame.duration);
    record["clock_offset_ns"] =
        frame.clock_offset == SHB_OFFSET_NONE ? tool::Record(nullptr) : tool::Record(frame.clock_offset);
    record["arrival_ns"] = frame.arrival_ns;
    record["wall_ns"] = frame.wall_ns;
    record["size_bytes"] = frame.size;
    record["key"] = (frame.flags & SHB_FRAME_KEY) != 0;
    record["discontinuity"] = (frame.flags & SHB_FRAME_DISCONT) != 0;
    record["header"] = (frame.flags & SHB_FRAME_HEADER) != 0;
    const auto &media = track.NewDescription();
    record["description"] = media ? DescriptionRecord(kind, *media) : tool::Record(nullptr);
    return record;
}

class Run {
  public:
    explicit Run(const Options &options)
        : m_options(options), m_track(options, ChooseName(options.name), [](const std::string &text) { Complain(text); }) {
        if (!options.output.empty() && options.output != "-") {
            constexpr mode_t kMode = 0666;
            m_file = tool::Fd(open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
            if (!m_file) {
                throw std::runtime_error(options.output + ": " + std::strerror(errno));
            }
        }
    }

    int Go() {
        bool out_of_time = false;
        for (;;) {
            if (tool::interrupts::StopRequested() || (m_options.frames > 0 && m_frames >= m_options.frames)) {
                break;
            }
            const auto left = TimeLeft();
            if (left <= Clock::duration::zero()) {
                out_of_time = m_options.frames > 0;
                break;
            }
            const auto wait = std::min<std::chrono::milliseconds>(std::chrono::ceil<std::chrono::milliseconds>(left), kTick);
            const Follower::Got got = m_track.Next(static_cast<int>(wait.count()));
            if (got == Follower::Got::kEnd) {
                break;
            }
            if (got == Follower::Got::kFrame) {
                TakeFrame();
            }
        }
        return Conclude(out_of_time);
    }

  private:
    Clock::duration TimeLeft() const {
        if (!m_options.duration) {
            return std::chrono::hours(1);
        }
        return m_start + std::chrono::duration_cast<Clock::duration>(Seconds(*m_options.duration)) - Clock::now();
    }

    void TakeFrame() {
        const shb_frame_t &frame = m_track.Frame();
        if (m_file) {
            Write(m_file.Get(), m_options.output, m_track.Data());
        } else if (!m_options.json) {
            WriteOut(m_track.Data());
        }
        if (m_options.json) {
            WriteOut(tool::JsonLine(FrameRecord(m_track, m_options.kind)));
        }
        ++m_frames;
        m_bytes += frame.size;
        m_keys += (frame.flags & SHB_FRAME_KEY) != 0 ? 1U : 0U;
        m_lost += frame.lost;
    }

    int Conclude(bool out_of_time) const {
        if (m_frames == 0) {
            throw std::runtime_error("nothing arrived from " + m_track.TrackName());
        }
        Complain(m_track.TrackName() + ": " + tool::Count(m_frames, "frame", "frames") + ", " +
                 tool::Count(m_keys, "key frame", "key frames") + ", " + tool::FormatBytes(m_bytes) + ", " +
                 std::to_string(m_lost) + " lost, in " + tool::FormatElapsed(Seconds(Clock::now() - m_start).count()));
        if (out_of_time) {
            throw std::runtime_error("the time ran out before " + tool::Count(m_options.frames, "frame", "frames") +
                                     " had arrived");
        }
        return tool::kExitOk;
    }

    const Options &m_options;
    tool::Fd m_file;
    Follower m_track;
    const Clock::time_point m_start = Clock::now();
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    uint64_t m_keys = 0;
    uint64_t m_lost = 0;
};

}  // namespace

int RunRead(const Options &options) {
    if (options.output.empty() && !options.json && isatty(STDOUT_FILENO) != 0) {
        Complain("frames are not for a terminal; give --output FILE, --json or a pipe");
        return tool::kExitUsage;
    }
    tool::interrupts::Install(-1);
    return Run(options).Go();
}

}  // namespace reader
