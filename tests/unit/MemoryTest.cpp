// No memory: each allocation of a call fails in turn, and the call ends with its failure result,
// or without its log line, instead of throwing into a host that is written in C. Its own
// program, since it replaces the allocation functions.
#include "gst_source_api.h"
#include "Logger.h"
#include "support/LogCapture.h"
#include "support/OutputPipe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <vector>

namespace {

// The n-th allocation of this thread from now on fails; 0 for none.
thread_local int t_failing = 0;

void *Allocate(std::size_t size) {
    if (t_failing > 0 && --t_failing == 0) {
        return nullptr;
    }
    return std::malloc(size > 0 ? size : 1);
}

}  // namespace

void *operator new(std::size_t size) {
    void *memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void *operator new[](std::size_t size) {
    return operator new(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return Allocate(size);
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete[](void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void *memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void *memory, const std::nothrow_t &) noexcept {
    std::free(memory);
}

namespace {

// Runs `call` with its n-th allocation failing; false when it made fewer.
bool WithFailure(int n, const std::function<void()> &call) {
    t_failing = n;
    call();
    const bool failed = t_failing == 0;
    t_failing = 0;
    return failed;
}

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

using unit::LogCapture;
using unit::OutputPipe;

int g_buffer = 0;

// More allocations than any of the calls makes: the end of a test whose call makes them without end.
constexpr int kMany = 2000;

struct Protocol {
    const char *name;
    int type;
    int (*open)(void *handle);
};

void PrintTo(const Protocol &row, std::ostream *out) {
    *out << row.name;
}

// Long enough not to fit into a string object itself.
const Protocol kProtocols[] = {
    {"Rtsp", SOURCE_TYPE_RTSP,
     [](void *handle) {
         return gst_rtsp_source_open_live_stream(handle, "rtsp://127.0.0.1:9/a-stream-without-a-peer", 200, 4, 2000, 1, "", "");
     }},
    {"Rtmp", SOURCE_TYPE_RTMP,
     [](void *handle) {
         return gst_rtmp_source_open_live_stream(handle, "rtmp://127.0.0.1:9/live/a-stream-without-a-peer", 200, 1, 0, "", "",
                                                 "");
     }},
    {"Srt", SOURCE_TYPE_SRT,
     [](void *handle) {
         return gst_srt_source_open_live_stream(handle, "srt://127.0.0.1:9?a-stream=without-a-peer", 200, "caller", "", "", 0,
                                                125, 50, "");
     }},
    {"Udp", SOURCE_TYPE_UDP,
     [](void *handle) {
         return gst_udp_source_open_live_stream(handle, "udp://127.0.0.1:0?a-stream=without-a-peer", 200, 700, 1492);
     }},
    {"Hls", SOURCE_TYPE_HLS,
     [](void *handle) {
         return gst_hls_source_open_live_stream(handle, "http://127.0.0.1:9/a-list-without-a-peer.m3u8", 200, 0, 15, 0,
                                                "127.0.0.1:9", "", "", "", "", "");
     }},
};

class Memory : public testing::TestWithParam<Protocol> {};

}  // namespace

TEST_P(Memory, CreateFailsWithoutIt) {
    // The first one initialises the framework.
    gst_source_destroy(gst_source_create(GetParam().type, &g_buffer, 0, 0));
    int refused = 0;
    for (int n = 1; n < kMany; ++n) {
        const LogCapture output;
        void *handle = nullptr;
        const bool failed = WithFailure(n, [&] { handle = gst_source_create(GetParam().type, &g_buffer, 0, 0); });
        EXPECT_EQ(handle == nullptr, Contains(output.Text(), "gst_source_create: std::bad_alloc\n"));
        refused += handle == nullptr ? 1 : 0;
        gst_source_destroy(handle);
        if (!failed) {
            EXPECT_NE(nullptr, handle);
            EXPECT_GT(refused, 0);
            return;
        }
    }
    FAIL() << "no end";
}

// All but SRT: its library allocates by the same functions, and its
// exceptions would end in the C code of its element.
class MemoryOfOpen : public Memory {};

TEST_P(MemoryOfOpen, FailsWithoutItAndCanBeRepeated) {
    int refused = 0;
    for (int n = 1; n < kMany; ++n) {
        SCOPED_TRACE(n);
        const LogCapture output;
        void *handle = gst_source_create(GetParam().type, &g_buffer, 0, 0);
        ASSERT_NE(nullptr, handle);
        int result = 1;
        const bool failed = WithFailure(n, [&] { result = GetParam().open(handle); });
        EXPECT_TRUE(result == 0 || result == -1);
        refused += result == -1 ? 1 : 0;
        EXPECT_EQ(0, gst_source_close_live_stream(handle));
        source_status_t status{};
        EXPECT_EQ(0, gst_source_get_status(handle, &status));
        EXPECT_STREQ("stop", status.state);
        if (result == -1) {
            EXPECT_TRUE(Contains(output.Text(), "std::bad_alloc")) << output.Text();
            EXPECT_EQ(0, GetParam().open(handle));
        }
        gst_source_destroy(handle);
        if (!failed) {
            EXPECT_EQ(0, result);
            EXPECT_GT(refused, 0);
            return;
        }
    }
    FAIL() << "no end";
}

std::string NameOf(const testing::TestParamInfo<Protocol> &row) {
    return row.param.name;
}

std::vector<Protocol> WithoutSrt() {
    std::vector<Protocol> rows;
    std::copy_if(std::begin(kProtocols), std::end(kProtocols), std::back_inserter(rows),
                 [](const Protocol &row) { return row.type != SOURCE_TYPE_SRT; });
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Protocols, Memory, testing::ValuesIn(kProtocols), NameOf);
INSTANTIATE_TEST_SUITE_P(Protocols, MemoryOfOpen, testing::ValuesIn(WithoutSrt()), NameOf);

TEST(MemoryOfTheLog, LineIsLeftOut) {
    const LogCapture output;
    EXPECT_TRUE(WithFailure(1, [] { GSTREAMER::WriteLogLine(GSTREAMER::LogLevel::Info, 1, "lost"); }));
    GSTREAMER::WriteLogLine(GSTREAMER::LogLevel::Info, 1, "kept");
    EXPECT_FALSE(Contains(output.Text(), "lost"));
    EXPECT_TRUE(Contains(output.Text(), "kept"));
}

TEST(MemoryOfTheLog, LineThatCannotBeFormedIsLeftOutOrCut) {
    const std::string operand(10000, 'x');
    int left_out = 0;
    for (int n = 1; n < kMany; ++n) {
        const LogCapture output;
        const bool failed = WithFailure(n, [&] { LOG_INFO("begin" << operand << "end"); });
        const std::string text = output.Text();
        left_out += text.empty() ? 1 : 0;
        EXPECT_TRUE(text.empty() || (Contains(text, "begin") && text.back() == '\n')) << text;
        if (!failed) {
            EXPECT_TRUE(Contains(text, "begin" + operand + "end\n"));
            EXPECT_GT(left_out, 0);
            return;
        }
    }
    FAIL() << "no end";
}

TEST(MemoryOfTheLog, NoticeIsWrittenLater) {
    bool failed = false;
    std::string reported;
    {
        OutputPipe pipe;
        pipe.Fill();
        GSTREAMER::WriteLogLine(GSTREAMER::LogLevel::Info, 1, "dropped");
        pipe.Drain();
        // The first allocation is the line's.
        failed = WithFailure(2, [&] { GSTREAMER::WriteLogLine(GSTREAMER::LogLevel::Info, 1, "lost"); });
        GSTREAMER::WriteLogLine(GSTREAMER::LogLevel::Info, 1, "kept");
        reported = pipe.Drain();
    }
    EXPECT_TRUE(failed);
    EXPECT_FALSE(Contains(reported, "lost")) << reported;
    EXPECT_TRUE(Contains(reported, "[Logger] Standard output was full, lines dropped: 1\n")) << reported;
    EXPECT_TRUE(Contains(reported, "kept\n")) << reported;
}
