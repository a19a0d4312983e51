/* program_invocation_short_name */
#define _GNU_SOURCE

#include "bench.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

uint64_t bench_now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

void bench_sleep_until_ns(uint64_t when) {
    const struct timespec until = {.tv_sec = (time_t)(when / 1000000000), .tv_nsec = (long)(when % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == EINTR)
        continue;
}

size_t bench_number(const char *text) {
    char *end;
    errno = 0;
    unsigned long long number = strtoull(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0)
        bench_fail("not a number");
    return (size_t)number;
}

unsigned char *bench_pattern(size_t size, uint64_t seed) {
    void *memory = NULL;
    errno = posix_memalign(&memory, 4096, size + sizeof seed);
    if (errno != 0)
        bench_fail("no memory");
    unsigned char *bytes = memory;
    uint64_t state = seed * UINT64_C(0x9E3779B97F4A7C15) + 1;
    for (size_t at = 0; at < size; at += sizeof state) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        memcpy(bytes + at, &state, sizeof state);
    }
    return bytes;
}

void bench_name(char out[64]) {
    snprintf(out, 64, "gst-source-bench-%d", (int)getpid());
}

void bench_usage(const char *arguments) {
    fprintf(stderr, "usage: %s %s\n", program_invocation_short_name, arguments);
    exit(2);
}

void bench_fail(const char *what) {
    fprintf(stderr, "%s: %s%s%s\n", program_invocation_short_name, what, errno != 0 ? ": " : "",
            errno != 0 ? strerror(errno) : "");
    exit(1);
}
