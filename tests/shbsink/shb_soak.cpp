// One writer at full speed and sixteen readers of every kind, for as long as
// wanted: no frame is torn, and every loss is counted.
//
//     shb_soak [--frames N] [--seconds N]
//
// Ends when N frames have been written, each reader has had a hundredth of that, and N seconds have passed.
//
// Ends with 0 when all of that holds, and prints what was seen.
#include <getopt.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "shb_support.h"

using namespace shbtest;

namespace {

constexpr size_t kReaders = 16;
constexpr size_t kLargest = 200'000;

// Order and place of every word count, so that what was mixed from two frames cannot have the sum of either.
uint64_t Sum(const uint8_t *bytes, size_t size) {
    uint64_t sum = size;
    size_t at = 0;
    for (; at + 8 <= size; at += 8) {
        uint64_t word;
        memcpy(&word, bytes + at, 8);
        sum = (sum ^ word) * 0x9e3779b97f4a7c15u;
        sum ^= sum >> 29;
    }
    for (; at < size; at++)
        sum = (sum ^ bytes[at]) * 0x100000001b3u;
    return sum;
}

// A frame: its number, some noise, and at the front the sum of all that follows.
void Fill(std::vector<uint8_t> &bytes, uint64_t sequence, std::mt19937_64 &random) {
    for (size_t at = 16; at + 8 <= bytes.size(); at += 8) {
        const uint64_t word = sequence * 0x2545f4914f6cdd1du + at;
        memcpy(bytes.data() + at, &word, 8);
    }
    const uint64_t noise = random();
    memcpy(bytes.data() + bytes.size() - 8, &noise, 8);
    memcpy(bytes.data() + 8, &sequence, 8);
    const uint64_t sum = Sum(bytes.data() + 8, bytes.size() - 8);
    memcpy(bytes.data(), &sum, 8);
}

bool Whole(const uint8_t *bytes, const shb_frame_t &frame) {
    uint64_t sum, sequence;
    memcpy(&sum, bytes, 8);
    memcpy(&sequence, bytes + 8, 8);
    return sequence == frame.sequence && sum == Sum(bytes + 8, frame.size - 8) && frame.pts == sequence * 3;
}

struct Kind {
    shb_start_t start;
    bool in_place, waits, dawdles;
};

// Every combination once.
Kind KindOf(size_t which) {
    static const shb_start_t starts[] = {SHB_START_OLDEST, SHB_START_NEWEST, SHB_START_KEY, SHB_START_OLDEST};
    return {starts[which / 4], which % 2 == 1, which / 2 % 2 == 0, which >= 12};
}

struct Tally {
    std::atomic<uint64_t> delivered;
    uint64_t lost, unread, before, torn, overruns, wrong;
    std::atomic<bool> ready;
};
struct Common {
    Tally tallies[kReaders];
    std::atomic<uint64_t> written;
    std::atomic<bool> over;
};

void Read(const std::string &name, const Kind &kind, Tally &tally) {
    Map map = Attach(name);
    Reader reader = OpenReader(map, kind.start);
    std::vector<uint8_t> bytes(kLargest);
    std::mt19937 random(static_cast<unsigned>(getpid()));
    bool first = true;
    uint64_t next = 0;
    tally.ready = true;
    for (;;) {
        shb_frame_t frame;
        const void *place = bytes.data();
        const int timeout = kind.waits ? -1 : 0;
        const int result = kind.in_place ? shb_reader_borrow(reader.get(), timeout, &place, &frame)
                                         : shb_reader_read(reader.get(), bytes.data(), bytes.size(), timeout, &frame);
        if (result == SHB_ERR_CLOSED)
            break;
        if (result == SHB_ERR_TIMEOUT) {
            sched_yield();
            continue;
        }
        if (result != SHB_OK) {
            tally.wrong++;
            break;
        }
        const bool whole = Whole(static_cast<const uint8_t *>(place), frame);
        if (kind.dawdles && random() % 8 == 0)
            usleep(static_cast<useconds_t>(random() % 3000));
        if (kind.in_place && shb_reader_return(reader.get()) != SHB_OK) {
            tally.overruns++;
            continue;
        }
        tally.torn += !whole;
        // Where the start rule led it; from there on nothing may be missing from the count.
        if (first)
            tally.before = frame.sequence - frame.lost;
        else
            tally.wrong += frame.sequence != next + frame.lost;
        first = false;
        next = frame.sequence + 1;
        tally.delivered++;
        tally.lost += frame.lost;
    }
    shb_reader_stats_t stats{};
    shb_reader_get_stats(reader.get(), &stats);
    tally.unread = stats.waiting;
    tally.wrong += stats.frames != tally.delivered || stats.lost != tally.lost ||
                   stats.offered != stats.frames + stats.lost + stats.waiting;
}

// The creator: writes until it is told to stop.
int Write(const std::string &name, Common &common, const Pipe &made) {
    shb_geometry_t geometry{};
    geometry.video_bytes = 1 << 20;
    geometry.video_frames = 256;
    Buffer buffer = Create(name, geometry);
    Writer writer = OpenWriter(buffer);
    if (!writer)
        return 1;
    made.Signal();
    const auto all_ready = [&] {
        size_t ready = 0;
        for (const Tally &tally : common.tallies)
            ready += tally.ready;
        return ready == kReaders;
    };
    if (!Eventually(all_ready))
        return 2;
    std::mt19937_64 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    std::vector<uint8_t> bytes;
    for (uint64_t sequence = 0; !common.over; sequence++) {
        bytes.resize(24 + (sequence % 25 == 0 ? random() % (kLargest - 24) : random() % 6000));
        Fill(bytes, sequence, random);
        if (shb_writer_write(writer.get(), bytes.data(), bytes.size(), sequence * 3, 0, 0,
                             sequence % 25 == 0 ? uint32_t{SHB_FRAME_KEY} : 0u) != SHB_OK)
            return 3;
        common.written = sequence + 1;
    }
    return 0;
}

int Soak(uint64_t frames, unsigned seconds) {
    const std::string name = UniqueName();
    Shared<Common> common;
    Pipe made;
    Child writer([&] { return Write(name, *common, made); });
    if (!made.Await() || FilesOf(name).size() != 3)
        return 1;
    std::vector<std::unique_ptr<Child>> readers;
    for (size_t i = 0; i < kReaders; i++)
        readers.push_back(std::make_unique<Child>([&, i] {
            Read(name, KindOf(i), common->tallies[i]);
            return 0;
        }));
    const auto enough = [&] {
        return common->written >= frames && std::all_of(std::begin(common->tallies), std::end(common->tallies),
                                                        [&](const Tally &tally) { return tally.delivered >= frames / 100; });
    };
    siginfo_t ended{};
    unsigned second = 0;
    for (; (second < seconds || !enough()) && ended.si_pid == 0; second++) {
        sleep(1);
        waitid(P_PID, static_cast<id_t>(writer.Id()), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
    common->over = true;
    bool good = writer.Wait() == 0;
    for (const auto &reader : readers)
        good = reader->Wait() == 0 && good;

    const uint64_t written = common->written;
    static const char *const starts[] = {"oldest", "newest", "key"};
    printf("%llu frames written in %u s\n\n", static_cast<unsigned long long>(written), second);
    printf("start   way    waits  slow   before   delivered        lost  unread  overruns  torn  wrong\n");
    uint64_t lost = 0, delivered = 0;
    for (size_t i = 0; i < kReaders; i++) {
        const Kind kind = KindOf(i);
        const Tally &t = common->tallies[i];
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        printf("%-7s %-6s %-6s %-4s %8llu %11llu %11llu %7llu %9llu %5llu %6llu\n", starts[kind.start],
               kind.in_place ? "place" : "copy", kind.waits ? "yes" : "no", kind.dawdles ? "yes" : "no", number(t.before),
               number(t.delivered), number(t.lost), number(t.unread), number(t.overruns), number(t.torn), number(t.wrong));
        lost += t.lost;
        delivered += t.delivered;
        good = good && t.torn == 0 && t.wrong == 0 && t.delivered > 0 && t.before + t.delivered + t.lost + t.unread == written;
    }
    /* Without losses the readers were never in the writer's way, and the figures above prove little. */
    good = good && lost > 0 && delivered > 0;
    puts(good ? "\nevery frame whole, every loss counted" : "\nWRONG");
    return good && FilesOf(name).empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    uint64_t frames = 100'000;
    unsigned seconds = 0;
    static const option options[] = {
        {"frames", required_argument, nullptr, 'f'}, {"seconds", required_argument, nullptr, 's'}, {}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (c == 'f') {
            frames = strtoull(optarg, nullptr, 10);
        } else if (c == 's') {
            seconds = static_cast<unsigned>(strtoul(optarg, nullptr, 10));
        } else {
            fprintf(stderr, "usage: %s [--frames N] [--seconds N]\n", argv[0]);
            return 2;
        }
    }
    // It takes all there is; others come first.
    setpriority(PRIO_PROCESS, 0, 15);
    return Soak(frames, seconds);
}
