// The shared buffer through the C++ header: what it hands over, and each way to fail.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "support.h"

namespace {

using namespace hpp;

constexpr gs::Track kVideo = {0, 0, gs::Kind::video};
constexpr gs::Track kAudio = {0, 0, gs::Kind::audio};

gs::FrameInfo Key(std::chrono::nanoseconds pts = 0ns) {
    gs::FrameInfo info;
    info.pts = pts;
    return info;
}

gs::FrameInfo Delta(std::chrono::nanoseconds pts = 0ns) {
    gs::FrameInfo info = Key(pts);
    info.key = false;
    return info;
}

class HppBuffer : public testing::Test {
  protected:
    void Write(const std::string &text, const gs::FrameInfo &info = {}) {
        ASSERT_TRUE(Succeeds(writer.write(Text(text), info)));
    }
    std::string Read(gs::Reader &from) {
        const auto frame = from.read(memory, gs::no_wait);
        return frame ? TextOf(frame->data) : frame.message();
    }

    const std::string name = UniqueName();
    gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    gs::Writer writer = gs::Writer::open(buffer, kVideo).value();
    gs::Map map = gs::Map::attach(name).value();
    gs::Reader reader = gs::Reader::open(map, kVideo, gs::Start::oldest).value();
    Bytes memory;
};

TEST_F(HppBuffer, FrameComesWithAllItsParticulars) {
    gs::FrameInfo info;
    info.pts = 40ms;
    info.dts = 20ms;
    info.duration = 10ms;
    info.key = false;
    info.discont = true;
    info.header = true;
    const auto before = std::chrono::steady_clock::now();
    const auto wall_before = std::chrono::system_clock::now();
    ASSERT_TRUE(Succeeds(writer.set_clock(3s)));
    Write("frame", info);
    const auto frame = reader.read(memory);
    ASSERT_TRUE(Succeeds(frame));
    EXPECT_EQ(TextOf(frame->data), "frame");
    EXPECT_EQ(frame->data.data(), memory.data());
    EXPECT_EQ(frame->pts, 40ms);
    EXPECT_EQ(frame->dts, 20ms);
    EXPECT_EQ(frame->duration, 10ms);
    EXPECT_FALSE(frame->key);
    EXPECT_TRUE(frame->discont);
    EXPECT_TRUE(frame->header);
    EXPECT_EQ(frame->sequence, 0U);
    EXPECT_EQ(frame->epoch, 1U);
    EXPECT_EQ(frame->lost, 0U);
    EXPECT_EQ(frame->clock_offset, 3s);
    EXPECT_EQ(frame->pts_time(), gs::MonotonicTime(3040ms));
    EXPECT_EQ(frame->dts_time(), gs::MonotonicTime(3020ms));
    EXPECT_GE(frame->arrival, before);
    EXPECT_LE(frame->arrival, std::chrono::steady_clock::now());
    EXPECT_GE(frame->wall, wall_before);
    EXPECT_LE(frame->wall, std::chrono::system_clock::now());
}

TEST_F(HppBuffer, UnknownTimesAreEmpty) {
    Write("frame");
    const gs::Frame frame = reader.read(memory).value();
    EXPECT_EQ(frame.pts, std::nullopt);
    EXPECT_EQ(frame.dts, std::nullopt);
    EXPECT_EQ(frame.duration, std::nullopt);
    EXPECT_EQ(frame.clock_offset, std::nullopt);
    EXPECT_EQ(frame.pts_time(), std::nullopt);
    EXPECT_TRUE(frame.key);
    ASSERT_TRUE(Succeeds(writer.set_clock(std::nullopt)));
    Write("frame", Key(1s));
    const gs::Frame next = reader.read(memory).value();
    EXPECT_EQ(next.pts, 1s);
    EXPECT_EQ(next.pts_time(), std::nullopt);
}

TEST_F(HppBuffer, MemoryGrowsAndStays) {
    Write(std::string(100, 'a'));
    Write(std::string(30000, 'b'));
    Write("c");
    EXPECT_EQ(Read(reader), std::string(100, 'a'));
    EXPECT_EQ(memory.size(), 100U);
    EXPECT_EQ(Read(reader), std::string(30000, 'b'));
    EXPECT_EQ(memory.size(), 30000U);
    EXPECT_EQ(Read(reader), "c");
    EXPECT_EQ(memory.size(), 30000U);
}

TEST_F(HppBuffer, ReadsToMemoryOfTheCallers) {
    std::array<std::uint8_t, 8> place{};
    Write("0123456789");
    EXPECT_TRUE(Fails(reader.read(place.data(), place.size(), gs::no_wait), gs::Errc::too_big, "10 bytes"));
    EXPECT_EQ(Read(reader), "0123456789");
    Write("fits");
    const auto frame = reader.read(place.data(), place.size(), gs::no_wait);
    ASSERT_TRUE(Succeeds(frame));
    EXPECT_EQ(frame->data.data(), place.data());
    EXPECT_EQ(TextOf(frame->data), "fits");
}

TEST_F(HppBuffer, TimeoutsAreReasons) {
    EXPECT_TRUE(Fails(reader.read(memory, gs::no_wait), gs::Errc::timeout));
    EXPECT_TRUE(Fails(reader.read(memory, 1ms), gs::Errc::timeout));
    EXPECT_TRUE(Fails(reader.read(memory, -5ms), gs::Errc::timeout));
    EXPECT_TRUE(Fails(reader.borrow(gs::no_wait), gs::Errc::timeout));
    EXPECT_TRUE(Fails(reader.wait(gs::no_wait), gs::Errc::timeout));
    Write("frame");
    EXPECT_TRUE(Succeeds(reader.wait()));
    EXPECT_EQ(Read(reader), "frame");
}

TEST_F(HppBuffer, WaitsForWhatComes) {
    std::thread late([this] { Write("late"); });
    const auto frame = reader.read(memory, gs::forever);
    late.join();
    ASSERT_TRUE(Succeeds(frame));
    EXPECT_EQ(TextOf(frame->data), "late");
}

TEST_F(HppBuffer, LossIsCounted) {
    for (int i = 0; i < 40; ++i) {
        Write(std::to_string(i));
    }
    const gs::Frame frame = reader.read(memory).value();
    EXPECT_EQ(frame.lost, frame.sequence);
    EXPECT_GT(frame.lost, 0U);
    const gs::ReaderStats stats = reader.stats().value();
    EXPECT_EQ(stats.frames, 1U);
    EXPECT_EQ(stats.lost, frame.lost);
    EXPECT_EQ(stats.losses, 1U);
    EXPECT_EQ(stats.offered, 40U);
    EXPECT_EQ(stats.frames + stats.lost + stats.waiting, stats.offered);
}

TEST_F(HppBuffer, FrameThatIsTooBigIsLeftOut) {
    EXPECT_TRUE(Fails(writer.write(Bytes(100000)), gs::Errc::too_big));
    Write("next");
    const gs::Frame frame = reader.read(memory).value();
    EXPECT_EQ(frame.left_out, 1U);
    EXPECT_TRUE(frame.discont);
    EXPECT_EQ(buffer.stats(kVideo)->left_out, 1U);
}

// ---- In place ---------------------------------------------------------------------------------------------

TEST_F(HppBuffer, BorrowedFrameIsGivenBack) {
    Write("first");
    Write("second");
    auto first = reader.borrow();
    ASSERT_TRUE(Succeeds(first));
    EXPECT_EQ(TextOf((*first)->data), "first");
    EXPECT_EQ(TextOf(first->frame().data), "first");
    EXPECT_TRUE(Succeeds(first->give_back()));
    EXPECT_TRUE(Fails(first->give_back(), gs::Errc::not_open));
    EXPECT_EQ(Read(reader), "second");
}

TEST_F(HppBuffer, BorrowedFrameReturnsByItself) {
    Write("first");
    Write("second");
    Write("third");
    { const auto first = reader.borrow(); }
    EXPECT_EQ(Read(reader), "second");
    auto third = reader.borrow();
    gs::BorrowedFrame moved = std::move(*third);
    EXPECT_TRUE(Fails(third->give_back(), gs::Errc::not_open));
    EXPECT_EQ(TextOf(moved->data), "third");
    moved = gs::BorrowedFrame();
    EXPECT_EQ(reader.stats()->frames, 3U);
}

TEST_F(HppBuffer, OneFrameIsBorrowedAtATime) {
    Write("frame");
    const auto borrowed = reader.borrow();
    EXPECT_TRUE(Fails(reader.borrow(gs::no_wait), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(reader.read(memory, gs::no_wait), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(reader.wait(gs::no_wait), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(reader.seek(gs::Position::oldest()), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::wait_any({&reader}, gs::no_wait), gs::Errc::invalid_argument));
}

TEST_F(HppBuffer, OverrunIsAReason) {
    Write("frame");
    auto borrowed = reader.borrow();
    for (int i = 0; i < 40; ++i) {
        Write("other");
    }
    EXPECT_TRUE(Fails(borrowed->give_back(), gs::Errc::overrun));
    EXPECT_GT(reader.read(memory)->lost, 0U);
}

TEST_F(HppBuffer, BorrowedFrameKeepsReaderAndMap) {
    Write("frame");
    auto borrowed = reader.borrow();
    reader.close();
    map.close();
    writer.close();
    buffer.close();
    EXPECT_EQ(TextOf((*borrowed)->data), "frame");
    EXPECT_TRUE(Succeeds(borrowed->give_back()));
}

// ---- Iteration --------------------------------------------------------------------------------------------

TEST_F(HppBuffer, LoopEndsWithTheBuffer) {
    for (int i = 0; i < 5; ++i) {
        Write(std::to_string(i));
    }
    writer.close();
    buffer.close();
    std::string all;
    gs::FrameRange frames = reader.frames();
    for (const gs::Frame &frame : frames) {
        all += TextOf(frame.data);
    }
    EXPECT_EQ(all, "01234");
    EXPECT_EQ(frames.error().code(), gs::Errc::closed);
}

TEST_F(HppBuffer, LoopEndsAfterItsTimeAndGoesOn) {
    Write("a");
    Write("b");
    std::string all;
    gs::FrameRange frames = reader.frames(gs::no_wait);
    for (const gs::Frame &frame : frames) {
        all += TextOf(frame.data);
    }
    EXPECT_EQ(frames.error().code(), gs::Errc::timeout);
    Write("c");
    for (auto it = frames.begin(); it != frames.end(); it++) {
        all += TextOf(it->data);
    }
    EXPECT_EQ(all, "abc");
}

TEST_F(HppBuffer, LoopThatIsLeftHasNoReason) {
    Write("a");
    Write("b");
    gs::FrameRange frames = reader.frames();
    for (const gs::Frame &frame : frames) {
        EXPECT_EQ(TextOf(frame.data), "a");
        break;
    }
    EXPECT_EQ(frames.error().code(), gs::Errc::ok);
    EXPECT_EQ(Read(reader), "b");
}

// ---- Places -----------------------------------------------------------------------------------------------

TEST_F(HppBuffer, SeekGoesAnywhere) {
    Write("key 1", Key());
    Write("delta 1", Delta());
    Write("key 2", Key());
    Write("delta 2", Delta());
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::key())));
    EXPECT_EQ(Read(reader), "key 2");
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::oldest())));
    const gs::Frame first = reader.read(memory).value();
    EXPECT_EQ(TextOf(first.data), "key 1");
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::newest())));
    EXPECT_TRUE(Fails(reader.read(memory, gs::no_wait), gs::Errc::timeout));
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::at(first.arrival))));
    EXPECT_EQ(Read(reader), "key 1");
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::at(first.wall))));
    EXPECT_EQ(Read(reader), "key 1");
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::back(0ns))));
    EXPECT_EQ(Read(reader), "key 2");
    ASSERT_TRUE(Succeeds(reader.seek(gs::Position::back(1h))));
    EXPECT_EQ(Read(reader), "key 1");
    EXPECT_TRUE(Fails(reader.seek(gs::Position::back(-1ns)), gs::Errc::invalid_argument, "below 0"));
}

