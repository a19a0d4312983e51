#include "dump.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tool {
namespace {

constexpr int kReadMs = 200;
// How long the end of the run waits for the reader of a pipe.
constexpr std::chrono::seconds kStalled{2};
constexpr size_t kFirstCapacity = size_t{256} * 1024;

}  // namespace

Dump::Dump(shb_map_t *map, unsigned channel, shb_kind_t kind, const std::string &path, int standard_output, const FrameTap *tap)
    : m_channel(channel), m_kind(kind), m_path(path), m_tap(tap) {
    if (path == "-") {
        m_target = standard_output;
    } else {
        constexpr mode_t kMode = 0666;
        m_file = Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
        if (!m_file) {
            throw std::runtime_error(path + ": " + std::strerror(errno));
        }
        m_target = m_file.Get();
    }
    shb_reader_t *reader = nullptr;
    const int result = shb_reader_open(map, channel, 0, kind, SHB_START_OLDEST, &reader);
    if (result != SHB_OK) {
        throw std::runtime_error(path + ": the shared buffer cannot be read: " + shb_strerror(result));
    }
    m_reader.reset(reader);
    m_thread = std::thread(&Dump::Run, this);
}

Dump::~Dump() {
    Finish();
}

void Dump::Report(TrackSample &track) const {
    track.dumped_frames = m_frames.load();
    track.lost_frames = m_lost.load();
    track.discontinuities = m_discontinuities.load();
}

void Dump::Finish() {
    m_finish.store(true);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void Dump::Run() {
    std::vector<uint8_t> data(kFirstCapacity);
    for (;;) {
        // Seen before the read, so that what came until then is still written.
        const bool finishing = m_finish.load();
        shb_frame_t frame{};
        const int result = shb_reader_read(m_reader.get(), data.data(), data.size(), finishing ? 0 : kReadMs, &frame);
        if (result == SHB_OK) {
            if (!IsWanted(frame, finishing)) {
                return;
            }
            m_lost.fetch_add(frame.lost);
            // The first frame of an epoch follows nothing that it could have a gap to.
            if ((frame.flags & SHB_FRAME_DISCONT) != 0 && frame.sequence > 0) {
                m_discontinuities.fetch_add(1);
            }
            if (!Write(data.data(), frame.size)) {
                m_failed.store(true);
                return;
            }
            m_frames.fetch_add(1);
        } else if (result == SHB_ERR_TOO_BIG && frame.size > data.size()) {
            data.resize(frame.size);
        } else if (result != SHB_ERR_TIMEOUT) {
            if (result != SHB_ERR_CLOSED) {
                m_error = m_path + ": the shared buffer cannot be read: " + shb_strerror(result);
                m_failed.store(true);
            }
            return;
        } else if (finishing) {
            return;
        }
    }
}

// False once the frames are over that the tap counts.
bool Dump::IsWanted(const shb_frame_t &frame, bool finishing) {
    if (m_tap == nullptr) {
        return true;
    }
    const uint64_t known = m_frames.load() + m_lost.load();
    const uint64_t number = known + frame.lost;
    for (;;) {
        const FrameTap::Verdict verdict = m_tap->Judge(m_kind, number, std::chrono::milliseconds(kReadMs));
        if (verdict == FrameTap::Verdict::kWithin) {
            return true;
        }
        if (verdict == FrameTap::Verdict::kBeyond) {
            // The last of those that count may be among the lost.
            const uint64_t counted = m_tap->Frames(m_kind);
            m_lost.fetch_add(counted > known ? std::min(frame.lost, counted - known) : 0);
            return false;
        }
        // A tap that goes on counting has the last word, but nobody waits for it at the end.
        if (std::exchange(finishing, m_finish.load())) {
            return false;
        }
    }
}

bool Dump::Write(const uint8_t *data, size_t size) {
    const auto begin = std::chrono::steady_clock::now();
    const auto give_up = [this, begin] { return m_finish.load() && std::chrono::steady_clock::now() - begin > kStalled; };
    if (WriteAll(m_target, {reinterpret_cast<const char *>(data), size}, give_up)) {
        return true;
    }
    if (errno == ECANCELED) {
        m_error = m_path + ": nobody takes the data; the end of the stream is not written";
    } else if (errno != EPIPE) {
        m_error = m_path + ": " + std::strerror(errno);
    }
    return false;
}

}  // namespace tool
