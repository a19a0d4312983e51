#include "LogCapture.h"
#include "RecordingSink.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// libsrt 1.5.1 frees what belongs to a port a second or two after its last socket was closed, on a thread
// that does not know of the end of the process. Each port has a thread of its own for as long.
bool SrtIsAtRest() {
    std::error_code gone;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        if (name.find("SRT:RcvQ") == 0 || name.find("SRT:SndQ") == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    // The HTTP source takes a proxy from the environment, which is none of the tests' business.
    for (const char *name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
        unsetenv(name);
    }
    gst_init(&argc, &argv);
    unit::RegisterRecordingSink();
    const int result = RUN_ALL_TESTS();
    unit::Eventually(SrtIsAtRest, 10);
    // With the tracer of live objects in place, this is where it reports.
    gst_deinit();
    return result;
}
