/*
 * Waiting for several readers at once: by the words that they would sleep on one by one, or by one descriptor
 * for the event loop of a host.
 */
#define _GNU_SOURCE /* ppoll */

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "shb_reader.h"

#define NS_PER_S UINT64_C(1000000000)

static struct timespec timespec_of(uint64_t ns) {
    const struct timespec result = {.tv_sec = (time_t)(ns / NS_PER_S), .tv_nsec = (long)(ns % NS_PER_S)};
    return result;
}

/* ---- Once ------------------------------------------------------------------------------------------------------------ */

#define READERS_MAX 1024

/* Looks at all of them, beginning with `first`; `count` when none has anything to say. */
static size_t look_at_all(shb_reader_t *const *readers, size_t count, size_t first) {
    for (size_t i = 0; i < count; i++) {
        size_t at = first + i < count ? first + i : first + i - count;
        if (shb_look(readers[at]) != SHB_ERR_TIMEOUT)
            return at;
    }
    return count;
}

/*
 * By their words in the files of waiters; false when one of them has none, or when the system cannot do that.
 */
static bool sleep_on_words(shb_reader_t *const *readers, const uint32_t *seen, size_t count, uint64_t ns) {
    SHB_ATOMIC(uint32_t) * words[SHB_WAIT_MANY_MAX];
    if (count > SHB_WAIT_MANY_MAX)
        return false;
    for (size_t i = 0; i < count; i++) {
        if (readers[i]->waiters == NULL)
            return false;
        words[i] = &readers[i]->waiters->wake;
    }
    for (size_t i = 0; i < count; i++)
        shb_announce(readers[i]->waiters);
    return shb_wait_many(words, seen, count, ns);
}

static void sleep_on_sockets(shb_reader_t *const *readers, size_t count, uint64_t ns) {
    struct pollfd sockets[READERS_MAX];
    for (size_t i = 0; i < count; i++) {
        sockets[i].fd = shb_call_out(readers[i]) ? readers[i]->link : -1;
        sockets[i].events = POLLIN;
        sockets[i].revents = 0;
        if (sockets[i].fd < 0 && ns > SHB_UNWOKEN_LOOK_NS)
            ns = SHB_UNWOKEN_LOOK_NS;
    }
    const struct timespec timeout = timespec_of(ns);
    if (ppoll(sockets, count, &timeout, NULL) <= 0)
        return;
    for (size_t i = 0; i < count; i++)
        if (sockets[i].revents != 0)
            shb_call_drain(readers[i]);
}

int shb_wait_any(shb_reader_t *const *readers, size_t count, int timeout_ms, size_t *index) {
    if (readers == NULL || index == NULL || count == 0 || count > READERS_MAX || timeout_ms < -1)
        return SHB_ERR_ARG;
    for (size_t i = 0; i < count; i++)
        if (readers[i] == NULL || readers[i]->borrowed)
            return SHB_ERR_ARG;
    uint64_t deadline = shb_deadline(timeout_ms);
    size_t first = *index < count ? (*index + 1) % count : 0;
    for (;;) {
        /* The words before the look, as for one reader. */
        uint32_t seen[SHB_WAIT_MANY_MAX];
        for (size_t i = 0; i < count && i < SHB_WAIT_MANY_MAX; i++)
            seen[i] = readers[i]->waiters == NULL ? 0 : atomic_load_explicit(&readers[i]->waiters->wake, memory_order_acquire);
        size_t found = look_at_all(readers, count, first);
        if (found < count) {
            *index = found;
            return SHB_OK;
        }
        uint64_t wait = shb_time_left(deadline, SHB_LIVENESS_NS);
        if (wait == 0)
            return SHB_ERR_TIMEOUT;
        if (!sleep_on_words(readers, seen, count, wait))
            sleep_on_sockets(readers, count, wait);
    }
}

/* ---- Sets ------------------------------------------------------------------------------------------------------------ */

struct shb_set {
    int epoll; /* all the sockets, and the timer */
    int timer;
    uint64_t period_ns;    /* of the timer */
    shb_reader_t *readers; /* in a ring: the one that comes next */
};

int shb_set_open(shb_set_t **out) {
    if (out == NULL)
        return SHB_ERR_ARG;
    shb_set_t *set = calloc(1, sizeof *set);
    if (set == NULL)
        return SHB_ERR_SYSTEM;
    struct epoll_event event = {.events = EPOLLIN, .data.ptr = NULL};
    set->epoll = epoll_create1(EPOLL_CLOEXEC);
    set->timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (set->epoll < 0 || set->timer < 0 || epoll_ctl(set->epoll, EPOLL_CTL_ADD, set->timer, &event) != 0) {
        int saved = errno;
        shb_set_close(set);
        errno = saved;
        return SHB_ERR_SYSTEM;
    }
    *out = set;
    return SHB_OK;
}

