// The stall watch: told once for each silence of a track that has carried data, and never of anything else.
#include <gtest/gtest.h>

#include <thread>

#include "shb_support.h"

using namespace shbtest;

namespace {

struct Told {
    std::atomic<int> times{0};
    std::atomic<uint64_t> silent_ms{0};
    std::atomic<bool> hold{false};  // the handler stays until this is taken back
    std::atomic<bool> inside{false};
    std::atomic<bool> left{false};
    static void Handle(void *user, uint64_t silent_ms) {
        auto *self = static_cast<Told *>(user);
        self->silent_ms = silent_ms;
        self->inside = true;
        while (self->hold)
            sched_yield();
        self->left = true;
        self->times++;
    }
};

}  // namespace

class ShbStall : public ::testing::Test {
  protected:
    // A second track is watched alongside: when it has been told of its silence
    // again and again, the others would have been, too.
    ShbStall() {
        EXPECT_EQ(SHB_OK, shb_writer_on_stall(writer_.get(), Told::Handle, &told_));
        EXPECT_EQ(SHB_OK, shb_writer_on_stall(witness_.get(), Told::Handle, &witnessed_));
    }
    // Lets the watch come round several times.
    void LetTheWatchPass() {
        for (int i = 0; i < 3; i++) {
            const int before = witnessed_.times;
            WritePattern(witness_, 1, 0, 10);
            ASSERT_TRUE(Eventually([&] { return witnessed_.times > before; }));
        }
    }
    const std::string name_ = UniqueName();
    Buffer buffer_ = Create(name_, SmallGeometry());
    Told told_, witnessed_;
    Writer writer_ = OpenWriter(buffer_, SHB_VIDEO);
    Writer witness_ = OpenWriter(buffer_, SHB_AUDIO);
};

TEST_F(ShbStall, IsOffUnlessSet) {
    EXPECT_EQ(0u, shb_get_stall_watch(buffer_.get()));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_stall_watch(nullptr, 1));
    EXPECT_EQ(SHB_ERR_ARG, shb_set_stall_watch(buffer_.get(), (uint32_t{1} << 31) + 1));
    EXPECT_EQ(SHB_ERR_ARG, shb_writer_on_stall(nullptr, Told::Handle, &told_));
    EXPECT_EQ(0u, shb_get_stall_watch(nullptr));
    EXPECT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), uint32_t{1} << 31));
    EXPECT_EQ(uint32_t{1} << 31, shb_get_stall_watch(buffer_.get()));
    EXPECT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 0));
    // Silent from here on, while heartbeats show that the watch has come by.
    WritePattern(writer_, 1, 0, 10);
    Map map = Attach(name_);
    shb_info_t info{};
    for (int beats = 0; beats < 3; beats++) {
        ASSERT_EQ(SHB_OK, shb_map_info(map.get(), &info));
        uint64_t age = info.heartbeat_age_ns;
        ASSERT_TRUE(Eventually([&] {
            const uint64_t before = age;
            shb_map_info(map.get(), &info);
            age = info.heartbeat_age_ns;
            return age < before;
        }));
    }
    EXPECT_EQ(0, told_.times);
    // Set while the track is open, it takes effect for the silence that is.
    EXPECT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 1));
    EXPECT_TRUE(Eventually([&] { return told_.times == 1; }));
    EXPECT_GE(told_.silent_ms, 250u) << "it had been silent for heartbeats";
}

TEST_F(ShbStall, IsToldOnceForEachSilence) {
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 20));
    for (int silence = 1; silence <= 3; silence++) {
        WritePattern(writer_, 1, static_cast<uint64_t>(silence), 10);
        ASSERT_TRUE(Eventually([&] { return told_.times == silence; }));
        EXPECT_GE(told_.silent_ms, 20u);
        LetTheWatchPass();
        EXPECT_EQ(silence, told_.times) << "once until data flows again";
    }
}

TEST_F(ShbStall, IsNotToldBeforeTheFirstFrameOfTheEpoch) {
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 1));
    LetTheWatchPass();
    EXPECT_EQ(0, told_.times);
    WritePattern(writer_, 1, 0, 10);
    EXPECT_TRUE(Eventually([&] { return told_.times == 1; }));
    // A new writer has its own first frame to wait for, whatever the last one wrote.
    writer_.reset();
    writer_ = OpenWriter(buffer_, SHB_VIDEO);
    ASSERT_EQ(SHB_OK, shb_writer_on_stall(writer_.get(), Told::Handle, &told_));
    LetTheWatchPass();
    EXPECT_EQ(1, told_.times);
    // A frame that was too big is none.
    const std::vector<uint8_t> huge(65537);
    EXPECT_EQ(SHB_ERR_TOO_BIG, shb_writer_write(writer_.get(), huge.data(), huge.size(), 0, 0, 0, 0));
    LetTheWatchPass();
    EXPECT_EQ(1, told_.times);
}

TEST_F(ShbStall, IsNotToldWithoutAHandlerNorAfterTheEnd) {
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 1));
    EXPECT_EQ(SHB_OK, shb_writer_on_stall(writer_.get(), nullptr, nullptr));
    WritePattern(writer_, 1, 0, 10);
    LetTheWatchPass();
    EXPECT_EQ(0, told_.times);
    EXPECT_EQ(SHB_OK, shb_writer_on_stall(writer_.get(), Told::Handle, &told_));
    ASSERT_TRUE(Eventually([&] { return told_.times == 1; }));
    WritePattern(writer_, 1, 1, 10);
    writer_.reset();
    const int times = told_.times;
    LetTheWatchPass();
    EXPECT_EQ(times, told_.times);
}

TEST_F(ShbStall, CloseWaitsForTheHandlerThatRuns) {
    ASSERT_EQ(SHB_OK, shb_set_stall_watch(buffer_.get(), 1));
    told_.hold = true;
    WritePattern(writer_, 1, 0, 10);
    ASSERT_TRUE(Eventually([&] { return told_.inside.load(); }));
    std::atomic<bool> closing{false};
    bool had_left = false;
    std::thread closer([&] {
        closing = true;
        writer_.reset();
        had_left = told_.left;
    });
    ASSERT_TRUE(Eventually([&] { return closing.load(); }));
    told_.hold = false;
    closer.join();
    EXPECT_TRUE(had_left) << "the handler was still running when the writer was closed";
    EXPECT_EQ(1, told_.times);
}
