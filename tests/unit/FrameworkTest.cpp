// Once-only initialisation of the framework. Its own program: the process is not initialised by
// anything else, and nothing in it uses the framework. The calls are recorded; the real teardown is
// left out, since nothing can be built after it.
#include "CGstUtils.h"
#include "gst_source_api.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_mutex;
std::vector<std::string> g_calls;

void Note(const std::string &call) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(call);
}

std::vector<std::string> TakeCalls() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> calls;
    calls.swap(g_calls);
    return calls;
}

// One initialisation: these calls first, whatever is done for speed after them, and the state that they mean.
void ExpectInitialised() {
    const std::vector<std::string> calls = TakeCalls();
    const std::vector<std::string> expected = {"init (no arguments)", "debug active 1", "debug threshold 1"};
    ASSERT_LE(expected.size(), calls.size());
    EXPECT_EQ(expected, std::vector<std::string>(calls.begin(), calls.begin() + 3));
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "init (no arguments)"));
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), "deinit"));
    EXPECT_TRUE(gst_debug_is_active());
    EXPECT_EQ(GST_LEVEL_ERROR, gst_debug_get_default_threshold());
    EXPECT_EQ(GST_LEVEL_ERROR, gst_debug_category_get_threshold(GST_CAT_DEFAULT));
}

}  // namespace

extern "C" {

void __real_gst_init(int *argc, char **argv[]);
void __wrap_gst_init(int *argc, char **argv[]);
void __wrap_gst_deinit(void);
void __real_gst_debug_set_active(gboolean active);
void __wrap_gst_debug_set_active(gboolean active);
void __real_gst_debug_set_default_threshold(GstDebugLevel level);
void __wrap_gst_debug_set_default_threshold(GstDebugLevel level);

void __wrap_gst_init(int *argc, char **argv[]) {
    Note(argc == nullptr && argv == nullptr ? "init (no arguments)" : "init");
    __real_gst_init(argc, argv);
}

void __wrap_gst_deinit(void) {
    Note("deinit");
}

void __wrap_gst_debug_set_active(gboolean active) {
    Note("debug active " + std::to_string(active));
    __real_gst_debug_set_active(active);
}

void __wrap_gst_debug_set_default_threshold(GstDebugLevel level) {
    Note("debug threshold " + std::to_string(level));
    __real_gst_debug_set_default_threshold(level);
}

}  // extern "C"

// One test in steps: each begins where the one before has left the process.
TEST(Framework, IsInitialisedOnce) {
    GSTREAMER::GstDeInit();
    EXPECT_EQ(std::vector<std::string>{}, TakeCalls()) << "nothing to tear down";

    // The first source initialises, however many come at once.
    constexpr int kThreads = 8;
    int buffer = 0;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    std::vector<void *> sources(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < kThreads) {
            }
            const int types[] = {SOURCE_TYPE_RTSP, SOURCE_TYPE_RTMP, SOURCE_TYPE_SRT, SOURCE_TYPE_UDP, SOURCE_TYPE_HLS};
            sources[static_cast<std::size_t>(i)] = gst_source_create(types[i % 5], &buffer, 0, 0);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    ExpectInitialised();

    // Sources that go do not tear anything down.
    for (void *source : sources) {
        EXPECT_NE(nullptr, source);
        gst_source_destroy(source);
    }
    EXPECT_EQ(nullptr, gst_source_create(SOURCE_TYPE_UDP, nullptr, 0, 0));
    GSTREAMER::GstInit();
    EXPECT_EQ(std::vector<std::string>{}, TakeCalls());

    GSTREAMER::GstDeInit();
    GSTREAMER::GstDeInit();
    EXPECT_EQ(std::vector<std::string>{"deinit"}, TakeCalls());

    gst_source_destroy(gst_source_create(SOURCE_TYPE_UDP, &buffer, 0, 0));
    ExpectInitialised();  // the next source initialises again
    GSTREAMER::GstInit();
    EXPECT_EQ(std::vector<std::string>{}, TakeCalls());
}
