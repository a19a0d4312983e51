/*
 * The sender of the fleet benchmark: one file of a constant rate to many ports of the loopback, each from a place of its own in
 * the file, in one process that is cheap.
 *
 *     send FILE BITS_PER_SECOND PORT...
 *
 * Datagram k of source i of n is due at (k + i / n) times the interval of a source, so that the datagrams of all sources are spread
 * evenly. SIGUSR1: prints what was sent so far, "sent DATAGRAMS late_us LARGEST"; the latter begins anew. SIGTERM ends it. A source
 * that has reached the end of the file begins anew, which receivers take for a new stream: the file should be long enough.
 */
#define _GNU_SOURCE /* sendmmsg */

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define DATAGRAM 1316 /* seven packets of a transport stream */
#define BATCH 256
#define SPREAD_S 25 /* of the file, over which the sources begin */
#define NS UINT64_C(1000000000)
#define TICK_NS UINT64_C(1000000) /* no more wake-ups than these */

static volatile sig_atomic_t asked, ended;

static void on_signal(int number) {
    if (number == SIGUSR1) {
        asked = 1;
    } else {
        ended = 1;
    }
}

static uint64_t now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * NS + (uint64_t)now.tv_nsec;
}

static void sleep_until(uint64_t ns) {
    const struct timespec until = {.tv_sec = (time_t)(ns / NS), .tv_nsec = (long)(ns % NS)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL);
}

int main(int argc, char **argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s FILE BITS_PER_SECOND PORT...\n", argv[0]);
        return 2;
    }
    const uint64_t sources = (uint64_t)argc - 3;
    const uint64_t rate = strtoull(argv[2], NULL, 10);
    struct stat file;
    const int fd = open(argv[1], O_RDONLY | O_CLOEXEC);
    const int out = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (rate == 0 || fd < 0 || fstat(fd, &file) != 0 || file.st_size < DATAGRAM || out < 0) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    char *bytes = mmap(NULL, (size_t)file.st_size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    struct sockaddr_in *targets = calloc(sources, sizeof *targets);
    static struct mmsghdr messages[BATCH];
    static struct iovec parts[BATCH];
    if (bytes == MAP_FAILED || targets == NULL) {
        fprintf(stderr, "%s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    for (uint64_t i = 0; i < sources; i++) {
        targets[i].sin_family = AF_INET;
        targets[i].sin_port = htons((uint16_t)strtoul(argv[3 + i], NULL, 10));
        targets[i].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    const struct sigaction action = {.sa_handler = on_signal};
    sigaction(SIGUSR1, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);

    const uint64_t length = (uint64_t)file.st_size / DATAGRAM;
    const uint64_t spread = rate / 8 * SPREAD_S / DATAGRAM;
    const double interval = (double)DATAGRAM * 8 * (double)NS / (double)rate / (double)sources;
    const uint64_t start = now_ns();
    uint64_t sent = 0, latest = 0;
    while (!ended) {
        const uint64_t now = now_ns();
        const uint64_t due = (uint64_t)((double)(now - start) / interval) + 1;
        const uint64_t late = now - start - (uint64_t)((double)sent * interval);
        if (sent < due && late > latest) {
            latest = late;
        }
        while (sent < due) {
            unsigned count = 0;
            for (; count < BATCH && sent + count < due; count++) {
                const uint64_t source = (sent + count) % sources;
                const uint64_t place = ((sent + count) / sources + source * spread / sources) % length;
                parts[count].iov_base = bytes + place * DATAGRAM;
                parts[count].iov_len = DATAGRAM;
                messages[count].msg_hdr.msg_iov = &parts[count];
                messages[count].msg_hdr.msg_iovlen = 1;
                messages[count].msg_hdr.msg_name = &targets[source];
                messages[count].msg_hdr.msg_namelen = sizeof targets[source];
            }
            const int done = sendmmsg(out, messages, count, 0);
            if (done < 0 && errno != EINTR) {
                fprintf(stderr, "sendmmsg: %s\n", strerror(errno));
                return 1;
            }
            sent += done > 0 ? (uint64_t)done : 0;
        }
        if (asked) {
            asked = 0;
            printf("sent %" PRIu64 " late_us %" PRIu64 "\n", sent, latest / 1000);
            fflush(stdout);
            latest = 0;
        }
        const uint64_t next = start + (uint64_t)((double)sent * interval);
        sleep_until(next > now + TICK_NS ? next : now + TICK_NS);
    }
    return 0;
}
