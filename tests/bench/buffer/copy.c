/*
 * Writing and reading beside memcpy of the same size.
 *
 *     copy ROUNDS BYTES SIZE...
 *
 * Both sides take from one source buffer and go through rings of the same size, in shared memory of the same kind, all of it
 * touched before. A round handles BYTES on each side, one right after the other, and the next round in the opposite order.
 * "awake" is writing while a reader in another process never sleeps: it copies out what it finds new in the buffer, and in the other
 * ring alike. One line per round: "write|read|awake SIZE NANOSECONDS-PER-FRAME NANOSECONDS-PER-MEMCPY".
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"
#include "shb.h"

#define RING ((size_t)8 << 20)

static shb_buffer_t *buffer;
static shb_writer_t *writer;
static shb_map_t *map;
static unsigned char *ring;     /* memcpy's, for writing */
static unsigned char *readable; /* the same memory, mapped once more for reading */
static unsigned char *source;
static unsigned char *target;
static size_t ring_at;

/* What the reader that is awake has to know of the other ring, and what it has found. */
typedef struct awake {
    _Atomic bool over;
    _Atomic uint64_t copied;         /* bytes, behind the last memcpy */
    _Atomic uint64_t frames, copies; /* taken out */
} awake_t;
static awake_t *awake;

static void must(int result) {
    if (result != SHB_OK)
        bench_fail(shb_strerror(result));
}

static void make_buffer(void) {
    char name[64];
    /* Descriptors enough for a ring full of the smallest frames. */
    const shb_geometry_t geometry = {
        .struct_size = sizeof geometry, .video_bytes = RING, .audio_bytes = 65536, .video_frames = 16384, .audio_frames = 16};
    bench_name(name);
    must(shb_create(name, &geometry, &buffer));
    must(shb_writer_open(buffer, 0, 0, SHB_VIDEO, &writer));
    must(shb_attach(name, &map));
}

static void make_ring(void) {
    char name[80] = "/";
    bench_name(name + 1);
    strcat(name, "-memcpy");
    int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0)
        bench_fail("shm_open");
    shm_unlink(name);
    errno = posix_fallocate(fd, 0, (off_t)RING);
    if (errno != 0)
        bench_fail("posix_fallocate");
    ring = mmap(NULL, RING, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    readable = mmap(NULL, RING, PROT_READ, MAP_SHARED, fd, 0);
    if (ring == MAP_FAILED || readable == MAP_FAILED)
        bench_fail("mmap");
    close(fd);
}

static uint64_t write_frames(size_t size, size_t count) {
    uint64_t start = bench_now_ns();
    for (size_t i = 0; i < count; i++)
        if (shb_writer_write(writer, source, size, i, i, SHB_TIME_NONE, 0) != SHB_OK)
            bench_fail("a frame was not written");
    return bench_now_ns() - start;
}

static uint64_t copy_in(size_t size, size_t count) {
    size_t step = (size + 63) / 64 * 64;
    uint64_t start = bench_now_ns();
    for (size_t i = 0; i < count; i++) {
        if (ring_at + size > RING)
            ring_at = 0;
        memcpy(ring + ring_at, source, size);
        /* What is copied must not be taken for dead. */
        __asm__ volatile("" ::"r"(ring + ring_at) : "memory");
        atomic_store_explicit(&awake->copied, ring_at + 1, memory_order_release);
        ring_at += step;
    }
    return bench_now_ns() - start;
}

/* What is read was written right before, on both sides: it makes a difference to the caches. */
static uint64_t read_frames(size_t size, size_t count) {
    shb_reader_t *reader;
    write_frames(size, count + 1);
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    must(shb_reader_open(map, 0, 0, SHB_VIDEO, SHB_START_OLDEST, &reader));
    uint64_t start = bench_now_ns();
    for (size_t i = 0; i < count; i++)
        if (shb_reader_read(reader, target, size, 0, &frame) != SHB_OK || frame.size != size)
            bench_fail("a frame was not read");
    uint64_t took = bench_now_ns() - start;
    shb_reader_close(reader);
    if (memcmp(source, target, size) != 0)
        bench_fail("a frame is damaged");
    return took;
}

