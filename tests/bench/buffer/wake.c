#include "wake.h"

#include <errno.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"

#define WARM_UP 50u
#define SIZES_MAX 8u
#define PATTERNS 4u

/* Stands in front of each message. */
typedef struct stamp {
    uint64_t sent_ns;
    uint64_t number;
    uint64_t size;
} stamp_t;

struct wake {
    const char *variant;
    char name[64];
    size_t count;
    uint64_t period_ns;
    size_t sizes[SIZES_MAX];
    size_t sizes_count;
    size_t largest;
    unsigned char *patterns[PATTERNS];
    uint64_t next;           /* number of the message to be sent, or to be received, next */
    uint64_t due_ns;         /* when it is to be sent */
    _Atomic uint64_t *taken; /* messages that the receiver is through with; both processes see it */
    int ready[2];
    int go[2];
    /* the child's */
    uint64_t received;
    uint64_t *latencies;
};

/* Rings are walked through and memory is mapped before anything counts, which takes large messages; then each size warms up. */
static uint64_t total(const wake_t *wake) {
    return WARM_UP + (wake->count + WARM_UP) * wake->sizes_count;
}

static size_t size_of(const wake_t *wake, uint64_t number) {
    return number < WARM_UP ? wake->largest : wake->sizes[(number - WARM_UP) / (wake->count + WARM_UP)];
}

static bool counts(const wake_t *wake, uint64_t number) {
    return number >= WARM_UP && (number - WARM_UP) % (wake->count + WARM_UP) >= WARM_UP;
}

const char *wake_variant(const wake_t *wake) {
    return wake->variant;
}

const char *wake_name(const wake_t *wake) {
    return wake->name;
}

size_t wake_largest(const wake_t *wake) {
    return wake->largest;
}

size_t wake_expected(const wake_t *wake) {
    return size_of(wake, wake->next);
}

void *wake_next(wake_t *wake, size_t *size) {
    if (wake->next == total(wake))
        return NULL;
    stamp_t stamp = {.number = wake->next++};
    stamp.size = *size = size_of(wake, stamp.number);
    unsigned char *message = wake->patterns[stamp.number % PATTERNS];
    memcpy(message, &stamp, sizeof stamp);
    uint64_t now = bench_now_ns();
    /* A sender that was held up does not make up for it, and a receiver that was is waited for: messages that meet no sleeping
     * receiver do not tell what a wake-up takes. */
    if (wake->due_ns < now)
        wake->due_ns = now;
    do
        bench_sleep_until_ns(wake->due_ns += wake->period_ns);
    while (atomic_load_explicit(wake->taken, memory_order_relaxed) < stamp.number);
    return message;
}

void wake_stamp(void *message) {
    uint64_t now = bench_now_ns();
    memcpy(message, &now, sizeof now);
}

void wake_ready(wake_t *wake) {
    if (write(wake->ready[1], "", 1) != 1)
        bench_fail("the sender is gone");
}

bool wake_take(wake_t *wake, const void *message, size_t size) {
    uint64_t now = bench_now_ns();
    stamp_t stamp;
    if (size < sizeof stamp)
        bench_fail("a message is cut off");
    memcpy(&stamp, message, sizeof stamp);
    if (stamp.number < wake->next || stamp.number >= total(wake) || stamp.size != size || size != size_of(wake, stamp.number))
        bench_fail("a message is not what was to come");
    if (memcmp((const unsigned char *)message + sizeof stamp, wake->patterns[stamp.number % PATTERNS] + sizeof stamp,
               size - sizeof stamp) != 0)
        bench_fail("a message is damaged");
    wake->next = stamp.number + 1;
    wake->latencies[stamp.number] = now - stamp.sent_ns;
    wake->received++;
    atomic_store_explicit(wake->taken, wake->next, memory_order_relaxed);
    return wake->next < total(wake);
}

static void receive(wake_t *wake, const wake_transport_t *transport) {
    char byte;
    /* The child must not outlive the parent, nor either of them a peer that says nothing any more: see alarm(). */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(wake->go[1]);
    wake->latencies = calloc(total(wake), sizeof *wake->latencies);
    if (wake->latencies == NULL || read(wake->go[0], &byte, 1) != 1)
        bench_fail("the sender is gone");
    transport->receive(wake);
    for (uint64_t number = 0; number < total(wake); number++)
        if (counts(wake, number) && wake->latencies[number] != 0)
            printf("%zu %llu\n", size_of(wake, number), (unsigned long long)wake->latencies[number]);
    printf("received %llu of %llu\n", (unsigned long long)wake->received, (unsigned long long)total(wake));
    fflush(stdout);
}

static int send_all(wake_t *wake, const wake_transport_t *transport, pid_t child) {
    char byte;
    int status;
    close(wake->ready[1]);
    transport->open(wake);
    if (write(wake->go[1], "", 1) != 1 || read(wake->ready[0], &byte, 1) != 1)
        bench_fail("the receiver is gone");
    transport->send(wake);
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            bench_fail("waitpid");
    transport->close();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

int wake_main(int argc, char **argv, const wake_transport_t *transport) {
    static wake_t wake;
    wake.variant = "";
    if (argc > 1 && (argv[1][0] < '0' || argv[1][0] > '9')) {
        wake.variant = argv[1];
        argc--;
        argv++;
    }
    if (argc < 4 || argc > 3 + (int)SIZES_MAX)
        bench_usage("[VARIANT] COUNT RATE SIZE...");
    wake.count = bench_number(argv[1]);
    size_t rate = bench_number(argv[2]);
    for (int i = 3; i < argc; i++) {
        size_t size = bench_number(argv[i]);
        if (size < sizeof(stamp_t))
            bench_fail("a message has no room for its time stamp");
        wake.sizes[wake.sizes_count++] = size;
        if (size > wake.largest)
            wake.largest = size;
    }
    if (wake.count == 0 || rate == 0)
        bench_fail("nothing to do");
    wake.period_ns = 1000000000 / rate;
    bench_name(wake.name);
    for (unsigned i = 0; i < PATTERNS; i++)
        wake.patterns[i] = bench_pattern(wake.largest, i);
    wake.taken = mmap(NULL, sizeof *wake.taken, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (wake.taken == MAP_FAILED)
        bench_fail("mmap");
    if (pipe(wake.ready) != 0 || pipe(wake.go) != 0)
        bench_fail("pipe");
    signal(SIGPIPE, SIG_IGN);
    unsigned bound = 60 + 4 * (unsigned)(total(&wake) / rate);
    pid_t child = fork();
    if (child < 0)
        bench_fail("fork");
    alarm(bound);
    if (child > 0)
        return send_all(&wake, transport, child);
    receive(&wake, transport);
    /* A return from main: what checks for leaks and races looks then. */
    return 0;
}
