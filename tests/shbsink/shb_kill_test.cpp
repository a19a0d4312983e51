// Writers, creators and readers that are killed or stopped wherever they may be: nobody else is disturbed.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "shb_layout.h"
#include "shb_support.h"
#include "traced.h"

using namespace shbtest;

namespace {

shb_description_t DescriptionOf(uint64_t serial) {
    shb_description_t description{};
    description.media = 48;
    strcpy(description.code, "H264");
    description.width = static_cast<int32_t>(serial);
    return description;
}

// A frame whose content, flags and description follow from its number: the same for whoever writes it.
struct Frame {
    explicit Frame(uint64_t epoch, uint64_t number, size_t size = 0)
        : sequence(number),
          // Short where the writer is watched instruction by instruction.
          bytes(Pattern(epoch, number,
                        size != 0      ? size
                        : number >= 36 ? 700 + number
                                       : 1 + number * 997 % 9000)),
          description(DescriptionOf(Serial(number))) {}
    static uint64_t Serial(uint64_t sequence) { return sequence / 2 + 1; }
    static bool IsKey(uint64_t sequence) { return sequence % 5 == 2; }
    int Write(const Writer &writer) const {
        if (sequence % 2 == 0)
            shb_writer_describe(writer.get(), &description, nullptr, 0);
        return shb_writer_write(writer.get(), bytes.data(), bytes.size(), sequence, sequence, 1,
                                IsKey(sequence) ? uint32_t{SHB_FRAME_KEY} : 0u);
    }
    uint64_t sequence;
    std::vector<uint8_t> bytes;
    shb_description_t description;
};

// What a reader found without waiting.
struct Found {
    int result = SHB_OK;  // the last one
    uint64_t frames = 0;
    shb_frame_t first{}, newest_key{};
};

// Whatever it gets must be whole, in order and described.
Found ReadAll(const Reader &reader) {
    Found found;
    for (;;) {
        const ReadFrame got = Read(reader, 0, 65536);
        found.result = got.result;
        if (got.result != SHB_OK)
            return found;
        if (found.frames++ == 0)
            found.first = got.frame;
        const bool key = (got.frame.flags & SHB_FRAME_KEY) != 0;
        if (key)
            found.newest_key = got.frame;
        shb_description_t description{};
        EXPECT_TRUE(got.Whole()) << "epoch " << got.frame.epoch << ", frame " << got.frame.sequence;
        EXPECT_EQ(Frame::IsKey(got.frame.sequence), key);
        EXPECT_EQ(SHB_OK, shb_reader_description(reader.get(), &description)) << got.frame.sequence;
        EXPECT_EQ(Frame::Serial(got.frame.sequence), static_cast<uint64_t>(description.width));
    }
}

}  // namespace

// ---- Writers --------------------------------------------------------------------------------------------------------

class ShbKillWriter : public ::testing::Test {
  protected:
    ShbKillWriter() : name_(UniqueName()), buffer_(Create(name_, SmallGeometry())), map_(Attach(name_)) {}
    shb_stats_t Stats() const {
        shb_stats_t stats{};
        EXPECT_EQ(SHB_OK, shb_map_stats(map_.get(), 0, 0, SHB_VIDEO, &stats));
        return stats;
    }
    Writer Open(uint64_t &epoch) const {
        Writer writer = OpenWriter(buffer_);
        epoch = Stats().epoch;
        return writer;
    }
    // What any reader can have in this instant: all that is held, or all from the newest key frame on.
    void ExpectSound(bool somebody_is_at_it = false) const {
        const Found all = ReadAll(OpenReader(map_, SHB_START_OLDEST));
        const Found key = ReadAll(OpenReader(map_, SHB_START_KEY));
        EXPECT_EQ(SHB_ERR_TIMEOUT, all.result);
        EXPECT_EQ(SHB_ERR_TIMEOUT, key.result);
        EXPECT_EQ(all.frames, Stats().held);
        EXPECT_EQ(0u, key.first.lost);
        if (somebody_is_at_it)
            return;
        EXPECT_EQ(all.newest_key.epoch, key.first.epoch);
        EXPECT_EQ(all.newest_key.sequence, key.first.sequence);
    }
    // The writer is dead. A successor takes the track over and writes on, and everybody has both.
    void ExpectSuccession() const {
        EXPECT_EQ(0, Stats().writer_pid);
        const uint64_t held = Stats().held;
        Reader faithful = OpenReader(map_, SHB_START_OLDEST);
        uint64_t epoch = 0;
        Writer next = Open(epoch);
        ASSERT_TRUE(next);
        ExpectSound();
        for (uint64_t sequence = 0; sequence < 6; sequence++) {
            ASSERT_EQ(SHB_OK, Frame(epoch, sequence).Write(next));
            ExpectSound();
        }
        const Found all = ReadAll(faithful);
        EXPECT_GE(all.frames, 6u);
        EXPECT_LE(all.frames, held + 6);
        EXPECT_EQ(6u, Stats().frames);
    }
    const std::string name_;
    Buffer buffer_;
    Map map_;
};

