// Waiting for several readers: by one call, and by the descriptor of a set.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>

#include <map>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

struct SetDeleter {
    void operator()(shb_set_t *set) const { shb_set_close(set); }
};
using Set = std::unique_ptr<shb_set_t, SetDeleter>;

Set OpenSet() {
    shb_set_t *set = nullptr;
    return Set(shb_set_open(&set) == SHB_OK ? set : nullptr);
}

// A buffer with a writer for each of its tracks, and a reader.
struct Source {
    explicit Source(shb_kind_t kind = SHB_VIDEO)
        : buffer(Create(name, SmallGeometry())),
          writer(OpenWriter(buffer, kind)),
          map(Attach(name)),
          reader(OpenReader(map, SHB_START_NEWEST, kind)) {}
    void Write() { EXPECT_EQ(SHB_OK, WritePattern(writer, 1, written++, 100, SHB_FRAME_KEY)); }

    const std::string name = UniqueName();
    Buffer buffer;
    Writer writer;
    Map map;
    Reader reader;
    uint64_t written = 0;
};

bool Readable(int fd, int timeout_ms) {
    pollfd descriptor{fd, POLLIN, 0};
    return poll(&descriptor, 1, timeout_ms) == 1;
}

}  // namespace

TEST(ShbWaitAny, FindsTheOneThatHasSomething) {
    Source a, b(SHB_AUDIO), c;
    shb_reader_t *const readers[] = {a.reader.get(), b.reader.get(), c.reader.get()};
    size_t index = 99;
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_wait_any(readers, 3, 0, &index));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_wait_any(readers, 3, 20, &index));
    EXPECT_EQ(99u, index);
    b.Write();
    ASSERT_EQ(SHB_OK, shb_wait_any(readers, 3, -1, &index));
    EXPECT_EQ(1u, index);
    EXPECT_EQ(SHB_OK, Read(b.reader).result);
    // In turns.
    a.Write();
    b.Write();
    c.Write();
    for (const size_t expected : {2u, 0u, 1u, 2u}) {
        ASSERT_EQ(SHB_OK, shb_wait_any(readers, 3, 0, &index));
        EXPECT_EQ(expected, index);
    }
    EXPECT_EQ(SHB_OK, Read(a.reader).result);
    EXPECT_EQ(SHB_OK, Read(b.reader).result);
    EXPECT_EQ(SHB_OK, Read(c.reader).result);
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_wait_any(readers, 3, 0, &index));
    // An end is something to say.
    c.writer.reset();
    c.buffer.reset();
    ASSERT_EQ(SHB_OK, shb_wait_any(readers, 3, 20'000, &index));
    EXPECT_EQ(2u, index);
    EXPECT_EQ(SHB_ERR_CLOSED, Read(c.reader).result);
}

TEST(ShbWaitAny, RefusesWhatItCannotWaitFor) {
    Source a;
    shb_reader_t *const one[] = {a.reader.get()};
    shb_reader_t *const none[] = {nullptr};
    size_t index = 0;
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(nullptr, 1, 0, &index));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(one, 0, 0, &index));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(one, 1025, 0, &index));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(one, 1, -2, &index));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(one, 1, 0, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(none, 1, 0, &index));
    a.Write();
    const void *data = nullptr;
    shb_frame_t frame{};
    ASSERT_EQ(SHB_OK, shb_reader_borrow(a.reader.get(), 0, &data, &frame));
    EXPECT_EQ(SHB_ERR_ARG, shb_wait_any(one, 1, 0, &index));
    EXPECT_EQ(SHB_OK, shb_reader_return(a.reader.get()));
}