TEST_F(HppBuffer, StartsWhereItIsTold) {
    Write("key 1", Key());
    Write("key 2", Key());
    Write("delta 2", Delta());
    gs::Reader key = gs::Reader::open(map, kVideo).value();
    gs::Reader oldest = gs::Reader::open(map, kVideo, gs::Start::oldest).value();
    gs::Reader newest = gs::Reader::open(map, kVideo, gs::Start::newest).value();
    EXPECT_EQ(Read(key), "key 2");
    EXPECT_EQ(Read(oldest), "key 1");
    EXPECT_TRUE(Fails(newest.read(memory, gs::no_wait), gs::Errc::timeout));
}

TEST_F(HppBuffer, VideoAndAudioOpenAtOneMoment) {
    gs::Writer sound = gs::Writer::open(buffer, kAudio).value();
    for (int i = 0; i < 4; ++i) {
        Write("picture " + std::to_string(i), i % 2 == 0 ? Key(i * 40ms) : Delta(i * 40ms));
        ASSERT_TRUE(Succeeds(sound.write(Text("sound " + std::to_string(i)), Key(i * 40ms))));
    }
    auto readers = gs::open_av(map, 0, 0, gs::Position::key());
    ASSERT_TRUE(Succeeds(readers));
    EXPECT_EQ(Read(readers->video), "picture 2");
    EXPECT_EQ(Read(readers->audio), "sound 2");
    EXPECT_TRUE(Fails(gs::open_av(map, 2, 0, gs::Position::key()), gs::Errc::no_such_track));
    EXPECT_TRUE(Fails(gs::open_av(map, 0, 2, gs::Position::key()), gs::Errc::no_such_track));
    EXPECT_TRUE(Fails(gs::open_av(map, 0, 0, gs::Position::back(-1s)), gs::Errc::invalid_argument));
}

