// The same header in C++20, in one program with files in C++17: spans, ranges and designated initialisers.
#include <algorithm>
#include <iterator>
#include <ranges>
#include <span>

#include "support.h"

namespace {

using namespace hpp;

static_assert(__cplusplus >= 202002L);
static_assert(std::ranges::contiguous_range<gs::ByteView> && std::ranges::sized_range<gs::ByteView>);
static_assert(std::input_iterator<gs::FrameRange::Iterator>);
static_assert(std::sentinel_for<gs::FrameRange::Sentinel, gs::FrameRange::Iterator>);
static_assert(std::ranges::input_range<gs::FrameRange>);

TEST(HppCpp20, FramesAreSpansAndRanges) {
    const std::string name = UniqueName();
    gs::Buffer buffer = gs::Buffer::create(name, {.channels = 2, .video_bytes = 65536}).value();
    gs::Writer writer = gs::Writer::open(buffer, {.channel = 1}).value();
    const gs::Map map = gs::Map::attach(name).value();
    gs::Reader reader = gs::Reader::open(map, {.channel = 1}, gs::Start::oldest).value();
    for (const char *text : {"a", "bb", "ccc"}) {
        ASSERT_TRUE(Succeeds(writer.write(Text(text), {.pts = 40ms, .key = false})));
    }
    writer.close();
    buffer.close();
    std::size_t sum = 0;
    gs::FrameRange frames = reader.frames();
    std::ranges::for_each(frames,
                          [&sum](const gs::Frame &frame) { sum += std::span<const std::uint8_t>(frame.data).size_bytes(); });
    EXPECT_EQ(sum, 6U);
    EXPECT_EQ(frames.error().code(), gs::Errc::closed);
}

}  // namespace