// More than one call to the system can wait for at once.
TEST(ShbWaitAny, ManyReadersLoseNothing) {
    for (const size_t count : {size_t{20}, size_t{150}}) {
        Source sources[4];
        std::vector<Reader> readers;
        std::vector<shb_reader_t *> all;
        for (size_t i = 0; i < count; i++) {
            readers.push_back(OpenReader(sources[i % 4].map, SHB_START_NEWEST));
            all.push_back(readers.back().get());
        }
        constexpr uint64_t kFrames = 40;
        std::atomic<uint64_t> done{0};
        const auto readers_of = [&](uint64_t source) { return count / 4 + (source < count % 4 ? 1 : 0); };
        uint64_t wanted = 0;
        for (uint64_t i = 0; i < kFrames; i++)
            wanted += readers_of(i % 4);
        std::thread writer([&] {
            uint64_t expected = 0;
            for (uint64_t i = 0; i < kFrames; i++) {
                // The next one when this one has come to all of its readers: some of them sleep each time.
                sources[i % 4].Write();
                expected += readers_of(i % 4);
                if (!Eventually([&] { return done == expected; }))
                    return;
            }
        });
        size_t index = count;
        while (done < wanted) {
            ASSERT_EQ(SHB_OK, shb_wait_any(all.data(), count, 30'000, &index));
            const ReadFrame got = Read(readers[index]);
            ASSERT_EQ(SHB_OK, got.result);
            EXPECT_EQ(0u, got.frame.lost);
            done++;
        }
        writer.join();
        EXPECT_EQ(SHB_ERR_TIMEOUT, shb_wait_any(all.data(), count, 0, &index));
    }
}

TEST(ShbSet, TheDescriptorTellsOfFramesAndEnds) {
    Source a, b(SHB_AUDIO);
    Set set = OpenSet();
    ASSERT_TRUE(set);
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), a.reader.get()));
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), b.reader.get()));
    const int fd = shb_set_fd(set.get());
    shb_reader_t *ready = nullptr;
    // Readable at first, since something may have been there before.
    EXPECT_TRUE(Readable(fd, 20'000));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    b.Write();
    EXPECT_TRUE(Readable(fd, 20'000));
    ASSERT_EQ(SHB_OK, shb_set_next(set.get(), 0, &ready));
    EXPECT_EQ(b.reader.get(), ready);
    EXPECT_EQ(SHB_OK, Read(b.reader).result);
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 5, &ready));
    a.Write();
    ASSERT_EQ(SHB_OK, shb_set_next(set.get(), -1, &ready));
    EXPECT_EQ(a.reader.get(), ready);
    EXPECT_EQ(SHB_OK, Read(a.reader).result);
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    a.writer.reset();
    a.buffer.reset();
    EXPECT_TRUE(Readable(fd, 20'000));
    ASSERT_TRUE(Eventually([&] { return shb_set_next(set.get(), 0, &ready) == SHB_OK; }));
    EXPECT_EQ(a.reader.get(), ready);
    EXPECT_EQ(SHB_ERR_CLOSED, Read(a.reader).result);
    EXPECT_EQ(SHB_OK, shb_set_remove(set.get(), a.reader.get()));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
}

// Idle, the descriptor is not readable for long stretches: an event loop may sleep.
TEST(ShbSet, AnIdleSetLetsItsLoopSleep) {
    Source a;
    Set set = OpenSet();
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), a.reader.get()));
    shb_reader_t *ready = nullptr;
    unsigned looks = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end) {
        looks++;
        ASSERT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
        Readable(shb_set_fd(set.get()), 500);
    }
    // Once a second to look after the creator, besides those of the poll above.
    EXPECT_LE(looks, 12u);
}

