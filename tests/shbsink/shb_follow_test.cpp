// A reader that follows a name through all that happens to its host.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <thread>

#include "shb_layout.h"
#include "shb_support.h"

extern "C" int shbtest_follow(const char *name, int kind, int start, shb_follow_t **out);

using namespace shbtest;

namespace {

struct FollowDeleter {
    void operator()(shb_follow_t *follow) const { shb_follow_close(follow); }
};
using Follow = std::unique_ptr<shb_follow_t, FollowDeleter>;

Follow Open(const std::string &name, const shb_follow_options_t *options = nullptr) {
    shb_follow_t *follow = nullptr;
    return Follow(shb_follow_open(name.c_str(), options, &follow) == SHB_OK ? follow : nullptr);
}

struct Got {
    int result = SHB_ERR_ARG;
    uint32_t events = 99;
    shb_frame_t frame{};
};

Got Next(const Follow &follow, int timeout_ms = 20'000, size_t capacity = 1000) {
    Got got;
    std::vector<uint8_t> data(capacity);
    got.result = shb_follow_read(follow.get(), data.data(), data.size(), timeout_ms, &got.frame, &got.events);
    return got;
}

shb_description_t Video(int width) {
    shb_description_t description{};
    description.media = 48;
    description.width = width;
    return description;
}

}  // namespace

TEST(ShbFollow, WaitsForANameAndFollowsItsRestarts) {
    const std::string name = UniqueName();
    const Follow follow = Open(name);
    ASSERT_TRUE(follow);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(follow, 0).result);
    EXPECT_EQ(nullptr, shb_follow_map(follow.get()));
    EXPECT_EQ(nullptr, shb_follow_reader(follow.get()));
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    Got got = Next(follow);
    EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, got.events);
    EXPECT_NE(nullptr, shb_follow_map(follow.get()));
    EXPECT_NE(nullptr, shb_follow_reader(follow.get()));
    shb_description_t description = Video(640);
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    WritePattern(writer, 1, 0, 100);
    got = Next(follow);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(SHB_FOLLOW_MEDIA, got.events);
    WritePattern(writer, 1, 1, 100);
    got = Next(follow);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(0u, got.events);
    // The same but for what a decoder needs.
    for (const char *sets : {"set 1", "set 2"}) {
        shb_writer_describe(writer.get(), &description, sets, strlen(sets));
        WritePattern(writer, 1, 2, 100);
        EXPECT_EQ(SHB_FOLLOW_MEDIA, Next(follow).events);
    }
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    WritePattern(writer, 1, 3, 100);
    EXPECT_EQ(SHB_FOLLOW_MEDIA, Next(follow).events);
    // Another writer with the same media.
    writer.reset();
    writer = OpenWriter(buffer);
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    WritePattern(writer, 2, 0, 100);
    got = Next(follow);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(SHB_FOLLOW_EPOCH, got.events);
    // Too big for the caller: the frame and its events come again.
    description = Video(320);
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    WritePattern(writer, 2, 1, 2000);
    got = Next(follow);
    EXPECT_EQ(SHB_ERR_TOO_BIG, got.result);
    EXPECT_EQ(2000u, got.frame.size);
    got = Next(follow, 0, 2000);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(SHB_FOLLOW_MEDIA, got.events);
    // What was written last is read before the end is reported.
    WritePattern(writer, 2, 2, 100);
    writer.reset();
    buffer.reset();
    EXPECT_EQ(SHB_OK, Next(follow).result);
    got = Next(follow);
    EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
    EXPECT_EQ(SHB_FOLLOW_GONE, got.events);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(follow, 30).result);
    buffer = Create(name, SmallGeometry());
    got = Next(follow);
    EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED | SHB_FOLLOW_RESTARTED, got.events);
    writer = OpenWriter(buffer);
    shb_writer_describe(writer.get(), &description, nullptr, 0);
    WritePattern(writer, 1, 0, 100);
    got = Next(follow);
    EXPECT_EQ(SHB_OK, got.result);
    EXPECT_EQ(0u, got.events) << "the media are what they were";
}

TEST(ShbFollow, AppearsWhileItWaits) {
    const std::string name = UniqueName();
    const Follow follow = Open(name);
    std::atomic<bool> waiting{false};
    Buffer buffer;
    std::thread host([&] {
        Eventually([&] { return waiting.load(); });
        buffer = Create(name, SmallGeometry());
    });
    waiting = true;
    const Got got = Next(follow, -1);
    host.join();
    EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, got.events);
}

