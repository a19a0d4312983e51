/*
 * The least that a message can take which is copied once: memcpy into a ring and one futex, without any safety. What another
 * transport takes beyond it is its own; what it takes itself is the machine's.
 */
#include <limits.h>
#include <linux/futex.h>
#include <stdatomic.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bench.h"
#include "wake.h"

#define RING ((size_t)8 << 20)
#define PLACES 1024u

typedef struct bare {
    _Atomic uint32_t head;
    struct {
        size_t offset, size;
    } place[PLACES];
    unsigned char ring[RING];
} bare_t;

/* Made before the fork, so that both sides have it. */
static bare_t *bare;

static void send_messages(wake_t *wake) {
    size_t size, offset = 0;
    for (void *message; (message = wake_next(wake, &size)) != NULL; offset += (size + 63) / 64 * 64) {
        if (offset + size > RING)
            offset = 0;
        wake_stamp(message);
        uint32_t head = atomic_load_explicit(&bare->head, memory_order_relaxed);
        memcpy(bare->ring + offset, message, size);
        bare->place[head % PLACES].offset = offset;
        bare->place[head % PLACES].size = size;
        atomic_store_explicit(&bare->head, head + 1, memory_order_release);
        syscall(SYS_futex, &bare->head, FUTEX_WAKE, INT_MAX, NULL, NULL, 0);
    }
}

static void receive_messages(wake_t *wake) {
    uint32_t next = 0;
    bool more = true;
    wake_ready(wake);
    while (more) {
        if (atomic_load_explicit(&bare->head, memory_order_acquire) == next) {
            syscall(SYS_futex, &bare->head, FUTEX_WAIT, next, NULL, NULL, 0);
            continue;
        }
        more = wake_take(wake, bare->ring + bare->place[next % PLACES].offset, bare->place[next % PLACES].size);
        next++;
    }
}

static void nothing(wake_t *wake) {
    (void)wake;
}

static void done(void) {
    munmap(bare, sizeof *bare);
}

int main(int argc, char **argv) {
    static const wake_transport_t transport = {nothing, send_messages, done, receive_messages};
    bare = mmap(NULL, sizeof *bare, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (bare == MAP_FAILED)
        bench_fail("mmap");
    return wake_main(argc, argv, &transport);
}