static uint64_t copy_out(size_t size, size_t count) {
    size_t step = (size + 63) / 64 * 64, at = 0;
    ring_at = 0;
    copy_in(size, count);
    uint64_t start = bench_now_ns();
    for (size_t i = 0; i < count; i++) {
        memcpy(target, readable + at, size);
        __asm__ volatile("" ::"r"(target) : "memory");
        at += step;
    }
    uint64_t took = bench_now_ns() - start;
    if (memcmp(source, target, size) != 0)
        bench_fail("memcpy is damaged");
    return took;
}

typedef uint64_t (*part_t)(size_t size, size_t count);

static void side_by_side(const char *name, size_t round, part_t ours, part_t theirs, size_t size, size_t count, size_t times) {
    uint64_t own = 0, plain = 0;
    for (size_t i = 0; i < times; i++) {
        if ((round + i) % 2 == 0) {
            own += ours(size, count);
            plain += theirs(size, count);
        } else {
            plain += theirs(size, count);
            own += ours(size, count);
        }
    }
    double frames = (double)(count * times);
    printf("%s %zu %.2f %.2f\n", name, size, (double)own / frames, (double)plain / frames);
}

/* The reader that is awake, until it is over. */
static void never_sleep(size_t size) {
    shb_reader_t *reader;
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    uint64_t last = 0;
    must(shb_reader_open(map, 0, 0, SHB_VIDEO, SHB_START_NEWEST, &reader));
    while (!atomic_load_explicit(&awake->over, memory_order_relaxed)) {
        int result = shb_reader_read(reader, target, size, 0, &frame);
        if (result == SHB_OK)
            atomic_fetch_add_explicit(&awake->frames, 1, memory_order_relaxed);
        else if (result != SHB_ERR_TIMEOUT)
            bench_fail(shb_strerror(result));
        uint64_t copied = atomic_load_explicit(&awake->copied, memory_order_acquire);
        if (copied == last)
            continue;
        last = copied;
        memcpy(target, readable + copied - 1, size);
        __asm__ volatile("" ::"r"(target) : "memory");
        atomic_fetch_add_explicit(&awake->copies, 1, memory_order_relaxed);
    }
    shb_reader_close(reader);
}

static void measure_awake(size_t rounds, size_t size, size_t count) {
    awake->over = false;
    awake->frames = awake->copies = 0;
    pid_t child = fork();
    if (child < 0)
        bench_fail("fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(120);
        never_sleep(size);
        /* Not a return: the buffer is the parent's. */
        _exit(0);
    }
    while (awake->frames == 0)
        write_frames(size, 1);
    for (size_t round = 0; round < rounds; round++)
        side_by_side("awake", round, write_frames, copy_in, size, count, 1);
    awake->over = true;
    int status;
    if (waitpid(child, &status, 0) != child || status != 0 || awake->copies == 0)
        bench_fail("the reader has not been awake");
}

static void measure(size_t rounds, size_t bytes, size_t size) {
    size_t held = RING / ((size + 63) / 64 * 64);
    size_t count = bytes / size > held ? bytes / size : held;
    /* Everything is touched before anything counts. */
    write_frames(size, 2 * held);
    copy_in(size, 2 * held);
    read_frames(size, held - 1);
    copy_out(size, held - 1);
    for (size_t round = 0; round < rounds; round++) {
        side_by_side("write", round, write_frames, copy_in, size, count, 1);
        side_by_side("read", round, read_frames, copy_out, size, held - 1, (count + held - 1) / held);
    }
    measure_awake(rounds, size, count);
}

int main(int argc, char **argv) {
    if (argc < 4)
        bench_usage("ROUNDS BYTES SIZE...");
    size_t largest = 0;
    for (int i = 3; i < argc; i++)
        largest = bench_number(argv[i]) > largest ? bench_number(argv[i]) : largest;
    if (largest == 0 || largest > RING / 4)
        bench_fail("a size that the ring is not made for");
    source = bench_pattern(largest, 1);
    target = bench_pattern(largest, 2);
    make_buffer();
    make_ring();
    awake = mmap(NULL, sizeof *awake, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (awake == MAP_FAILED)
        bench_fail("mmap");
    /* What stands in it must not appear twice. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    for (int i = 3; i < argc; i++)
        measure(bench_number(argv[1]), bench_number(argv[2]), bench_number(argv[i]));
    shb_detach(map);
    shb_writer_close(writer);
    shb_destroy(buffer);
    munmap(ring, RING);
    munmap(readable, RING);
    munmap(awake, sizeof *awake);
    free(source);
    free(target);
    return 0;
}