TEST(ShbFollow, AKilledHostIsReplaced) {
    const std::string name = UniqueName();
    const Follow follow = Open(name);
    for (int round = 0; round < 3; round++) {
        Pipe made;
        Child host([&] {
            const Buffer buffer = Create(name, SmallGeometry());
            const Writer writer = OpenWriter(buffer);
            WritePattern(writer, 1, 0, 100);
            made.Signal();
            pause();
            return 0;
        });
        ASSERT_TRUE(made.Await());
        Got got = Next(follow);
        EXPECT_EQ(SHB_OK, got.result);
        EXPECT_EQ(round > 0 ? SHB_FOLLOW_ATTACHED | SHB_FOLLOW_RESTARTED : SHB_FOLLOW_ATTACHED, got.events);
        host.Kill();
        got = Next(follow);
        EXPECT_EQ(SHB_ERR_TIMEOUT, got.result);
        EXPECT_EQ(SHB_FOLLOW_GONE, got.events);
    }
    EXPECT_EQ(SHB_OK, shb_remove(name.c_str(), 0));
}

// Its name is taken away from a live host by force and given to another one: the follower goes to the one that has the name.
TEST(ShbFollow, GoesWithTheName) {
    const std::string name = UniqueName();
    const Follow follow = Open(name);
    const Buffer first = Create(name, SmallGeometry());
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, Next(follow).events);
    ASSERT_EQ(SHB_OK, shb_remove(name.c_str(), 1));
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(follow, 10).result);
    EXPECT_NE(nullptr, shb_follow_map(follow.get())) << "nobody else has the name";
    const Buffer second = Create(name, SmallGeometry());
    EXPECT_EQ(SHB_FOLLOW_GONE, Next(follow).events);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED | SHB_FOLLOW_RESTARTED, Next(follow).events);
}

TEST(ShbFollow, DamageEndsABufferAndNotTheFollower) {
    const std::string name = UniqueName();
    const Follow follow = Open(name);
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, Next(follow).events);
    {
        const Segment segment(shb_file(buffer.get(), 0));
        auto *track = reinterpret_cast<shb_track_t *>(segment.bytes + SHB_PAGE_BYTES);
        track->tail = 5;
    }
    EXPECT_EQ(SHB_ERR_CORRUPT, Next(follow).result);
    EXPECT_EQ(nullptr, shb_follow_map(follow.get()));
    // The buffer that is damaged is still there.
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(follow, 10).result);
    writer.reset();
    buffer.reset();
    buffer = Create(name, SmallGeometry());
    EXPECT_EQ(SHB_FOLLOW_ATTACHED | SHB_FOLLOW_RESTARTED, Next(follow).events);
}

TEST(ShbFollow, RefusesWhatItCannotFollow) {
    const std::string name = UniqueName();
    shb_follow_t *follow = nullptr;
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_open("a/b", nullptr, &follow));
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_open(name.c_str(), nullptr, nullptr));
    for (const int outside : {-1, 3}) {
        EXPECT_EQ(SHB_ERR_ARG, shbtest_follow(name.c_str(), SHB_VIDEO, outside, &follow));
        EXPECT_EQ(SHB_ERR_ARG, shbtest_follow(name.c_str(), outside, SHB_START_KEY, &follow));
    }
    shb_follow_options_t options{};
    options.kind = SHB_AUDIO;
    options.stream = 3;
    const Follow outside = Open(name, &options);
    ASSERT_TRUE(outside);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(outside, 0).result);
    const Buffer buffer = Create(name, SmallGeometry());
    EXPECT_EQ(SHB_ERR_ARG, Next(outside).result);
    shb_frame_t frame{};
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_read(nullptr, nullptr, 0, 0, &frame, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_read(outside.get(), nullptr, 1, 0, &frame, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_read(outside.get(), nullptr, 0, 0, nullptr, nullptr));
    EXPECT_EQ(SHB_ERR_ARG, shb_follow_read(outside.get(), nullptr, 0, -2, &frame, nullptr));
    EXPECT_EQ(nullptr, shb_follow_map(nullptr));
    EXPECT_EQ(nullptr, shb_follow_reader(nullptr));
}

TEST(ShbFollow, OnlyTheOwnerThatWasDemanded) {
    const std::string name = UniqueName();
    shb_follow_options_t options{};
    options.owner_given = 1;
    options.owner = geteuid() + 1;
    const Follow other = Open(name, &options);
    options.owner = geteuid();
    const Follow mine = Open(name, &options);
    const Buffer buffer = Create(name, SmallGeometry());
    EXPECT_EQ(0u, Next(other, 10).events);
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, Next(mine).events);
}

// What stands under the name is something else for a while.
TEST(ShbFollow, ForeignThingsAreWaitedOut) {
    const std::string name = UniqueName();
    const std::string path = "/dev/shm/" + name;
    const Follow follow = Open(name);
    const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(SHB_ERR_TIMEOUT, Next(follow, 10).result);
    ASSERT_EQ(0, unlink(path.c_str()));
    const Buffer buffer = Create(name, SmallGeometry());
    EXPECT_EQ(SHB_FOLLOW_ATTACHED, Next(follow).events);
}
