// Waiting and waking: a writer that nobody waits for makes no system
// call, and nobody who waits is ever forgotten.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <random>
#include <thread>

#include "futex_watch.h"
#include "no_system_calls.h"
#include "shb_layout.h"
#include "shb_support.h"
#include "traced.h"

using namespace shbtest;

namespace {

// Creates `name`, says so, and when told to writes a thousand frames without a single system call.
int WriteInSilence(const std::string &name, const Pipe &made, const Pipe &go) {
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    shb_description_t description{};
    std::vector<std::vector<uint8_t>> frames;
    frames.reserve(1000);
    for (uint64_t i = 0; i < 1000; i++)
        frames.push_back(Pattern(1, i, 100 + i * 37 % 5000));
    const auto write = [&](const std::vector<uint8_t> &frame) {
        description.width++;
        if (shb_writer_describe(writer.get(), &description, nullptr, 0) != SHB_OK ||
            shb_writer_write(writer.get(), frame.data(), frame.size(), 1, 2, 3, SHB_FRAME_KEY) != SHB_OK)
            _exit(1);
    };
    // The loader and the sanitizers do their own when something is called for the first time.
    write(frames[0]);
    made.Signal();
    go.Await();
    if (!ForbidSystemCalls())
        _exit(3);
    for (const auto &frame : frames)
        write(frame);
    // Not by _exit, before which the sanitizers ask for the stack.
    syscall(SYS_exit_group, 7);
    return 1;
}

shb_waiters_t &WaitersOf(const Segment &waiters, size_t track) {
    return reinterpret_cast<shb_waiters_t *>(waiters.bytes + sizeof(shb_waiters_header_t))[track];
}

const std::atomic<uint32_t> &WaitingWord(const Segment &waiters, size_t track) {
    return WaitersOf(waiters, track).waiting;
}

}  // namespace

TEST(ShbWait, WriterThatNobodyWaitsForMakesNoSystemCall) {
    const std::string name = UniqueName();
    Pipe made, go;
    Child child([&] { return WriteInSilence(name, made, go); });
    ASSERT_TRUE(made.Await());
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_NEWEST);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader).result);
    ASSERT_TRUE(go.Signal());
    const int code = child.Wait();
    if (code == 3)
        GTEST_SKIP() << "no right to filter system calls";
    EXPECT_EQ(7, code) << "it made one";
    ReadFrame got = Read(reader);
    ASSERT_EQ(SHB_OK, got.result);
    EXPECT_EQ(1000u, got.frame.sequence);
    EXPECT_EQ(999u, got.frame.lost);
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
}

