// Results, errors and views, without a buffer.
#include <array>
#include <memory>
#include <type_traits>

#include "support.h"

namespace {

using namespace hpp;

gs::Error Refused() {
    return {gs::Errc::refused, "because"};
}

TEST(HppResult, HoldsAValue) {
    gs::Result<std::string> result(std::string("value"));
    ASSERT_TRUE(result);
    EXPECT_TRUE(result.has_value());
    EXPECT_EQ(*result, "value");
    EXPECT_EQ(result->size(), 5U);
    EXPECT_EQ(result.value(), "value");
    EXPECT_EQ(result.code(), gs::Errc::ok);
    EXPECT_EQ(result.message(), "");
}

TEST(HppResult, GivesItsValueAway) {
    gs::Result<std::unique_ptr<int>> result(std::make_unique<int>(7));
    const std::unique_ptr<int> value = std::move(result).value();
    EXPECT_EQ(*value, 7);
    const std::unique_ptr<int> other = *gs::Result<std::unique_ptr<int>>(std::make_unique<int>(8));
    EXPECT_EQ(*other, 8);
}

TEST(HppResult, HoldsAReason) {
    const gs::Result<std::string> result(Refused());
    EXPECT_FALSE(result);
    EXPECT_FALSE(result.has_value());
    EXPECT_EQ(result.code(), gs::Errc::refused);
    EXPECT_EQ(result.message(), "because");
    EXPECT_EQ(result.error().system_error(), 0);
}

TEST(HppResult, AccessToNoValueThrowsTheReason) {
    gs::Result<std::string> result(Refused());
    EXPECT_THROW(static_cast<void>(result.value()), gs::BadResult);
    EXPECT_THROW(static_cast<void>(*result), gs::BadResult);
    EXPECT_THROW(static_cast<void>(result->size()), gs::BadResult);
    EXPECT_THROW(static_cast<void>(std::as_const(result).value()), gs::BadResult);
    EXPECT_THROW(static_cast<void>(std::as_const(result)->size()), gs::BadResult);
    EXPECT_THROW(static_cast<void>(std::move(result).value()), gs::BadResult);
    try {
        gs::Result<void>(Refused()).value();
        FAIL();
    } catch (const gs::BadResult &bad) {
        EXPECT_STREQ(bad.what(), "because");
        EXPECT_EQ(bad.error().code(), gs::Errc::refused);
    }
}

TEST(HppResult, OfNothingIsDoneOrNot) {
    const gs::Result<void> done;
    EXPECT_TRUE(done);
    EXPECT_NO_THROW(done.value());
    EXPECT_EQ(done.code(), gs::Errc::ok);
    const gs::Result<void> not_done(Refused());
    EXPECT_FALSE(not_done);
    EXPECT_EQ(not_done.message(), "because");
}

TEST(HppView, IsMadeOfBytesAnywhere) {
    const Bytes vector = {1, 2, 3};
    const std::array<std::uint8_t, 2> array = {4, 5};
    const gs::ByteView of_vector = vector;
    EXPECT_EQ(of_vector.data(), vector.data());
    EXPECT_EQ(of_vector.size(), 3U);
    EXPECT_EQ(of_vector[2], 3);
    EXPECT_EQ(Bytes(of_vector.begin(), of_vector.end()), vector);
    EXPECT_EQ(gs::ByteView(array).size(), 2U);
    EXPECT_EQ(gs::ByteView(vector.data(), 1).size(), 1U);
    EXPECT_TRUE(gs::ByteView().empty());
    EXPECT_FALSE(of_vector.empty());
    static_assert(!std::is_constructible_v<gs::ByteView, std::string>);
    static_assert(!std::is_constructible_v<gs::ByteView, std::vector<int>>);
}

// Owners can be moved, and nothing else.
template <typename Owner>
constexpr bool kOnlyMoves = std::is_nothrow_move_constructible_v<Owner> &&std::is_nothrow_move_assignable_v<Owner> &&
                            !std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner>;
static_assert(kOnlyMoves<gs::Buffer> && kOnlyMoves<gs::Source> && kOnlyMoves<gs::Writer> && kOnlyMoves<gs::Map> &&
              kOnlyMoves<gs::Reader> && kOnlyMoves<gs::BorrowedFrame> && kOnlyMoves<gs::Follow> && kOnlyMoves<gs::FrameRange>);
static_assert(std::is_move_constructible_v<gs::Set> && std::is_move_assignable_v<gs::Set> &&
              !std::is_copy_constructible_v<gs::Set> && !std::is_copy_assignable_v<gs::Set>);

// The defaults are those of the C interface and of the host tool.
TEST(HppOptions, HaveTheDefaultsOfTheGuides) {
    const gs::SourceOptions options;
    EXPECT_EQ(options.caching, 200U);
    EXPECT_EQ(options.rtsp.protocols, 4U);
    EXPECT_EQ(options.rtsp.latency, 2s);
    EXPECT_EQ(options.rtsp.contimeout, 15s);
    EXPECT_EQ(options.srt.mode, gs::SrtMode::caller);
    EXPECT_EQ(options.srt.keylen, 0U);
    EXPECT_EQ(options.srt.latency, 125ms);
    EXPECT_EQ(options.srt.tslatency, 50ms);
    EXPECT_EQ(options.rtmp.contimeout, 10s);
    EXPECT_EQ(options.rtmp.idle_timeout, 0s);
    EXPECT_EQ(options.udp.ts_latency, 700ms);
    EXPECT_EQ(options.udp.mtu, 1492U);
    EXPECT_EQ(options.hls.timeout, 15s);
    EXPECT_EQ(options.hls.retries, 3);
    EXPECT_FALSE(options.hls.islive);
}

TEST(HppUrl, SchemeNamesTheProtocol) {
    using gs::Protocol;
    const std::pair<const char *, Protocol> rows[] = {
        {"udp://239.1.2.3:5000", Protocol::udp},    {"rtsp://camera/live", Protocol::rtsp},  {"rtsps://camera", Protocol::rtsp},
        {"rtspt://camera", Protocol::rtsp},         {"rtspu://camera", Protocol::rtsp},      {"srt://:9000", Protocol::srt},
        {"rtmp://server/live/a", Protocol::rtmp},   {"RTMPS://server/live", Protocol::rtmp}, {"http://s/a.m3u8", Protocol::hls},
        {"HttpS://server/list.m3u8", Protocol::hls}};
    for (const auto &[url, protocol] : rows) {
        EXPECT_EQ(gs::protocol_of(url), protocol) << url;
    }
    for (const char *url : {"", "udp", "udp:", "udp://", "://host", "file:///tmp/a.ts", "udpx://host:1", " udp://host:1",
                            "rtp://host:1", "/dev/video0"}) {
        EXPECT_EQ(gs::protocol_of(url), std::nullopt) << url;
    }
}

}  // namespace
