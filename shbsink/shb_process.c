/*
 * Processes: which one made a buffer, and whether it still runs. A process is asked about where that has a
 * meaning, which is in its own namespaces; elsewhere its heartbeat counts.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "shb_internal.h"

#define IDENTITY_PID_BITS 22
#define NS_PER_S UINT64_C(1000000000)

uint64_t shb_now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * NS_PER_S + (uint64_t)now.tv_nsec;
}

uint64_t shb_wall_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (uint64_t)now.tv_sec * NS_PER_S + (uint64_t)now.tv_nsec;
}

typedef enum process_state { PROCESS_GONE, PROCESS_HIDDEN, PROCESS_THERE } process_state_t;

/* The n-th field (from 3) of a line of /proc/PID/stat, null when there is none; `at` stands at field 3. */
static const char *stat_field(const char *at, int number) {
    for (int field = 3; at != NULL && field < number; field++) {
        at = strchr(at, ' ');
        if (at != NULL)
            at++;
    }
    return at;
}

static process_state_t process_start_time(pid_t pid, uint64_t *start) {
    enum { FIELD_THREADS = 20, FIELD_START = 22 };
    char text[1024];
    snprintf(text, sizeof text, "/proc/%ld/stat", (long)pid);
    int fd = open(text, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return kill(pid, 0) == 0 || errno == EPERM ? PROCESS_HIDDEN : PROCESS_GONE;
    ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    if (got <= 0)
        return PROCESS_GONE;
    text[got] = '\0';
    /*
     * The second field is the program's name in brackets and may itself hold blanks and brackets: count from
     * the last one.
     */
    const char *at = strrchr(text, ')');
    if (at == NULL || at[1] != ' ')
        return PROCESS_HIDDEN;
    at += 2;
    const char *threads = stat_field(at, FIELD_THREADS);
    const char *started = stat_field(at, FIELD_START);
    if (threads == NULL || started == NULL)
        return PROCESS_HIDDEN;
    /* A process whose main thread has ended is a zombie here, and lives as long as it has others. */
    if ((*at == 'Z' || *at == 'X') && strtol(threads, NULL, 10) <= 1)
        return PROCESS_GONE;
    *start = strtoull(started, NULL, 10);
    return PROCESS_THERE;
}

static uint64_t identity_of(pid_t pid, uint64_t start) {
    return start << IDENTITY_PID_BITS | ((uint64_t)pid & ((UINT64_C(1) << IDENTITY_PID_BITS) - 1));
}

/* 0: not asked yet in this process. */
static SHB_ATOMIC(uint64_t) own_identity;

void shb_identity_forget(void) {
    atomic_store_explicit(&own_identity, 0, memory_order_relaxed);
}

/*
 * Asked once: a host that runs out of descriptors later could not read its start time again, and would no longer
 * know its own tracks. The id is compared because a child that was made without fork() has its parent's memory.
 */
uint64_t shb_identity_self(void) {
    const pid_t pid = getpid();
    uint64_t known = atomic_load_explicit(&own_identity, memory_order_relaxed);
    if (known != 0 && shb_identity_pid(known) == pid)
        return known;
    uint64_t start = 0;
    /* Without /proc the start time stays 0, which stands for "by id only". */
    if (process_start_time(pid, &start) != PROCESS_THERE)
        return identity_of(pid, 0);
    atomic_store_explicit(&own_identity, identity_of(pid, start), memory_order_relaxed);
    return identity_of(pid, start);
}

pid_t shb_identity_pid(uint64_t identity) {
    return (pid_t)(identity & ((UINT64_C(1) << IDENTITY_PID_BITS) - 1));
}

/* Only a /proc of our own PID namespace knows processes by the ids that we know them by. */
static bool proc_is_ours(void) {
    char text[32];
    ssize_t length = readlink("/proc/self", text, sizeof text - 1);
    if (length <= 0)
        return false;
    text[length] = '\0';
    return strtol(text, NULL, 10) == (long)getpid();
}

static process_state_t ask(uint64_t identity, bool same_time) {
    pid_t pid = shb_identity_pid(identity);
    uint64_t start = 0;
    if (pid <= 0)
        return PROCESS_GONE;
    if (!proc_is_ours())
        return kill(pid, 0) == 0 || errno == EPERM ? PROCESS_HIDDEN : PROCESS_GONE;
    process_state_t state = process_start_time(pid, &start);
    if (state == PROCESS_THERE && same_time && identity >> IDENTITY_PID_BITS != 0 && identity_of(pid, start) != identity)
        return PROCESS_GONE;
    return state;
}

bool shb_identity_alive(uint64_t identity) {
    return ask(identity, true) != PROCESS_GONE;
}

static uint64_t namespace_of_self(const char *path) {
    struct stat file;
    return stat(path, &file) == 0 ? (uint64_t)file.st_ino : 0;
}

shb_origin_t shb_origin_self(void) {
    const shb_origin_t self = {
        .creator = shb_identity_self(),
        .pid_ns = namespace_of_self("/proc/thread-self/ns/pid"),
        .time_ns = namespace_of_self("/proc/thread-self/ns/time"),
    };
    return self;
}

bool shb_origin_is_near(const shb_origin_t *origin) {
    return origin->pid_ns != 0 && origin->pid_ns == namespace_of_self("/proc/thread-self/ns/pid");
}

shb_life_t shb_origin_life(const shb_origin_t *origin) {
    bool near = shb_origin_is_near(origin);
    if (!near && origin->pid_ns != 0)
        return SHB_LIFE_UNKNOWN;
    bool same_time = !near || origin->time_ns == namespace_of_self("/proc/thread-self/ns/time");
    if (ask(origin->creator, same_time) != PROCESS_GONE)
        return SHB_LIFE_ALIVE;
    /* Older layouts do not say which namespace their creator was in. */
    return near ? SHB_LIFE_GONE : SHB_LIFE_UNKNOWN;
}

shb_origin_t shb_origin_of(const shb_header_t *header) {
    shb_origin_t origin = {.creator = header->creator};
    if (header->version == SHB_LAYOUT_VERSION) {
        origin.pid_ns = header->pid_ns;
        origin.time_ns = header->time_ns;
    }
    return origin;
}

/* By whichever clock makes it younger: one may be of another time namespace, the other may have been set. */
uint64_t shb_heartbeat_age(shb_header_t *header) {
    uint64_t beat = atomic_load_explicit(&header->heartbeat_ns, memory_order_relaxed);
    uint64_t wall_beat = atomic_load_explicit(&header->heartbeat_wall_ns, memory_order_relaxed);
    uint64_t now = shb_now_ns();
    uint64_t wall = shb_wall_ns();
    uint64_t age = now >= beat ? now - beat : UINT64_MAX;
    if (header->version == SHB_LAYOUT_VERSION && wall >= wall_beat && wall - wall_beat < age)
        age = wall - wall_beat;
    return age;
}

bool shb_creator_alive(shb_header_t *header) {
    const shb_origin_t origin = shb_origin_of(header);
    shb_life_t life = shb_origin_life(&origin);
    if (life != SHB_LIFE_UNKNOWN)
        return life == SHB_LIFE_ALIVE;
    return header->version >= 2 && shb_heartbeat_age(header) < SHB_SILENT_NS;
}
