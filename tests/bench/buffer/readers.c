/*
 * One writer and several reading processes.
 *
 *     readers READERS SIZE RATE MILLISECONDS
 *
 * RATE frames a second, 0: as many as go. Each reader copies each frame out and compares it byte for byte with what was
 * written under its number. Output: "writer FRAMES NANOSECONDS CALLS WOKEN", the time without the pauses of the pace, the
 * system calls that the library made for the writer (it has no other than a futex wake and the write that rings the bell), and the
 * readers that they woke; for each reader "reader DELIVERED LOST SLEPT", how often it gave the processor away. A reader whose delivered and lost frames do not add up to those written makes the program
 * fail.
 */
#define _GNU_SOURCE /* RTLD_NEXT */

#include <dlfcn.h>
#include <errno.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "shb.h"

#define PATTERNS 4u
#define READERS_MAX 64u

typedef struct result {
    uint64_t delivered, lost, slept;
} result_t;

/* Counts what the writing thread asks of the system; the pulse of the library is another one. */
static _Thread_local bool counted;
static uint64_t calls, woken;

/* The library's doors: the definitions in the program come before those of the C library. */
long syscall(long number, ...) {
    static long (*real)(long, ...);
    long a[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; i++)
        a[i] = va_arg(list, long);
    va_end(list);
    if (real == NULL)
        *(void **)&real = dlsym(RTLD_NEXT, "syscall");
    long result = real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (counted) {
        calls++;
        woken += number == SYS_futex && a[1] == FUTEX_WAKE && result > 0 ? (uint64_t)result : 0;
    }
    return result;
}

ssize_t write(int fd, const void *data, size_t size) {
    calls += counted;
    bool count = counted;
    counted = false;
    ssize_t result = syscall(SYS_write, fd, data, size);
    counted = count;
    return result;
}

static unsigned char *patterns[PATTERNS];

static uint64_t slept(void) {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (uint64_t)usage.ru_nvcsw;
}

static void must(int result) {
    if (result != SHB_OK)
        bench_fail(shb_strerror(result));
}

static void stamp(unsigned char *frame, uint64_t number) {
    memcpy(frame, &number, sizeof number);
}

static void check(const unsigned char *data, const shb_frame_t *frame, size_t size) {
    uint64_t number;
    memcpy(&number, data, sizeof number);
    if (frame->size != size || number != frame->sequence ||
        memcmp(data + sizeof number, patterns[number % PATTERNS] + sizeof number, size - sizeof number) != 0)
        bench_fail("a frame is damaged");
}

static void read_all(const char *name, size_t size, int ready, int results) {
    shb_map_t *map;
    shb_reader_t *reader;
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    result_t sum = {0, 0, 0};
    int status;
    unsigned char *data = bench_pattern(size, 0);
    must(shb_attach(name, &map));
    must(shb_reader_open(map, 0, 0, SHB_VIDEO, SHB_START_OLDEST, &reader));
    if (write(ready, "", 1) != 1)
        bench_fail("the writer is gone");
    uint64_t before = slept();
    while ((status = shb_reader_read(reader, data, size, -1, &frame)) == SHB_OK) {
        check(data, &frame, size);
        sum.delivered++;
        sum.lost += frame.lost;
    }
    sum.slept = slept() - before;
    if (status != SHB_ERR_CLOSED)
        bench_fail(shb_strerror(status));
    shb_reader_close(reader);
    shb_detach(map);
    free(data);
    if (write(results, &sum, sizeof sum) != sizeof sum)
        bench_fail("the writer is gone");
}

typedef struct written {
    uint64_t frames, busy_ns;
} written_t;

static written_t write_all(shb_writer_t *writer, size_t size, size_t rate, uint64_t milliseconds) {
    written_t sum = {0, 0};
    uint64_t start = bench_now_ns(), now = start, due = start;
    for (uint64_t end = start + milliseconds * 1000000; now < end;) {
        if (rate != 0)
            bench_sleep_until_ns(due += 1000000000 / rate);
        uint64_t before = rate != 0 ? bench_now_ns() : now;
        unsigned char *frame = patterns[sum.frames % PATTERNS];
        stamp(frame, sum.frames);
        counted = true;
        must(shb_writer_write(writer, frame, size, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE, 0));
        counted = false;
        sum.frames++;
        now = bench_now_ns();
        sum.busy_ns += now - before;
    }
    return sum;
}

int main(int argc, char **argv) {
    if (argc != 5)
        bench_usage("READERS SIZE RATE MILLISECONDS");
    size_t readers = bench_number(argv[1]), size = bench_number(argv[2]);
    if (readers > READERS_MAX || size < sizeof(uint64_t))
        bench_fail("too many readers or too small a frame");
    for (unsigned i = 0; i < PATTERNS; i++)
        patterns[i] = bench_pattern(size, i);
    char name[64];
    int ready[2], results[2];
    shb_buffer_t *buffer;
    shb_writer_t *writer;
    bench_name(name);
    must(shb_create(name, NULL, &buffer));
    must(shb_writer_open(buffer, 0, 0, SHB_VIDEO, &writer));
    if (pipe(ready) != 0 || pipe(results) != 0)
        bench_fail("pipe");
    for (size_t i = 0; i < readers; i++) {
        pid_t child = fork();
        if (child < 0)
            bench_fail("fork");
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            alarm(120);
            read_all(name, size, ready[1], results[1]);
            /* Not a return: the buffer is the parent's. */
            _exit(0);
        }
    }
    alarm(120);
    close(ready[1]);
    close(results[1]);
    char byte;
    for (size_t i = 0; i < readers; i++)
        if (read(ready[0], &byte, 1) != 1)
            bench_fail("a reader is gone");
    written_t sum = write_all(writer, size, bench_number(argv[3]), bench_number(argv[4]));
    shb_writer_close(writer);
    shb_destroy(buffer);
    printf("writer %llu %llu %llu %llu\n", (unsigned long long)sum.frames, (unsigned long long)sum.busy_ns,
           (unsigned long long)calls, (unsigned long long)woken);
    bool complete = true;
    result_t result;
    for (size_t i = 0; i < readers; i++) {
        if (read(results[0], &result, sizeof result) != sizeof result)
            bench_fail("a reader is gone");
        printf("reader %llu %llu %llu\n", (unsigned long long)result.delivered, (unsigned long long)result.lost,
               (unsigned long long)result.slept);
        complete = complete && result.delivered + result.lost == sum.frames;
    }
    for (unsigned i = 0; i < PATTERNS; i++)
        free(patterns[i]);
    while (wait(NULL) > 0 || errno == EINTR)
        continue;
    errno = 0;
    if (!complete)
        bench_fail("the frames of a reader do not add up");
    return 0;
}
