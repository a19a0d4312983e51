// What the tests of the C++ header have in common: names, small tracks, and what a failed Result says.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "gst_source.hpp"

namespace hpp {

namespace gs = gst_source;
using namespace std::chrono_literals;

using Bytes = std::vector<std::uint8_t>;

// Longer than anything takes here that has to come.
inline constexpr gs::Timeout kPatience = 60s;

inline std::string UniqueName() {
    static std::atomic<int> counter{0};
    return "hpp-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

// The smallest tracks there are, two channels of two streams.
inline gs::Geometry Small() {
    gs::Geometry geometry;
    geometry.channels = 2;
    geometry.streams = 2;
    geometry.video_bytes = geometry.audio_bytes = 65536;
    geometry.video_frames = geometry.audio_frames = 16;
    return geometry;
}

inline Bytes Text(const std::string &text) {
    return {text.begin(), text.end()};
}

inline std::string TextOf(gs::ByteView bytes) {
    return {bytes.begin(), bytes.end()};
}

// Failed with this code, and with a text that says so.
template <typename T>
testing::AssertionResult Fails(const gs::Result<T> &result, gs::Errc code, const std::string &part = "") {
    if (result) {
        return testing::AssertionFailure() << "it did not fail";
    }
    if (result.code() != code || result.message().empty() || result.message().find(part) == std::string::npos) {
        return testing::AssertionFailure() << static_cast<int>(result.code()) << ": " << result.message();
    }
    return testing::AssertionSuccess();
}

template <typename T>
testing::AssertionResult Succeeds(const gs::Result<T> &result) {
    return result ? testing::AssertionSuccess() : testing::AssertionFailure() << result.message();
}

}  // namespace hpp