struct Sizes {
    const char *name;
    size_t before, watched;
};

class ShbKillWriterStep : public ShbKillWriter, public ::testing::WithParamInterface<Sizes> {};

// In the middle of a ring that has gone round, so that the writes take frames away, and a description a slot.
TEST_P(ShbKillWriterStep, ReadersAreSoundAtEveryInstructionOfAWrite) {
    Writer writer;
    uint64_t epoch = 0;
    std::vector<Frame> frames;
    Traced traced(
        [&] {
            writer = Open(epoch);
            for (uint64_t i = 0; i < 36; i++)
                Frame(epoch, i, GetParam().before).Write(writer);
            for (uint64_t i = 36; i < 40; i++)
                frames.emplace_back(epoch, i, GetParam().watched);
        },
        [&] {
            for (const Frame &frame : frames)
                frame.Write(writer);
        });
    if (!traced.Able())
        GTEST_SKIP() << "no right to trace a child";
    Changes changes("/dev/shm/" + name_);
    int steps = 0, states = 0;
    // Readers see what is in the mapping: an instruction that
    // changed nothing there has been looked at already.
    for (; traced.Step() && !HasFailure(); steps++)
        if (changes.Next()) {
            states++;
            ExpectSound(true);
        }
    EXPECT_GT(states, 100) << steps << " instructions";
    RecordProperty("instructions", steps);
    RecordProperty("states", states);
    EXPECT_EQ(40u, Stats().frames);
    traced.Kill();
    ExpectSound();
}

// What takes frames away: too few descriptors, or too few bytes.
INSTANTIATE_TEST_SUITE_P(Rings, ShbKillWriterStep,
                         ::testing::Values(Sizes{"Descriptors", 500, 700}, Sizes{"Bytes", 8128, 2000}),
                         [](const auto &which) { return which.param.name; });

struct Part {
    const char *name;
    uint64_t sequence;  // of the frame that is being written, 0: the track is being opened
};

class ShbKillWriterAt : public ShbKillWriter, public ::testing::WithParamInterface<Part> {
  protected:
    // A child that stands right before the part.
    std::unique_ptr<Traced> Begin() {
        const uint64_t sequence = GetParam().sequence;
        auto traced = std::make_unique<Traced>(
            [&] {
                if (sequence == 0)
                    return;
                writer_ = Open(epoch_);
                for (uint64_t i = 0; i < sequence; i++)
                    Frame(epoch_, i).Write(writer_);
                frame_.emplace_back(epoch_, sequence);
            },
            [&] {
                if (sequence == 0)
                    writer_ = OpenWriter(buffer_);
                else
                    frame_[0].Write(writer_);
            });
        // Opening asks the system first who this process is; what is of interest comes after the answer.
        for (int i = 0; i < kCallsOfIdentity * 2 && sequence == 0; i++)
            traced->StepCall();
        return traced;
    }

  private:
    static constexpr int kCallsOfIdentity = 3;  // open, read, close
    Writer writer_;
    uint64_t epoch_ = 0;
    std::vector<Frame> frame_;
};

// At every instruction after which the mapping differs: between two
// of them nobody can tell where the writer died.
TEST_P(ShbKillWriterAt, ASuccessorTakesOver) {
    {
        uint64_t epoch = 0;
        Writer first = Open(epoch);
        for (uint64_t i = 0; i < 30; i++)
            Frame(epoch, i).Write(first);
    }
    int kills = 0;
    for (bool over = false; !over && !HasFailure(); kills += kSanitized ? 5 : 1) {
        SCOPED_TRACE("after change " + std::to_string(kills));
        auto traced = Begin();
        if (!traced->Able())
            GTEST_SKIP() << "no right to trace a child";
        Changes changes("/dev/shm/" + name_);
        for (int i = 0; i < kills && !over; i += changes.Next() ? 1 : 0)
            over = !traced->Step();
        traced->Kill();
        EXPECT_EQ(SHB_ERR_TIMEOUT, ReadAll(OpenReader(map_, SHB_START_OLDEST)).result);
        ExpectSuccession();
    }
    EXPECT_GT(kills, 8);
    RecordProperty("kills", kills);
}

INSTANTIATE_TEST_SUITE_P(Parts, ShbKillWriterAt,
                         ::testing::Values(Part{"Open", 0}, Part{"Key", 37}, Part{"Describe", 38}, Part{"Plain", 39}),
                         [](const auto &which) { return which.param.name; });

