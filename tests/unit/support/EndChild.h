// The end of a child process of a test, in which nothing of the parent's may be torn down.
#pragma once

#include <unistd.h>

#ifdef GST_SOURCE_COVERAGE
extern "C" void __gcov_dump();  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the compiler's
#endif

namespace unit {

// As _exit. A build that counts coverage keeps what the child has counted.
[[noreturn]] inline void EndChild(int code) {
#ifdef GST_SOURCE_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

}  // namespace unit