// ---- Several readers --------------------------------------------------------------------------------------

TEST_F(HppBuffer, WaitsForAnyReader) {
    gs::Writer other = gs::Writer::open(buffer, {1, 0, gs::Kind::video}).value();
    std::vector<gs::Reader> readers;
    readers.push_back(std::move(reader));
    readers.push_back(gs::Reader::open(map, {1, 0, gs::Kind::video}).value());
    EXPECT_TRUE(Fails(gs::wait_any(readers, gs::no_wait), gs::Errc::timeout));
    ASSERT_TRUE(Succeeds(other.write(Text("frame"))));
    EXPECT_EQ(gs::wait_any(readers).value(), 1U);
    const std::vector<gs::Reader *> pointers = {&readers[1], &readers[0]};
    EXPECT_EQ(gs::wait_any(pointers, kPatience).value(), 0U);
    const std::vector<std::reference_wrapper<gs::Reader>> references = {readers[0], readers[1]};
    EXPECT_EQ(gs::wait_any(references, kPatience).value(), 1U);
    EXPECT_EQ(gs::wait_any({&readers[0], &readers[1]}, kPatience).value(), 1U);
    Write("frame");
    EXPECT_EQ(gs::wait_any(readers, kPatience, 0).value(), 1U);
    EXPECT_EQ(gs::wait_any(readers, kPatience, 1).value(), 0U);
    EXPECT_TRUE(Fails(gs::wait_any(std::vector<gs::Reader>(), gs::no_wait), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::wait_any(std::vector<gs::Reader>(1025), gs::no_wait), gs::Errc::not_open));
    EXPECT_TRUE(Fails(gs::wait_any({nullptr}, gs::no_wait), gs::Errc::not_open));
}

