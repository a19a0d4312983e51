/*
 * One thread for all buffers of the process: it renews their heartbeats, wakes the readers that wait at
 * sockets, and looks after tracks that have fallen silent. It runs as long as there is a buffer, and never
 * calls the host: a stall handler has a thread of its own, so that one that waits for the host holds up nothing
 * else.
 */
#define _GNU_SOURCE /* pthread_setname_np */

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "shb_buffer.h"

#define EVENTS 64

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static pthread_t thread;
static bool running;  /* there is a thread that has not been joined; the lists below are its work */
static bool stopping; /* it is to end */
static int epoll = -1;
static int control = -1;  /* an eventfd: something has changed */
static uint64_t removals; /* buffers that have been taken out: what the system found before may be gone */
static shb_buffer_t *buffers;
static shb_writer_t *writers;

/* ---- Fork ------------------------------------------------------------------------------------------------------------ */

static void before_fork(void) {
    shb_guard_lock();
    shb_registry_lock();
    pthread_mutex_lock(&lock);
}

static void after_fork(void) {
    pthread_mutex_unlock(&lock);
    shb_registry_unlock();
    shb_guard_unlock();
}

/*
 * A forked child has its parent's lists, but not the thread, nor any business with those buffers. It holds the
 * locks that its parent took before the fork.
 */
static void forget_all(void) {
    shb_identity_forget();
    pthread_cond_init(&changed, NULL);
    for (shb_buffer_t *at = buffers; at != NULL; at = at->next_pulsed)
        shb_bell_forget(at);
    if (running) {
        close(epoll);
        close(control);
    }
    for (shb_writer_t *at = writers; at != NULL; at = at->next)
        at->stall_runs = at->stall_to_join = false;
    running = stopping = false;
    epoll = control = -1;
    buffers = NULL;
    writers = NULL;
    after_fork();
}

__attribute__((constructor)) static void prepare(void) {
    pthread_atfork(before_fork, after_fork, forget_all);
}

/* ---- Stalls ---------------------------------------------------------------------------------------------------------- */

static int start_thread(pthread_t *out, void *(*body)(void *), void *argument) {
    /* The host's signals are for the host's threads. */
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = pthread_create(out, NULL, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    return error;
}

static void *call_handler(void *argument) {
    shb_writer_t *writer = argument;
    pthread_mutex_lock(&lock);
    shb_stall_handler_t handler = writer->on_stall;
    void *user = writer->on_stall_user;
    uint64_t silent_ms = writer->silent_ms;
    pthread_mutex_unlock(&lock);
    if (handler != NULL)
        handler(user, silent_ms);
    pthread_mutex_lock(&lock);
    writer->stall_runs = false;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&lock);
    return NULL;
}

/* Under the lock, which is free while a handler runs. */
static void await_handler(shb_writer_t *writer) {
    while (writer->stall_runs)
        pthread_cond_wait(&changed, &lock);
    if (writer->stall_to_join)
        pthread_join(writer->stall_thread, NULL);
    writer->stall_to_join = false;
}

static void look_after(shb_writer_t *writer, uint64_t now) {
    uint64_t limit = (uint64_t)atomic_load_explicit(&writer->buffer->stall_ms, memory_order_relaxed) * 1000000;
    uint64_t last = atomic_load_explicit(&writer->view.head->last_ns, memory_order_relaxed);
    if (limit == 0 || last == 0 || now < last || now - last < limit || writer->on_stall == NULL || writer->stalled_at == last ||
        writer->stall_runs)
        return;
    await_handler(writer); /* has ended */
    writer->silent_ms = (now - last) / 1000000;
    writer->stall_runs = true;
    if (start_thread(&writer->stall_thread, call_handler, writer) == 0) {
        pthread_setname_np(writer->stall_thread, "shb-stall");
        writer->stall_to_join = true;
        writer->stalled_at = last;
    } else {
        /* No thread is to be had: the next look tries again. */
        writer->stall_runs = false;
    }
}

void shb_pulse_add_writer(shb_writer_t *writer) {
    pthread_mutex_lock(&lock);
    writer->next = writers;
    writers = writer;
    pthread_mutex_unlock(&lock);
}

void shb_pulse_remove_writer(shb_writer_t *writer) {
    pthread_mutex_lock(&lock);
    shb_writer_t **at = &writers;
    while (*at != NULL && *at != writer)
        at = &(*at)->next;
    /* A forked child has no such list, nor the thread that the handler may be running on. */
    if (*at != NULL) {
        *at = writer->next;
        await_handler(writer);
    }
    pthread_mutex_unlock(&lock);
}

