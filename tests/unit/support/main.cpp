#include "RecordingSink.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    // The HTTP source takes a proxy from the environment, which is none of the tests' business.
    for (const char *name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
        unsetenv(name);
    }
    gst_init(&argc, &argv);
    unit::RegisterRecordingSink();
    const int result = RUN_ALL_TESTS();
    // With the tracer of live objects in place, this is where it reports.
    gst_deinit();
    return result;
}