TEST_F(HppBuffer, SetNamesReadersByTheirTags) {
    auto opened = gs::Set::create();
    ASSERT_TRUE(Succeeds(opened));
    gs::Set set = std::move(*opened);
    gs::Reader second = gs::Reader::open(map, kVideo, gs::Start::oldest).value();
    ASSERT_TRUE(Succeeds(set.add(reader, 10)));
    ASSERT_TRUE(Succeeds(set.add(second, 20)));
    EXPECT_GE(set.fd(), 0);
    EXPECT_TRUE(Fails(set.add(second, 30), gs::Errc::invalid_argument, "in a set"));
    EXPECT_TRUE(Fails(set.next(), gs::Errc::timeout));
    // The readers, and the set, may be moved.
    gs::Reader moved = std::move(second);
    gs::Set moved_set = std::move(set);
    Write("frame");
    std::size_t found = 0;
    for (int i = 0; i < 2; ++i) {
        const std::size_t tag = moved_set.next(kPatience).value();
        found += tag;
        EXPECT_EQ(Read(tag == 10 ? reader : moved), "frame");
    }
    EXPECT_EQ(found, 30U);
    EXPECT_TRUE(Fails(moved_set.next(), gs::Errc::timeout));
    ASSERT_TRUE(Succeeds(moved_set.remove(moved)));
    EXPECT_TRUE(Fails(moved_set.remove(moved), gs::Errc::invalid_argument, "not in this set"));
    Write("frame");
    EXPECT_EQ(moved_set.next(kPatience).value(), 10U);
    // A reader that is closed leaves by itself, and its place can be another's.
    reader.close();
    EXPECT_TRUE(Fails(moved_set.next(), gs::Errc::timeout));
    ASSERT_TRUE(Succeeds(moved_set.add(moved, 40)));
    EXPECT_EQ(moved_set.next(kPatience).value(), 40U);
    moved_set.close();
    EXPECT_TRUE(Succeeds(moved.read(memory, gs::no_wait)));
}

TEST_F(HppBuffer, SetTakesManyReadersOneAfterAnother) {
    gs::Set set = gs::Set::create().value();
    for (std::size_t i = 0; i < 100; ++i) {
        gs::Reader next = gs::Reader::open(map, kVideo, gs::Start::oldest).value();
        ASSERT_TRUE(Succeeds(set.add(next, i)));
        if (i == 0) {
            Write("frame");
        }
        EXPECT_EQ(set.next(kPatience).value(), i);
    }
}

// ---- Descriptions, statistics -----------------------------------------------------------------------------

gs::Description Picture() {
    gs::Description description;
    description.media = 48;
    description.code = "H264";
    description.profile = "high";
    description.level = "4.1";
    description.format = "byte-stream";
    description.width = 1920;
    description.height = 1080;
    description.fps_n = 30000;
    description.fps_d = 1001;
    description.scan_type = gs::ScanType::interlaced;
    description.ref_frames = 3;
    description.reorder_frames = 2;
    description.codec_data = {0, 0, 0, 1, 0x67};
    return description;
}

void ExpectPicture(const gs::Description &found) {
    EXPECT_EQ(found.media, 48);
    EXPECT_EQ(found.code, "H264");
    EXPECT_EQ(found.profile, "high");
    EXPECT_EQ(found.level, "4.1");
    EXPECT_EQ(found.format, "byte-stream");
    EXPECT_EQ(found.width, 1920);
    EXPECT_EQ(found.height, 1080);
    EXPECT_EQ(found.fps_n, 30000);
    EXPECT_EQ(found.fps_d, 1001);
    EXPECT_EQ(found.scan_type, gs::ScanType::interlaced);
    EXPECT_EQ(found.ref_frames, 3);
    EXPECT_EQ(found.reorder_frames, 2);
}

TEST_F(HppBuffer, DescriptionComesWithItsCodecData) {
    EXPECT_TRUE(Fails(map.description(kVideo), gs::Errc::not_found));
    EXPECT_TRUE(Fails(buffer.description(kVideo), gs::Errc::not_found));
    EXPECT_TRUE(Fails(reader.description(), gs::Errc::not_found));
    ASSERT_TRUE(Succeeds(writer.describe(Picture())));
    Write("frame");
    EXPECT_EQ(reader.read(memory)->description, 1U);
    for (const auto &found : {reader.description(), map.description(kVideo), buffer.description(kVideo)}) {
        ASSERT_TRUE(Succeeds(found));
        EXPECT_EQ(found->serial, 1U);
        ExpectPicture(*found);
    }
    EXPECT_EQ(reader.description()->codec_data, Picture().codec_data);
    EXPECT_EQ(map.description(kVideo)->codec_data, Picture().codec_data);
    EXPECT_TRUE(buffer.description(kVideo)->codec_data.empty());
}