int shb_writer_on_stall(shb_writer_t *writer, shb_stall_handler_t handler, void *user) {
    if (writer == NULL)
        return SHB_ERR_ARG;
    pthread_mutex_lock(&lock);
    await_handler(writer);
    writer->on_stall = handler;
    writer->on_stall_user = user;
    pthread_mutex_unlock(&lock);
    return SHB_OK;
}

/* ---- Heartbeat ------------------------------------------------------------------------------------------------------- */

void shb_pulse_beat(const shb_buffer_t *buffer) {
    shb_header_t *header = buffer->base;
    atomic_store_explicit(&header->heartbeat_ns, shb_now_ns(), memory_order_relaxed);
    atomic_store_explicit(&header->heartbeat_wall_ns, shb_wall_ns(), memory_order_relaxed);
}

static void beat(uint64_t now) {
    for (shb_buffer_t *at = buffers; at != NULL; at = at->next_pulsed) {
        shb_pulse_beat(at);
        shb_bell_tend(at, epoll);
    }
    for (shb_writer_t *at = writers; at != NULL; at = at->next)
        look_after(at, now);
}

static void answer(const struct epoll_event *events, int count) {
    for (int i = 0; i < count; i++) {
        uint64_t changes;
        if (events[i].data.ptr != NULL)
            shb_bell_answer(events[i].data.ptr, epoll);
        else if (read(control, &changes, sizeof changes) < 0)
            continue;
    }
}

static void *run(void *unused) {
    (void)unused;
    pthread_mutex_lock(&lock);
    uint64_t next = 0;
    while (!stopping) {
        uint64_t now = shb_now_ns();
        if (now >= next) {
            beat(now);
            next = now + SHB_HEARTBEAT_NS;
        }
        struct epoll_event events[EVENTS];
        uint64_t removals_before = removals;
        int wait_ms = (int)((next - now) / 1000000) + 1;
        pthread_mutex_unlock(&lock);
        int count = epoll_wait(epoll, events, EVENTS, wait_ms);
        pthread_mutex_lock(&lock);
        /* What is left unanswered now is found again. */
        if (removals == removals_before)
            answer(events, count);
    }
    pthread_mutex_unlock(&lock);
    return NULL;
}

static void notify(void) {
    const uint64_t one = 1;
    ssize_t ignored = write(control, &one, sizeof one);
    (void)ignored;
}

/* Under the lock. */
static int start(void) {
    struct epoll_event event = {.events = EPOLLIN, .data.ptr = NULL};
    epoll = epoll_create1(EPOLL_CLOEXEC);
    control = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int error = epoll < 0 || control < 0 || epoll_ctl(epoll, EPOLL_CTL_ADD, control, &event) != 0 ? errno : 0;
    if (error == 0)
        error = start_thread(&thread, run, NULL);
    if (error == 0) {
        pthread_setname_np(thread, "shb-pulse");
        running = true;
        return 0;
    }
    if (epoll >= 0)
        close(epoll);
    if (control >= 0)
        close(control);
    epoll = control = -1;
    return error;
}

int shb_pulse_add_buffer(shb_buffer_t *buffer) {
    pthread_mutex_lock(&lock);
    /* One that is just being stopped belongs to who stops it; a new one can start as soon as that is done. */
    while (stopping)
        pthread_cond_wait(&changed, &lock);
    int error = running ? 0 : start();
    if (error == 0) {
        buffer->next_pulsed = buffers;
        buffers = buffer;
        shb_bell_watch(buffer, epoll);
    }
    pthread_mutex_unlock(&lock);
    if (error == 0)
        return SHB_OK;
    errno = error;
    return SHB_ERR_SYSTEM;
}

void shb_pulse_remove_buffer(shb_buffer_t *buffer) {
    pthread_mutex_lock(&lock);
    shb_buffer_t **at = &buffers;
    while (*at != NULL && *at != buffer)
        at = &(*at)->next_pulsed;
    bool last = false;
    if (*at != NULL) {
        *at = buffer->next_pulsed;
        removals++;
        shb_bell_unwatch(buffer, epoll);
        last = buffers == NULL;
    }
    if (last) {
        stopping = true;
        notify();
        pthread_mutex_unlock(&lock);
        pthread_join(thread, NULL);
        pthread_mutex_lock(&lock);
        close(epoll);
        close(control);
        epoll = control = -1;
        running = stopping = false;
        pthread_cond_broadcast(&changed);
    }
    pthread_mutex_unlock(&lock);
}