TEST(ShbSet, NothingIsLostByAnEventLoop) {
    Source sources[3];
    Set set = OpenSet();
    std::map<shb_reader_t *, uint64_t> due;
    for (Source &source : sources) {
        ASSERT_EQ(SHB_OK, shb_set_add(set.get(), source.reader.get()));
        due[source.reader.get()] = 0;
    }
    constexpr uint64_t kFrames = 600;
    std::atomic<uint64_t> got{0};
    std::thread writer([&] {
        for (uint64_t i = 0; i < kFrames; i++) {
            // In bursts that the tracks can hold, after each of which everything is waited for.
            if (i % 24 == 0 && !Eventually([&] { return got == i; }))
                return;
            sources[i % 3].Write();
        }
    });
    // Inside the loop of the host.
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    ASSERT_EQ(0, epoll_ctl(loop, EPOLL_CTL_ADD, shb_set_fd(set.get()), &event));
    while (got < kFrames) {
        shb_reader_t *ready = nullptr;
        int result = SHB_OK;
        while ((result = shb_set_next(set.get(), 0, &ready)) == SHB_OK) {
            std::vector<uint8_t> data(1000);
            shb_frame_t frame{};
            ASSERT_EQ(SHB_OK, shb_reader_read(ready, data.data(), data.size(), 0, &frame));
            EXPECT_EQ(due[ready]++, frame.sequence);
            got++;
        }
        ASSERT_EQ(SHB_ERR_TIMEOUT, result);
        if (got < kFrames) {
            ASSERT_EQ(1, epoll_wait(loop, &event, 1, 30'000));
        }
    }
    writer.join();
    close(loop);
}

TEST(ShbSet, ACreatorThatWasKilledWakesTheLoop) {
    const std::string name = UniqueName();
    Pipe made;
    Child creator([&] {
        const Buffer buffer = Create(name, SmallGeometry());
        made.Signal();
        pause();
        return 0;
    });
    ASSERT_TRUE(made.Await());
    const Map map = Attach(name);
    Reader reader = OpenReader(map, SHB_START_NEWEST);
    Set set = OpenSet();
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), reader.get()));
    shb_reader_t *ready = nullptr;
    ASSERT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    creator.Kill();
    int result = SHB_ERR_TIMEOUT;
    while (result == SHB_ERR_TIMEOUT) {
        ASSERT_TRUE(Readable(shb_set_fd(set.get()), 20'000));
        result = shb_set_next(set.get(), 0, &ready);
    }
    ASSERT_EQ(SHB_OK, result);
    EXPECT_EQ(SHB_ERR_CLOSED, Read(reader).result);
    reader.reset();
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
}

// Without a socket to the creator (none may be left) the descriptor is readable often enough to look.
TEST(ShbSet, WithoutASocketItLooksByItself) {
    Source a;
    ASSERT_EQ(0, unlink(shb_file(a.buffer.get(), 2)));
    Set set = OpenSet();
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), a.reader.get()));
    shb_reader_t *ready = nullptr;
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
        a.Write();
        while (shb_set_next(set.get(), 0, &ready) == SHB_ERR_TIMEOUT)
            ASSERT_TRUE(Readable(shb_set_fd(set.get()), 20'000));
        EXPECT_EQ(SHB_OK, Read(a.reader).result);
    }
}

TEST(ShbSet, MembersComeAndGo) {
    Source a, b;
    Set set = OpenSet(), other = OpenSet();
    EXPECT_EQ(SHB_ERR_ARG, shb_set_open(nullptr));
    EXPECT_EQ(-1, shb_set_fd(nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_add(nullptr, a.reader.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_add(set.get(), nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_remove(set.get(), a.reader.get()));
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), a.reader.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_add(set.get(), a.reader.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_add(other.get(), a.reader.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_remove(other.get(), a.reader.get()));
    ASSERT_EQ(SHB_OK, shb_set_add(set.get(), b.reader.get()));
    shb_reader_t *ready = nullptr;
    EXPECT_EQ(SHB_ERR_ARG, shb_set_next(set.get(), -2, &ready));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_next(set.get(), 0, nullptr));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    // One that is closed leaves by itself.
    b.reader.reset();
    a.Write();
    ASSERT_EQ(SHB_OK, shb_set_next(set.get(), 0, &ready));
    EXPECT_EQ(a.reader.get(), ready);
    EXPECT_EQ(SHB_OK, shb_set_remove(set.get(), a.reader.get()));
    EXPECT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
    ASSERT_EQ(SHB_OK, shb_set_add(other.get(), a.reader.get()));
    ASSERT_EQ(SHB_OK, shb_set_next(other.get(), 0, &ready));
    other.reset();
    EXPECT_EQ(SHB_OK, Read(a.reader).result);
}

// Nobody who waits by a socket costs the writer more than one call, and nobody at all none: see ShbWait for the latter.
TEST(ShbSet, HundredsOfDescriptorsAreAllWoken) {
    Source a;
    constexpr size_t kSets = 200;
    std::vector<Set> sets;
    std::vector<Reader> readers;
    for (size_t i = 0; i < kSets; i++) {
        sets.push_back(OpenSet());
        readers.push_back(OpenReader(a.map, SHB_START_NEWEST));
        ASSERT_TRUE(sets.back() && readers.back());
        ASSERT_EQ(SHB_OK, shb_set_add(sets.back().get(), readers.back().get()));
    }
    shb_reader_t *ready = nullptr;
    for (int frame = 0; frame < 10; frame++) {
        for (const Set &set : sets)
            ASSERT_EQ(SHB_ERR_TIMEOUT, shb_set_next(set.get(), 0, &ready));
        a.Write();
        for (size_t i = 0; i < kSets; i++) {
            ASSERT_TRUE(Readable(shb_set_fd(sets[i].get()), 20'000)) << i;
            ASSERT_TRUE(Eventually([&] { return shb_set_next(sets[i].get(), 0, &ready) == SHB_OK; }));
            ASSERT_EQ(SHB_OK, Read(readers[i]).result);
        }
    }
}