TEST_F(HppBuffer, DescriptionWithoutCodecDataHasNone) {
    gs::Description description;
    description.code = "AAC";
    description.sample_rate = 48000;
    description.channels = 2;
    description.samples_per_frame = 1024;
    description.nominal_bitrate = 128000;
    ASSERT_TRUE(Succeeds(writer.describe(description)));
    Write("frame");
    ASSERT_TRUE(Succeeds(reader.read(memory)));
    const gs::Description found = reader.description().value();
    EXPECT_TRUE(found.codec_data.empty());
    EXPECT_EQ(found.reorder_frames, std::nullopt);
    EXPECT_EQ(found.scan_type, gs::ScanType::progressive);
    EXPECT_EQ(found.sample_rate, 48000);
    EXPECT_EQ(found.channels, 2);
    EXPECT_EQ(found.samples_per_frame, 1024);
    EXPECT_EQ(found.nominal_bitrate, 128000);
}

TEST_F(HppBuffer, CodecDataThatWasOverwrittenIsAReason) {
    gs::Description description = Picture();
    ASSERT_TRUE(Succeeds(writer.describe(description)));
    Write("frame");
    ASSERT_TRUE(Succeeds(reader.read(memory)));
    for (int width = 1; width <= 8; ++width) {
        description.width = width;
        ASSERT_TRUE(Succeeds(writer.describe(description)));
        Write("frame");
    }
    EXPECT_TRUE(Fails(reader.description(), gs::Errc::not_found, "codec data"));
}

