#include "key_frame.h"

#include <stdexcept>

#include "interrupts.h"
#include "output.h"
#include "text.h"

namespace reader {
namespace {

using Seconds = std::chrono::duration<double>;

// Often enough to end soon after a signal.
constexpr int kTickMs = 100;
constexpr const char *kInPart = "has a key frame in part";
constexpr size_t kFirstCapacity = size_t{256} * 1024;

// More than a stream takes to be refreshed, so that what it announces cannot fill the memory.
constexpr size_t kMostUnits = 600;
constexpr size_t kMostBytes = size_t{64} * 1024 * 1024;

}  // namespace

KeyFrameTaker::KeyFrameTaker(const Options &options)
    : m_options(options),
      m_name(ChooseName(options.name)),
      m_track("video " + std::to_string(options.channel) + "." + std::to_string(options.stream) + " of " + m_name),
      m_map(Attach(m_name)),
      m_data(kFirstCapacity, '\0') {
    CheckTrack(m_map.get(), m_name, options.channel, options.stream);
    shb_reader_t *reader = nullptr;
    const int result = shb_reader_open(m_map.get(), options.channel, options.stream, SHB_VIDEO, SHB_START_KEY, &reader);
    if (result != SHB_OK) {
        throw std::runtime_error(m_name + ": " + Reason(result));
    }
    m_reader.reset(reader);
}

bool KeyFrameTaker::ReadFrame(int timeout_ms) {
    for (;;) {
        const int result = shb_reader_read(m_reader.get(), m_data.data(), m_data.size(), timeout_ms, &m_frame);
        if (result == SHB_ERR_TOO_BIG) {
            m_data.resize(m_frame.size);
        } else if (result == SHB_ERR_TIMEOUT) {
            return false;
        } else if (result == SHB_ERR_CLOSED) {
            throw std::runtime_error("no picture: the host of " + m_name + " has gone, and " + m_track + " " + Lack());
        } else if (result != SHB_OK) {
            throw std::runtime_error(m_name + ": " + Reason(result));
        } else {
            return true;
        }
    }
}

std::string KeyFrameTaker::CodecData() {
    std::string data(SHB_CODEC_DATA_MAX, '\0');
    size_t size = 0;
    if (shb_reader_codec_data(m_reader.get(), data.data(), data.size(), &size) != SHB_OK) {
        return "";
    }
    data.resize(size);
    return data;
}

bool KeyFrameTaker::Begin(KeyFrame &taken) {
    shb_description_t media{};
    if (shb_reader_description(m_reader.get(), &media) != SHB_OK) {
        return false;
    }
    const std::string code = media.code;
    if (code != "H264" && code != "H265") {
        throw std::runtime_error(m_track + ": no picture can be made of " + Describe(SHB_VIDEO, media));
    }
    taken = KeyFrame{code == "H264" ? VideoCodec::kH264 : VideoCodec::kH265, Describe(SHB_VIDEO, media), {}, false};
    return true;
}

KeyFrame KeyFrameTaker::Take() {
    const auto patience = std::chrono::duration_cast<Clock::duration>(Seconds(m_options.view.timeout));
    KeyFrame taken;
    std::optional<KeyPicture> picture;
    uint64_t epoch = 0;
    size_t bytes = 0;
    for (;;) {
        if (tool::interrupts::StopRequested()) {
            throw std::runtime_error("ended before there was a picture of " + m_track);
        }
        const bool late = Clock::now() >= m_start + patience;
        if (!ReadFrame(late ? 0 : kTickMs)) {
            if (late) {
                throw std::runtime_error("no picture: " + m_track + " " + (picture ? kInPart : Lack()) + " after " +
                                         tool::FormatRate(m_options.view.timeout) + " s");
            }
            SayWaiting(picture.has_value());
            continue;
        }
        if (picture && (m_frame.lost > 0 || m_frame.epoch != epoch)) {
            // The rest of what was begun has gone.
            picture.reset();
        }
        std::string unit = m_data.substr(0, m_frame.size);
        if (!picture) {
            if ((m_frame.flags & SHB_FRAME_KEY) == 0 || !Begin(taken)) {
                continue;
            }
            picture.emplace(taken.codec);
            epoch = m_frame.epoch;
            bytes = 0;
            unit.insert(0, CodecData());
        }
        bytes += unit.size();
        taken.units.push_back(std::move(unit));
        if (picture->Add(taken.units.back()) || bytes > kMostBytes || taken.units.size() > kMostUnits) {
            taken.want_last = picture->IsRefreshed();
            return taken;
        }
    }
}

std::string KeyFrameTaker::Lack() const {
    shb_stats_t stats{};
    shb_map_stats(m_map.get(), m_options.channel, m_options.stream, SHB_VIDEO, &stats);
    if (stats.presence == SHB_PRESENCE_ABSENT) {
        return "has no stream: the source carries no video";
    }
    if (stats.epoch == 0) {
        return "has had no writer";
    }
    if (stats.frames == 0) {
        return "has no frame yet";
    }
    const std::string age = stats.age_ns == SHB_TIME_NONE ? "" : ", the last " + tool::FormatAge(stats.age_ns) + " ago";
    return "has no key frame among " + tool::Count(stats.frames, "frame", "frames") + age;
}

void KeyFrameTaker::SayWaiting(bool begun) {
    shb_stats_t stats{};
    shb_map_stats(m_map.get(), m_options.channel, m_options.stream, SHB_VIDEO, &stats);
    if (!begun && stats.presence == SHB_PRESENCE_ABSENT) {
        throw std::runtime_error("no picture: " + m_track + " " + Lack());
    }
    // Most streams have one within this time.
    if (!m_waitingSaid && Clock::now() - m_start > std::chrono::seconds(1)) {
        m_waitingSaid = true;
        Complain(m_track + " " + (begun ? kInPart : Lack()) + "; waiting up to " + tool::FormatRate(m_options.view.timeout) +
                 " s for " + (begun ? "the rest" : "a key frame"));
    }
}

}  // namespace reader