TEST(ShbWait, WriterThatSomebodyWaitsForWakesHim) {
    // The counterpart: with a waiter the same writer makes a system call, and is killed for it.
    const std::string name = UniqueName();
    Pipe made, go;
    Child child([&] { return WriteInSilence(name, made, go); });
    ASSERT_TRUE(made.Await());
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_NEWEST);
    ReadFrame got;
    std::thread waiter([&] { got = Read(reader, 60'000); });
    Segment waiters(WaitersPath(name));
    ASSERT_NE(nullptr, waiters.bytes);
    EXPECT_TRUE(Eventually([&] { return WaitingWord(waiters, SHB_VIDEO) == 1; }));
    EXPECT_EQ(0u, WaitingWord(waiters, SHB_AUDIO));
    ASSERT_TRUE(go.Signal());
    EXPECT_EQ(SIGSYS, child.WaitSignal());
    waiter.join();
    // Even so: the frame had been published before, and a waiter looks by himself after a while.
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(1u, got.frame.sequence);
    EXPECT_EQ(0u, WaitingWord(waiters, SHB_VIDEO)) << "one announcement costs one system call";
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
}

// ---- Lost wakes ----------------------------------------------------------------------------------------------------

namespace {

struct Meeting {
    std::atomic<uint64_t> ready;
    std::atomic<uint64_t> acknowledged;
    std::atomic<uint64_t> woken;
    std::atomic<uint64_t> forgotten;
    std::atomic<uint64_t> wrong;
    std::atomic<uint64_t> looks;
    std::atomic<bool> over;
};

// Reads until the end, tells of each frame, and counts wakes that did not come.
int FollowLine(const std::string &name, const Shared<Meeting> &meeting) {
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    futex_watch::woken = futex_watch::forgotten = futex_watch::looks = 0;
    futex_watch::poll_ran_out = false;
    meeting->ready++;
    for (uint64_t next = 0;; next++) {
        ReadFrame got = Read(reader, -1, 65536);
        if (got.result == SHB_ERR_CLOSED)
            break;
        if (got.result != SHB_OK || got.frame.sequence != next || got.frame.lost != 0 || !got.Whole())
            meeting->wrong++;
        // The time limit of a wait at a socket had run out, and there was a frame.
        futex_watch::forgotten += futex_watch::poll_ran_out.exchange(false);
        meeting->woken += futex_watch::woken.exchange(0);
        meeting->acknowledged++;
    }
    meeting->woken += futex_watch::woken;
    meeting->forgotten += futex_watch::forgotten;
    meeting->looks += futex_watch::looks;
    return 0;
}

// Writes a frame each time that all have read the last, at a moment when some of them may just be lying down.
void LeadLine(const Writer &writer, const Shared<Meeting> &meeting, uint64_t readers, uint64_t &sequence,
              const std::function<bool(uint64_t)> &goes_on) {
    std::mt19937 random(5);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    for (uint64_t written = 0; goes_on(written); written++) {
        for (volatile auto spin = random() % (written % 2 == 0 ? 1000 : 20'000); spin > 0; spin = spin - 1)
            continue;
        ASSERT_EQ(SHB_OK, WritePattern(writer, 1, sequence, 10 + sequence % 1000));
        sequence++;
        ASSERT_TRUE(Eventually([&] { return meeting->acknowledged >= readers * sequence; })) << "frame " << sequence;
    }
}

}  // namespace

// The writer is stopped at every instruction between the publication of a frame and the end of the write;
// meanwhile a reader that has had the frame decides to sleep, and lies down only when the writer is done.
// Whoever took its announcement must have changed the word.
TEST(ShbWait, NobodyIsForgottenWhateverTheInterleaving) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Map map = Attach(name);
    const Segment waiters(WaitersPath(name));
    const Segment segment("/dev/shm/" + name);
    const auto *track = reinterpret_cast<const shb_track_t *>(segment.bytes + SHB_PAGE_BYTES);
    int after = 0;
    for (bool over = false; !over && !::testing::Test::HasFailure(); after += kSanitized ? 10 : 1) {
        SCOPED_TRACE("instruction " + std::to_string(after));
        const uint64_t before = track->head;
        shb_waiters_t &words = WaitersOf(waiters, SHB_VIDEO);
        const uint32_t word = words.wake;
        words.waiting = 0;
        const std::vector<uint8_t> bytes(100, 1);
        Writer writer;
        const auto write = [&] { shb_writer_write(writer.get(), bytes.data(), bytes.size(), 0, 0, 0, SHB_FRAME_KEY); };
        Traced traced([&] { writer = OpenWriter(buffer); }, write, write);
        if (!traced.Able())
            GTEST_SKIP() << "no right to trace a child";
        std::thread sleeper([&] { EXPECT_EQ(SHB_OK, Read(OpenReader(map, SHB_START_NEWEST), 60'000).result); });
        EXPECT_TRUE(Eventually([&] { return WaitingWord(waiters, SHB_VIDEO) == 1; }));
        while (track->head == before && traced.Step())
            continue;
        for (int i = 0; i < after && !over; i++)
            over = !traced.Step();
        // The wake itself is the kernel's.
        over = over || words.wake - word == 2;
        futex_watch::Gate gate;
        std::thread late([&] {
            Reader reader = OpenReader(map, SHB_START_NEWEST);
            futex_watch::gate_of_this_thread = &gate;
            EXPECT_EQ(SHB_OK, Read(reader, 60'000).result);
        });
        EXPECT_TRUE(Eventually([&] { return gate.waiting.load(); }));
        traced.Finish();
        gate.open = true;
        EXPECT_TRUE(Eventually([&] { return gate.Asleep(); }));
        traced.Finish();
        late.join();
        sleeper.join();
        // The other one may have looked by himself: the writer
        // stood still for as long as it took to get here.
        EXPECT_EQ(0u, gate.forgotten);
    }
    EXPECT_GT(after, 8);
    RecordProperty("instructions", after);
}

class ShbWaitMany : public ::testing::TestWithParam<bool> {};

TEST_P(ShbWaitMany, NobodyIsForgotten) {
    constexpr uint64_t kReaders = 16, kFrames = kSanitized ? 500 : 5000;
    const std::string name = UniqueName();
    Shared<Meeting> meeting;
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    std::vector<std::unique_ptr<Child>> readers;
    for (uint64_t i = 0; i < kReaders; i++)
        readers.push_back(std::make_unique<Child>([&] { return FollowLine(name, meeting); }));
    ASSERT_TRUE(Eventually([&] { return meeting->ready == kReaders; }));
    futex_watch::wakes_are_slow = GetParam();
    uint64_t sequence = 0;
    LeadLine(writer, meeting, kReaders, sequence, [&](uint64_t written) { return written < kFrames; });
    futex_watch::wakes_are_slow = false;
    writer.reset();
    buffer.reset();
    for (auto &reader : readers)
        EXPECT_EQ(0, reader->Wait());
    EXPECT_EQ(0u, meeting->wrong);
    EXPECT_EQ(kReaders * kFrames, meeting->acknowledged);
    EXPECT_GT(meeting->woken, kFrames) << "most of them were up and about all the time";
    RecordProperty("woken", static_cast<int>(meeting->woken));
    // A time limit that runs out just between a change and its wake looks the
    // same; that is rare, a forgotten waiter is not.
    EXPECT_LE(meeting->forgotten, 2u);
}

INSTANTIATE_TEST_SUITE_P(Wakes, ShbWaitMany, ::testing::Values(false, true),
                         [](const auto &which) { return which.param ? "Delayed" : "Prompt"; });

// By a socket: the file of waiters is not his.
TEST(ShbWait, ReaderOfAnotherUserIsWokenAllTheSame) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    const std::string name = UniqueName();
    Shared<Meeting> meeting;
    Buffer buffer = CreateFor(name, SmallGeometry(), 0644);
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    const std::string path = WaitersPath(name);
    ASSERT_FALSE(path.empty());
    Child reader([&] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
            return 3;
        if (open(path.c_str(), O_RDONLY) >= 0 || errno != EACCES)
            return 4;
        return FollowLine(name, meeting);
    });
    ASSERT_TRUE(Eventually([&] { return meeting->ready == 1 || kill(reader.Id(), 0) != 0; }));
    uint64_t sequence = 0;
    // On a busy machine the reader is up and about for most of the frames, so they go on until it has slept often enough.
    constexpr uint64_t kLeast = 300, kMost = 30'000, kSlept = 20;
    LeadLine(writer, meeting, 1, sequence,
             [&](uint64_t written) { return written < kLeast || (written < kMost && meeting->woken <= kSlept); });
    Segment waiters(path);
    EXPECT_EQ(0u, WaitingWord(waiters, SHB_VIDEO));
    writer.reset();
    buffer.reset();
    EXPECT_EQ(0, reader.Wait());
    EXPECT_EQ(0u, meeting->wrong);
    EXPECT_GT(meeting->woken, kSlept);
    EXPECT_LE(meeting->forgotten, 2u);
    EXPECT_EQ(0u, meeting->looks) << "it was not let in and looked by itself";
}

// A reader without waiters, so that it connects as soon as it waits for the first time: here, not in its set.
TEST(ShbWait, ReaderThatHasWaitedAloneIsWokenInItsSet) {
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_EQ(0, unlink(shb_file(buffer.get(), 1)));
    Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    shb_set_t *set = nullptr;
    shb_reader_t *found = nullptr;
    ASSERT_EQ(SHB_OK, shb_set_open(&set));
    ASSERT_EQ(SHB_OK, shb_set_add(set, reader.get()));
    EXPECT_EQ(SHB_ERR_TIMEOUT, Read(reader, 10).result);
    // The set looks by itself once a second.
    constexpr uint64_t kRounds = 10;
    uint64_t prompt = 0;
    for (uint64_t i = 0; i < kRounds; i++) {
        EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set, 0, &found));
        const auto began = std::chrono::steady_clock::now();
        WritePattern(writer, 1, i, 100);
        pollfd descriptor = {shb_set_fd(set), POLLIN, 0};
        EXPECT_EQ(1, poll(&descriptor, 1, 60'000));
        prompt += std::chrono::steady_clock::now() - began < std::chrono::milliseconds(300);
        ASSERT_EQ(SHB_OK, shb_set_next(set, 60'000, &found));
        EXPECT_EQ(reader.get(), found);
        EXPECT_EQ(i, Read(reader).frame.sequence);
    }
    // A busy machine delays some of them.
    EXPECT_GT(prompt, kRounds / 2);
    shb_set_close(set);
}

TEST(ShbWait, NoiseInTheFileOfWaitersHarmsNobody) {
    const std::string name = UniqueName();
    Shared<Meeting> meeting;
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    const std::string path = WaitersPath(name);
    ASSERT_FALSE(path.empty());
    Child follower([&] { return FollowLine(name, meeting); });
    ASSERT_TRUE(Eventually([&] { return meeting->ready == 1; }));
    Child vandal([&] {
        Segment waiters(path);
        std::mt19937_64 random(9);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
        while (!meeting->over)
            for (size_t at = 0; at + 8 <= waiters.size; at += 8)
                waiters.Put(at, random() % 3 == 0 ? uint64_t{0} : random());
        return 0;
    });
    uint64_t sequence = 0;
    LeadLine(writer, meeting, 1, sequence, [](uint64_t written) { return written < 30; });
    // Who comes now takes it for somebody else's file, and reads without it.
    Map map = Attach(name);
    Reader late = OpenReader(map, SHB_START_NEWEST);
    std::thread waiter([&] { EXPECT_EQ(SHB_OK, Read(late, 60'000).result); });
    LeadLine(writer, meeting, 1, sequence, [](uint64_t written) { return written < 30; });
    waiter.join();
    meeting->over = true;
    EXPECT_EQ(0, vandal.Wait());
    writer.reset();
    buffer.reset();
    EXPECT_EQ(0, follower.Wait());
    EXPECT_EQ(0u, meeting->wrong);
    EXPECT_TRUE(FilesOf(name).empty());
}