TEST_F(HppBuffer, WriterRefusesWhatDoesNotFit) {
    gs::Description description = Picture();
    description.code = "0123456789abcdef";
    EXPECT_TRUE(Fails(writer.describe(description), gs::Errc::invalid_argument, "15 characters"));
    description.code = std::string("a\0b", 3);
    EXPECT_TRUE(Fails(writer.describe(description), gs::Errc::invalid_argument));
    description.code = "H264";
    description.codec_data.resize(SHB_CODEC_DATA_MAX + 1);
    EXPECT_TRUE(Fails(writer.describe(description), gs::Errc::too_big));
    EXPECT_TRUE(Fails(writer.write(Text("frame"), Key(-1ns)), gs::Errc::invalid_argument, "below 0"));
    EXPECT_TRUE(Fails(writer.write(Bytes()), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(writer.set_rates(0, -1), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(writer.set_rates(0, 1e9), gs::Errc::invalid_argument));
}

TEST_F(HppBuffer, StatisticsAreThoseOfTheTrack) {
    gs::TrackStats stats = map.stats(kVideo).value();
    EXPECT_EQ(stats.writer_pid, getpid());
    EXPECT_EQ(stats.epoch, 1U);
    EXPECT_EQ(stats.age, std::nullopt);
    EXPECT_EQ(stats.clock_offset, std::nullopt);
    EXPECT_EQ(stats.presence, gs::Presence::expected);
    Write("12345", Key());
    Write("678", Delta());
    ASSERT_TRUE(Succeeds(writer.set_clock(-2s)));
    ASSERT_TRUE(Succeeds(writer.set_rates(1000, 29.97)));
    stats = map.stats(kVideo).value();
    EXPECT_EQ(stats.frames, 2U);
    EXPECT_EQ(stats.bytes, 8U);
    EXPECT_EQ(stats.key_frames, 1U);
    EXPECT_EQ(stats.held, 2U);
    EXPECT_EQ(stats.bitrate, 1000U);
    EXPECT_DOUBLE_EQ(stats.fps, 29.97);
    EXPECT_EQ(stats.clock_offset, -2s);
    ASSERT_TRUE(stats.age);
    EXPECT_GE(*stats.age, 0ns);
    EXPECT_EQ(buffer.stats(kVideo)->total_bytes, 8U);
    writer.close();
    EXPECT_EQ(map.stats(kVideo)->writer_pid, std::nullopt);
    EXPECT_EQ(map.stats(kAudio)->epoch, 0U);
    EXPECT_EQ(map.stats(kAudio)->presence, gs::Presence::unknown);
    ASSERT_TRUE(Succeeds(buffer.set_presence(kAudio, gs::Presence::absent)));
    EXPECT_EQ(map.stats(kAudio)->presence, gs::Presence::absent);
    EXPECT_TRUE(Fails(buffer.set_presence(kAudio, static_cast<gs::Presence>(9)), gs::Errc::invalid_argument));
}

TEST_F(HppBuffer, StallWatchCallsTheWriter) {
    EXPECT_EQ(buffer.stall_watch().value(), 0ms);
    std::atomic<std::int64_t> silent{0};
    // An exception has nobody to go to.
    ASSERT_TRUE(Succeeds(writer.on_stall([&](std::chrono::milliseconds time) {
        silent = time.count();
        throw std::runtime_error("dropped");
    })));
    ASSERT_TRUE(Succeeds(buffer.set_stall_watch(10ms)));
    EXPECT_EQ(buffer.stall_watch().value(), 10ms);
    Write("frame");
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (silent == 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_GE(silent, 10);
    EXPECT_TRUE(Succeeds(writer.on_stall(nullptr)));
    EXPECT_TRUE(Fails(buffer.set_stall_watch(-1ms), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(buffer.set_stall_watch(1000h), gs::Errc::invalid_argument));
    EXPECT_TRUE(Succeeds(buffer.set_stall_watch(0ms)));
}

TEST_F(HppBuffer, GeometryAndInformation) {
    for (const gs::Geometry &geometry : {buffer.geometry().value(), map.geometry().value(), map.info()->geometry}) {
        EXPECT_EQ(geometry.channels, 2U);
        EXPECT_EQ(geometry.streams, 2U);
        EXPECT_EQ(geometry.video_bytes, 65536U);
        EXPECT_EQ(geometry.audio_frames, 16U);
    }
    const gs::BufferInfo info = map.info().value();
    EXPECT_EQ(info.name, "/" + name);
    EXPECT_EQ(buffer.name(), "/" + name);
    EXPECT_EQ(info.creator_pid, getpid());
    EXPECT_TRUE(info.pid_is_ours);
    EXPECT_TRUE(info.alive);
    EXPECT_EQ(info.mode & 0777U, 0600U);
    EXPECT_EQ(info.owner, geteuid());
    EXPECT_GT(info.total_bytes, 0U);
    EXPECT_TRUE(map.alive());
    const auto all = gs::list_buffers();
    ASSERT_TRUE(Succeeds(all));
    EXPECT_EQ(std::count_if(all->begin(), all->end(), [&](const gs::BufferInfo &one) { return one.name == info.name; }), 1);
    const gs::Room room = gs::room_for(Small()).value();
    EXPECT_GE(room.needed, 8U * 65536);
    EXPECT_TRUE(!room.available || *room.available > 0);
}

TEST_F(HppBuffer, ReadersGoOnWithoutTheirMap) {
    map.close();
    EXPECT_FALSE(map.alive());
    Write("frame");
    EXPECT_EQ(Read(reader), "frame");
}

TEST_F(HppBuffer, WriterKeepsTheBuffer) {
    buffer.close();
    EXPECT_TRUE(Succeeds(gs::Map::attach(name)));
    Write("frame");
    EXPECT_EQ(Read(reader), "frame");
    writer.close();
    EXPECT_TRUE(Fails(gs::Map::attach(name), gs::Errc::not_found, name));
    EXPECT_TRUE(Fails(reader.read(memory, gs::no_wait), gs::Errc::closed));
}

// ---- Each way to fail -------------------------------------------------------------------------------------

TEST_F(HppBuffer, TracksOutsideOfTheGeometryAreRefused) {
    for (const gs::Track &track : {gs::Track{2, 0, gs::Kind::video}, gs::Track{0, 2, gs::Kind::audio}}) {
        const char *range = "channels 0 to 1 and streams 0 to 1";
        EXPECT_TRUE(Fails(buffer.stats(track), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(buffer.description(track), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(buffer.set_presence(track, gs::Presence::absent), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(gs::Writer::open(buffer, track), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(map.stats(track), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(map.description(track), gs::Errc::no_such_track, range));
        EXPECT_TRUE(Fails(gs::Reader::open(map, track), gs::Errc::no_such_track, range));
    }
}

TEST_F(HppBuffer, OneWriterATrack) {
    EXPECT_TRUE(Fails(gs::Writer::open(buffer, kVideo), gs::Errc::track_in_use, "channel 0, stream 0"));
    writer.close();
    EXPECT_TRUE(Succeeds(gs::Writer::open(buffer, kVideo)));
}

template <typename Object>
void ExpectEmptied(Object &object, const std::function<void(Object &)> &all_fail) {
    Object moved_to = std::move(object);
    EXPECT_FALSE(object.is_open());
    all_fail(object);
    EXPECT_EQ(object.native_handle() == nullptr, true);
    EXPECT_TRUE(moved_to.is_open());
    moved_to.close();
    EXPECT_FALSE(moved_to.is_open());
    moved_to.close();
    all_fail(moved_to);
    Object never;
    all_fail(never);
}

TEST_F(HppBuffer, ObjectsThatAreNotOpenSaySo) {
    constexpr gs::Errc code = gs::Errc::not_open;
    ExpectEmptied<gs::Writer>(writer, [](gs::Writer &empty) {
        EXPECT_TRUE(Fails(empty.describe({}), code, "the writer is not open"));
        EXPECT_TRUE(Fails(empty.write(Text("frame")), code));
        EXPECT_TRUE(Fails(empty.set_clock(0ns), code));
        EXPECT_TRUE(Fails(empty.set_rates(0, 0), code));
        EXPECT_TRUE(Fails(empty.on_stall(nullptr), code));
    });
    gs::Set set = gs::Set::create().value();
    ExpectEmptied<gs::Reader>(reader, [&](gs::Reader &empty) {
        EXPECT_TRUE(Fails(empty.read(memory), code, "the reader is not open"));
        EXPECT_TRUE(Fails(empty.read(nullptr, 0), code));
        EXPECT_TRUE(Fails(empty.borrow(), code));
        EXPECT_TRUE(Fails(empty.wait(), code));
        EXPECT_TRUE(Fails(empty.seek(gs::Position::key()), code));
        EXPECT_TRUE(Fails(empty.description(), code));
        EXPECT_TRUE(Fails(empty.stats(), code));
        EXPECT_TRUE(Fails(gs::wait_any({&empty}), code));
        EXPECT_TRUE(Fails(set.add(empty, 0), code));
        EXPECT_TRUE(Fails(set.remove(empty), code));
        gs::FrameRange frames = empty.frames();
        for (const gs::Frame &frame : frames) {
            ADD_FAILURE() << frame.sequence;
        }
        EXPECT_EQ(frames.error().code(), code);
    });
    const gs::Reader other = gs::Reader::open(map, kVideo).value();
    ExpectEmptied<gs::Set>(set, [&](gs::Set &empty) {
        EXPECT_TRUE(Fails(empty.add(other, 0), code, "the set is not open"));
        EXPECT_TRUE(Fails(empty.remove(other), code));
        EXPECT_TRUE(Fails(empty.next(), code));
        EXPECT_EQ(empty.fd(), -1);
    });
    ExpectEmptied<gs::Map>(map, [](gs::Map &empty) {
        EXPECT_TRUE(Fails(empty.geometry(), code, "the map is not open"));
        EXPECT_TRUE(Fails(empty.info(), code));
        EXPECT_TRUE(Fails(empty.stats(kVideo), code));
        EXPECT_TRUE(Fails(empty.description(kVideo), code));
        EXPECT_FALSE(empty.alive());
        EXPECT_TRUE(Fails(gs::Reader::open(empty, kVideo), code));
        EXPECT_TRUE(Fails(gs::open_av(empty, 0, 0, gs::Position::key()), code));
    });
    ExpectEmptied<gs::Buffer>(buffer, [](gs::Buffer &empty) {
        EXPECT_EQ(empty.name(), "");
        EXPECT_TRUE(Fails(empty.geometry(), code, "the buffer is not open"));
        EXPECT_TRUE(Fails(empty.stats(kVideo), code));
        EXPECT_TRUE(Fails(empty.description(kVideo), code));
        EXPECT_TRUE(Fails(empty.set_presence(kVideo, gs::Presence::absent), code));
        EXPECT_TRUE(Fails(empty.set_stall_watch(1s), code));
        EXPECT_TRUE(Fails(empty.stall_watch(), code));
        EXPECT_TRUE(Fails(gs::Writer::open(empty, kVideo), code));
    });
    gs::Follow follow = gs::Follow::open(name).value();
    ExpectEmptied<gs::Follow>(follow, [&](gs::Follow &empty) {
        EXPECT_TRUE(Fails(empty.read(memory), code, "the follower is not open"));
        EXPECT_TRUE(Fails(empty.description(), code));
        EXPECT_TRUE(Fails(empty.stats(), code));
        EXPECT_TRUE(Fails(empty.track_stats(), code));
    });
}

TEST(HppBufferErrors, OfCreating) {
    const std::string name = UniqueName();
    const gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    EXPECT_TRUE(Fails(gs::Buffer::create(name, Small()), gs::Errc::exists, name));
    EXPECT_TRUE(Fails(gs::Buffer::create("a b"), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::Buffer::create(""), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::Buffer::create(std::string("a\0b", 3)), gs::Errc::invalid_argument, "NUL"));
    EXPECT_TRUE(Fails(gs::Buffer::create(UniqueName(), Small(), {0666, std::nullopt}), gs::Errc::invalid_argument));
    gs::Geometry odd;
    odd.video_frames = 17;
    EXPECT_TRUE(Fails(gs::Buffer::create(UniqueName(), odd), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::room_for(odd), gs::Errc::invalid_argument));
}

TEST(HppBufferErrors, OfMemoryThatIsNotThere) {
    gs::Geometry huge;
    huge.channels = 1024;
    huge.streams = 64;
    huge.video_bytes = huge.audio_bytes = std::uint64_t{1} << 30U;
    const auto result = gs::Buffer::create(UniqueName(), huge);
    EXPECT_TRUE(Fails(result, gs::Errc::no_space));
    EXPECT_NE(result.error().system_error(), 0);
}

TEST(HppBufferErrors, OfTheSystemHaveItsReason) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto result = gs::Buffer::create(UniqueName(), Small());
    const auto set = gs::Set::create();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(Fails(result, gs::Errc::system, "Too many open files"));
    EXPECT_EQ(result.error().system_error(), EMFILE);
    EXPECT_TRUE(Fails(set, gs::Errc::system));
}

TEST(HppBufferErrors, OfAttaching) {
    const std::string name = UniqueName();
    EXPECT_TRUE(Fails(gs::Map::attach(name), gs::Errc::not_found, name));
    EXPECT_TRUE(Fails(gs::Map::attach("a b"), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::Map::attach(std::string("a\0b", 3)), gs::Errc::invalid_argument, "NUL"));
    const gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    EXPECT_TRUE(Fails(gs::Map::attach(name, geteuid() + 1), gs::Errc::wrong_owner));
    EXPECT_TRUE(Succeeds(gs::Map::attach(name, geteuid())));
    EXPECT_TRUE(Fails(gs::remove_buffer(name), gs::Errc::exists));
    EXPECT_TRUE(Succeeds(gs::remove_buffer(name, true)));
    EXPECT_TRUE(Fails(gs::remove_buffer(name), gs::Errc::not_found, name));
    EXPECT_TRUE(Fails(gs::remove_buffer(std::string("a\0b", 3)), gs::Errc::invalid_argument, "NUL"));
    const std::string other = UniqueName();
    std::ofstream("/dev/shm/" + other) << "no buffer";
    const auto map = gs::Map::attach(other);
    const auto removed = gs::remove_buffer(other);
    unlink(("/dev/shm/" + other).c_str());
    EXPECT_TRUE(Fails(map, gs::Errc::wrong_version));
    EXPECT_TRUE(Fails(removed, gs::Errc::wrong_version));
}

TEST(HppBufferErrors, OfAFileThatIsCutShort) {
    const std::string name = UniqueName();
    const gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    ASSERT_TRUE(Succeeds(gs::guard(true)));
    const gs::Map map = gs::Map::attach(name).value();
    gs::Reader reader = gs::Reader::open(map, kVideo).value();
    const std::string path = "/dev/shm/" + name;
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    // The first page stays: the creator, which nothing guards, renews its heartbeat there at any time.
    ASSERT_EQ(truncate(path.c_str(), sysconf(_SC_PAGESIZE)), 0);
    Bytes memory;
    EXPECT_TRUE(Fails(reader.read(memory, gs::no_wait), gs::Errc::corrupt));
    EXPECT_TRUE(Fails(map.stats(kVideo), gs::Errc::corrupt));
    EXPECT_TRUE(Fails(gs::Reader::open(map, kVideo), gs::Errc::corrupt));
    // The creator works in that file as well.
    ASSERT_EQ(truncate(path.c_str(), file.st_size), 0);
    EXPECT_TRUE(Succeeds(gs::guard(false)));
}

// ---- Following --------------------------------------------------------------------------------------------

class HppFollow : public testing::Test {
  protected:
    gs::FollowStep Step() { return follow.read(memory, kPatience).value(); }

    const std::string name = UniqueName();
    gs::Follow follow = gs::Follow::open(name).value();
    Bytes memory;
};

TEST_F(HppFollow, GoesThroughARestart) {
    EXPECT_TRUE(Fails(follow.read(memory, gs::no_wait), gs::Errc::timeout));
    EXPECT_TRUE(Fails(follow.description(), gs::Errc::not_found));
    EXPECT_TRUE(Fails(follow.stats(), gs::Errc::not_found));
    EXPECT_TRUE(Fails(follow.track_stats(), gs::Errc::not_found));
    for (const bool again : {false, true}) {
        gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
        gs::Writer writer = gs::Writer::open(buffer, kVideo).value();
        gs::FollowStep step = Step();
        EXPECT_TRUE(step.events.attached);
        EXPECT_EQ(step.events.restarted, again);
        EXPECT_FALSE(step.events.gone);
        EXPECT_FALSE(step.frame);
        gs::Description description = Picture();
        description.width += again ? 2 : 0;
        ASSERT_TRUE(Succeeds(writer.describe(description)));
        ASSERT_TRUE(Succeeds(writer.write(Text("frame"))));
        step = Step();
        ASSERT_TRUE(step.frame);
        EXPECT_EQ(TextOf(step.frame->data), "frame");
        EXPECT_TRUE(step.events.media);
        EXPECT_EQ(follow.description()->width, description.width);
        EXPECT_EQ(follow.description()->codec_data, description.codec_data);
        EXPECT_EQ(follow.stats()->frames, 1U);
        EXPECT_EQ(follow.track_stats()->frames, 1U);
        writer.close();
        writer = gs::Writer::open(buffer, kVideo).value();
        ASSERT_TRUE(Succeeds(writer.write(Text("frame of another writer"))));
        step = Step();
        ASSERT_TRUE(step.frame);
        EXPECT_TRUE(step.events.epoch);
        writer.close();
        buffer.close();
        step = Step();
        EXPECT_TRUE(step.events.gone);
        EXPECT_FALSE(step.frame);
        EXPECT_FALSE(gs::FollowEvents().any());
        EXPECT_TRUE(step.events.any());
    }
}

TEST_F(HppFollow, TrackThatIsNotThereIsAReason) {
    gs::FollowOptions options;
    options.track = {5, 0, gs::Kind::audio};
    options.start = gs::Start::key;
    options.owner = geteuid();
    gs::Follow other = gs::Follow::open(name, options).value();
    const gs::Buffer buffer = gs::Buffer::create(name, Small()).value();
    EXPECT_TRUE(Fails(other.read(memory, kPatience), gs::Errc::no_such_track, "channel 5"));
    EXPECT_TRUE(Fails(gs::Follow::open("a b"), gs::Errc::invalid_argument));
    EXPECT_TRUE(Fails(gs::Follow::open(std::string("a\0b", 3)), gs::Errc::invalid_argument, "NUL"));
}

}  // namespace
