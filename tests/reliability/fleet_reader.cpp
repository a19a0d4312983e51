// Reads one track of a buffer until its host is gone and checks that the numbers of the frames leave no hole that was not
// reported as lost.
//
//     fleet-reader BUFFER video|audio PAUSE_MS
//
// PAUSE_MS: a pause behind each frame, which makes a reader too slow; there is none once the host is gone. Prints "reading" once
// it is attached, and at the end one line of "name=number".
#include <shb.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

struct Count {
    uint64_t before = 0;  // frames that the reader began behind
    uint64_t holes = 0;   // frames whose number does not follow from the one before and what was lost
    uint64_t epochs = 0;
    uint64_t unknown = 0;  // 1: the track had an earlier writer when the reader came
};

class Checker {
  public:
    void Take(const shb_frame_t &frame) {
        if (m_count.epochs == 0) {
            m_count.before = frame.sequence - frame.lost;
            // Frames of epochs that were over when the reader came look like lost ones.
            m_count.unknown += frame.lost_before > 0 ? 1 : 0;
        } else if (frame.epoch == m_epoch) {
            m_count.holes += frame.sequence == m_sequence + 1 + frame.lost && frame.lost_before == 0 ? 0 : 1;
        } else {
            m_count.holes += frame.epoch > m_epoch && frame.sequence == frame.lost - frame.lost_before ? 0 : 1;
        }
        m_count.epochs += m_count.epochs == 0 || frame.epoch != m_epoch ? 1 : 0;
        m_epoch = frame.epoch;
        m_sequence = frame.sequence;
    }
    const Count &Result() const { return m_count; }

  private:
    Count m_count;
    uint64_t m_epoch = 0;
    uint64_t m_sequence = 0;
};

int Read(shb_map_t *map, shb_reader_t *reader, shb_kind_t kind, std::chrono::milliseconds pause) {
    std::string data(size_t{1} << 20, '\0');
    Checker checker;
    int result = SHB_OK;
    while (result == SHB_OK || result == SHB_ERR_TIMEOUT) {
        shb_frame_t frame{};
        constexpr int kTimeoutMs = 1000;
        result = shb_reader_read(reader, data.data(), data.size(), kTimeoutMs, &frame);
        if (result == SHB_OK) {
            checker.Take(frame);
            if (pause.count() > 0 && shb_map_alive(map) != 0) {
                std::this_thread::sleep_for(pause);
            }
        }
    }
    shb_reader_stats_t stats{};
    shb_stats_t track{};
    shb_reader_get_stats(reader, &stats);
    shb_map_stats(map, 0, 0, kind, &track);
    const Count &count = checker.Result();
    std::printf("before=%" PRIu64 " frames=%" PRIu64 " lost=%" PRIu64 " waiting=%" PRIu64 " written=%" PRIu64 " holes=%" PRIu64
                " epochs=%" PRIu64 " unknown=%" PRIu64 " result=%d\n",
                count.before, stats.frames, stats.lost, stats.waiting, track.total_frames, count.holes, count.epochs,
                count.unknown, result);
    return result == SHB_ERR_CLOSED ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s BUFFER video|audio PAUSE_MS\n", argv[0]);
        return 2;
    }
    const shb_kind_t kind = std::string(argv[2]) == "video" ? SHB_VIDEO : SHB_AUDIO;
    shb_map_t *map = nullptr;
    shb_reader_t *reader = nullptr;
    int result = shb_attach(argv[1], &map);
    if (result == SHB_OK) {
        result = shb_reader_open(map, 0, 0, kind, SHB_START_OLDEST, &reader);
    }
    if (result != SHB_OK) {
        std::fprintf(stderr, "%s: %s\n", argv[1], shb_strerror(result));
        return 1;
    }
    std::printf("reading\n");
    std::fflush(stdout);
    const int status = Read(map, reader, kind, std::chrono::milliseconds(std::strtol(argv[3], nullptr, 10)));
    shb_reader_close(reader);
    shb_detach(map);
    return status;
}