TEST_F(ShbKillWriter, ForkedChildLeavesTheTrackToItsParent) {
    uint64_t epoch = 0;
    Writer writer = Open(epoch);
    Child child([&] {
        shb_writer_close(writer.get());
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(getpid(), Stats().writer_pid);
    int result;
    OpenWriter(buffer_, SHB_VIDEO, &result);
    EXPECT_EQ(SHB_ERR_BUSY, result);
}

// ---- Creators -------------------------------------------------------------------------------------------------------

TEST(ShbKillCreator, NextOneOfTheNameTakesOverWhereverItDied) {
    const std::string name = UniqueName();
    int kills = 0, left = 0;
    for (bool over = false; !over && !::testing::Test::HasFailure(); kills += kSanitized ? 3 : 1) {
        SCOPED_TRACE("system call stop " + std::to_string(kills));
        shb_buffer_t *made = nullptr;
        Traced traced([] {},
                      [&] {
                          const shb_geometry_t geometry = SmallGeometry();
                          shb_create(name.c_str(), &geometry, &made);
                      });
        if (!traced.Able())
            GTEST_SKIP() << "no right to trace a child";
        for (int i = 0; i < kills && !over; i++)
            over = !traced.StepCall();
        traced.Kill();
        left += !FilesOf(name).empty();
        int result;
        Buffer next = Create(name, SmallGeometry(), &result);
        EXPECT_EQ(SHB_OK, result);
        EXPECT_EQ(3u, FilesOf(name).size()) << "the dead one's files are still there";
        Map map = Attach(name);
        EXPECT_EQ(1, shb_map_alive(map.get()));
        next.reset();
        EXPECT_TRUE(FilesOf(name).empty());
    }
    EXPECT_GT(kills, 20);
    EXPECT_GT(left, 0) << "it never died with anything to leave";
}

TEST(ShbKillCreator, NothingIsLeftForGoodWhereverItDiedAtTheEnd) {
    const std::string name = UniqueName();
    int kills = 0, left = 0;
    for (bool over = false; !over && !::testing::Test::HasFailure(); kills += kSanitized ? 3 : 1) {
        SCOPED_TRACE("system call stop " + std::to_string(kills));
        shb_buffer_t *made = nullptr;
        Traced traced(
            [&] {
                const shb_geometry_t geometry = SmallGeometry();
                shb_create(name.c_str(), &geometry, &made);
            },
            [&] { shb_destroy(made); });
        if (!traced.Able())
            GTEST_SKIP() << "no right to trace a child";
        EXPECT_EQ(3u, FilesOf(name).size());
        for (int i = 0; i < kills && !over; i++)
            over = !traced.StepCall();
        traced.Kill();
        left += !FilesOf(name).empty();
        // Without a buffer of the name there is nothing to find, but what the dead have left goes.
        const bool whole = SegmentExists(name);
        EXPECT_EQ(whole ? SHB_OK : SHB_ERR_NOT_FOUND, shb_remove(name.c_str(), 0));
        EXPECT_TRUE(FilesOf(name).empty());
    }
    EXPECT_GT(left, 2) << "it never died with only some of the files gone";
}

TEST(ShbKillCreator, ReadersSurviveAtAnyMoment) {
    constexpr int kRounds = kSanitized ? 50 : 250;
    const std::string name = UniqueName();
    std::mt19937 random(21);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    struct Orphan {
        Map map;
        Reader reader;
    };
    std::vector<Orphan> orphans;
    uint64_t frames = 0;
    for (int round = 0; round < kRounds && !::testing::Test::HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        Child creator([&] {
            Buffer buffer = Create(name, SmallGeometry());
            Writer writer = OpenWriter(buffer);
            for (uint64_t sequence = 0;; sequence++)
                if (Frame(1, sequence).Write(writer) != SHB_OK)
                    return 1;
        });
        // Half of them die at a moment that nobody has chosen, perhaps before anybody has found them. The others have a
        // reader that has read by then, and is in the middle of a frame at times.
        Orphan orphan;
        const auto attach = [&] {
            orphan.map = Attach(name);
            orphan.reader = OpenReader(orphan.map, static_cast<shb_start_t>(round % 3));
        };
        if (round % 2 == 0) {
            ASSERT_TRUE(Eventually([&, before = frames] {
                // The one before may still be there, dead.
                if (!orphan.reader || shb_map_alive(orphan.map.get()) == 0)
                    attach();
                frames += orphan.reader ? ReadAll(orphan.reader).frames : 0;
                return frames > before;
            }));
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 10'000);
        std::thread killer([&] {
            std::this_thread::sleep_until(end);
            creator.Signal(SIGKILL);
        });
        while (!orphan.reader && std::chrono::steady_clock::now() < end)
            attach();
        while (orphan.reader && std::chrono::steady_clock::now() < end && !::testing::Test::HasFailure())
            frames += ReadAll(orphan.reader).frames;
        killer.join();
        EXPECT_EQ(SIGKILL, creator.WaitSignal());
        if (orphan.reader) {
            frames += ReadAll(orphan.reader).frames;
            orphans.push_back(std::move(orphan));
        }
    }
    // The last heartbeats have been so long ago now, or soon
    // will be, that each reader asks after its creator.
    EXPECT_GT(orphans.size(), size_t{kRounds} / 4);
    for (const Orphan &orphan : orphans) {
        EXPECT_EQ(SHB_ERR_CLOSED, Read(orphan.reader, 60'000, 65536).result);
        EXPECT_EQ(0, shb_map_alive(orphan.map.get()));
        shb_stats_t stats{};
        EXPECT_EQ(SHB_OK, shb_map_stats(orphan.map.get(), 0, 0, SHB_VIDEO, &stats));
        EXPECT_EQ(0, stats.writer_pid);
    }
    EXPECT_GT(frames, uint64_t{kRounds});
    RecordProperty("frames", static_cast<int>(frames));
    EXPECT_EQ(SHB_OK, Create(name, SmallGeometry()) ? SHB_OK : SHB_ERR_EXISTS);
    EXPECT_TRUE(FilesOf(name).empty());
}

// ---- Readers --------------------------------------------------------------------------------------------------------

TEST(ShbKillReader, DeadStoppedAndSlowReadersDisturbNobody) {
    constexpr uint64_t kFrames = 3000;
    const std::string name = UniqueName();
    Buffer buffer = Create(name, SmallGeometry());
    Writer writer = OpenWriter(buffer);
    ASSERT_TRUE(writer);
    struct Common {
        std::atomic<int> ready;
        std::atomic<uint64_t> read;  // by the one that keeps up
        std::atomic<uint64_t> wrong;
    };
    Shared<Common> common;
    // Waits and reads for good: in place or by copies, and each time that many frames late.
    const auto reading = [&](bool in_place, bool faithful) {
        return [&, in_place, faithful] {
            Map map = Attach(name);
            Reader reader = OpenReader(map, SHB_START_OLDEST);
            std::vector<uint8_t> bytes(65536);
            common->ready++;
            for (;;) {
                shb_frame_t frame;
                const void *place = nullptr;
                const int result = in_place ? shb_reader_borrow(reader.get(), -1, &place, &frame)
                                            : shb_reader_read(reader.get(), bytes.data(), bytes.size(), -1, &frame);
                if (result == SHB_ERR_CLOSED)
                    return 0;
                bool whole = result == SHB_OK;
                if (whole && in_place) {
                    memcpy(bytes.data(), place, frame.size);
                    whole = shb_reader_return(reader.get()) == SHB_OK;
                    if (!whole && !faithful)
                        continue;
                }
                if (whole) {
                    const auto expected = Pattern(frame.epoch, frame.sequence, frame.size);
                    whole = std::equal(expected.begin(), expected.end(), bytes.begin());
                }
                common->wrong += !whole || (faithful && (frame.lost != 0 || frame.sequence != common->read));
                if (faithful)
                    common->read++;
            }
        };
    };
    Child faithful(reading(true, true));
    std::vector<std::unique_ptr<Child>> stopped, doomed;
    for (int i = 0; i < 4; i++)
        stopped.push_back(std::make_unique<Child>(reading(i % 2 == 0, false)));
    ASSERT_TRUE(Eventually([&] { return common->ready == 5; }));
    std::mt19937 random(33);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    int killed = 0;
    for (uint64_t sequence = 0; sequence < kFrames; sequence++) {
        if (sequence % 50 == 0)
            doomed.push_back(std::make_unique<Child>(reading(sequence % 100 == 0, false)));
        if (sequence % 50 == 20 + random() % 30 && !doomed.empty()) {
            doomed.back()->Kill();
            killed++;
        }
        if (sequence >= 100 && sequence < 104)
            stopped[sequence - 100]->Signal(SIGSTOP);
        ASSERT_EQ(SHB_OK, Frame(1, sequence).Write(writer));
        ASSERT_TRUE(Eventually([&] { return common->read == sequence + 1; })) << "frame " << sequence;
    }
    EXPECT_GT(killed, 10);
    doomed.clear();
    for (const auto &child : stopped)
        child->Signal(SIGCONT);
    writer.reset();
    buffer.reset();
    EXPECT_EQ(0, faithful.Wait());
    for (const auto &child : stopped)
        EXPECT_EQ(0, child->Wait());
    EXPECT_EQ(0u, common->wrong);
    EXPECT_TRUE(FilesOf(name).empty());
}