void shb_set_close(shb_set_t *set) {
    if (set == NULL)
        return;
    while (set->readers != NULL)
        shb_set_remove(set, set->readers);
    if (set->epoll >= 0)
        close(set->epoll);
    if (set->timer >= 0)
        close(set->timer);
    free(set);
}

int shb_set_fd(const shb_set_t *set) {
    return set == NULL ? -1 : set->epoll;
}

/* Makes the descriptor readable after `ns`, and again and again; 0: at once. */
static void set_timer(shb_set_t *set, uint64_t ns) {
    if (set->period_ns == ns && ns != 0)
        return;
    set->period_ns = ns;
    struct itimerspec when = {.it_value = timespec_of(ns == 0 ? 1 : ns), .it_interval = timespec_of(ns)};
    timerfd_settime(set->timer, 0, &when, NULL);
}

int shb_set_add(shb_set_t *set, shb_reader_t *reader) {
    if (set == NULL || reader == NULL || reader->set != NULL)
        return SHB_ERR_ARG;
    if (set->readers == NULL) {
        reader->next_in_set = reader;
    } else {
        reader->next_in_set = set->readers->next_in_set;
        set->readers->next_in_set = reader;
    }
    reader->set = set;
    set->readers = reader;
    /* It may have something to say already. A socket that it had is not in this set. */
    shb_call_end(reader);
    reader->linked_ns = 0;
    set_timer(set, 0);
    return SHB_OK;
}

int shb_set_remove(shb_set_t *set, shb_reader_t *reader) {
    if (set == NULL || reader == NULL || reader->set != set)
        return SHB_ERR_ARG;
    shb_reader_t *before = reader;
    while (before->next_in_set != reader)
        before = before->next_in_set;
    before->next_in_set = reader->next_in_set;
    if (set->readers == reader)
        set->readers = before == reader ? NULL : before;
    reader->next_in_set = NULL;
    reader->set = NULL;
    shb_call_end(reader);
    return SHB_OK;
}

/*
 * Sees to it that the descriptor becomes readable when this reader has something to say; false: a timer must do
 * that.
 */
static bool arm(shb_set_t *set, shb_reader_t *reader) {
    shb_call_drain(reader);
    bool called = shb_call_out(reader);
    /* It may have been made by a wait for this reader alone. */
    if (reader->link >= 0 && !reader->watched) {
        struct epoll_event event = {.events = EPOLLIN, .data.ptr = reader};
        if (epoll_ctl(set->epoll, EPOLL_CTL_ADD, reader->link, &event) != 0) {
            shb_call_end(reader);
            return false;
        }
        reader->watched = true;
    }
    return called;
}

static void arm_all(shb_set_t *set) {
    uint64_t expirations;
    bool all = true;
    shb_reader_t *at = set->readers;
    if (read(set->timer, &expirations, sizeof expirations) < 0 && errno != EAGAIN)
        all = false;
    if (at != NULL)
        do {
            all = arm(set, at) && all;
            at = at->next_in_set;
        } while (at != set->readers);
    /* A creator that was stopped or killed by force is noticed by looking after it. */
    set_timer(set, all ? SHB_CONNECT_NS : SHB_UNWOKEN_LOOK_NS);
}

/* In turns: the one that was found last is looked at last. */
static shb_reader_t *find_ready(shb_set_t *set) {
    shb_reader_t *last = set->readers;
    if (last == NULL)
        return NULL;
    shb_reader_t *at = last;
    do {
        at = at->next_in_set;
        if (!at->borrowed && shb_look(at) != SHB_ERR_TIMEOUT) {
            set->readers = at;
            return at;
        }
    } while (at != last);
    return NULL;
}

int shb_set_next(shb_set_t *set, int timeout_ms, shb_reader_t **out) {
    if (set == NULL || out == NULL || timeout_ms < -1)
        return SHB_ERR_ARG;
    uint64_t deadline = shb_deadline(timeout_ms);
    for (;;) {
        shb_reader_t *ready = find_ready(set);
        if (ready != NULL) {
            *out = ready;
            return SHB_OK;
        }
        arm_all(set);
        uint64_t wait = shb_time_left(deadline, SHB_LIVENESS_NS);
        if (wait == 0)
            return SHB_ERR_TIMEOUT;
        const struct timespec timeout = timespec_of(wait);
        struct pollfd descriptor = {.fd = set->epoll, .events = POLLIN};
        ppoll(&descriptor, 1, &timeout, NULL);
    }
}
