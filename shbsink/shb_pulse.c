/*
 * One thread for all buffers of the process: it renews their heartbeats and looks after tracks that have fallen silent. It runs as long as there
 * is a buffer.
 */
#define _GNU_SOURCE /* pthread_setname_np, F_OFD_GETLK */

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>

#include "shb_buffer.h"

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed;
static pthread_once_t once = PTHREAD_ONCE_INIT;
static pthread_t thread;
static bool running;  /* there is a thread that has not been joined; the lists below are its work */
static bool stopping; /* it has been told to end */
static shb_buffer_t *buffers;
static shb_writer_t *writers;

static void make_condition(void) {
    pthread_condattr_t monotonic;
    pthread_condattr_init(&monotonic);
    pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
    pthread_cond_init(&changed, &monotonic);
    pthread_condattr_destroy(&monotonic);
}

/* A forked child has its parent's lists, but not the thread, nor any business with those buffers. */
static void forget_all(void) {
    pthread_mutex_init(&lock, NULL);
    make_condition();
    running = stopping = false;
    buffers = NULL;
    writers = NULL;
}

static void prepare(void) {
    make_condition();
    pthread_atfork(NULL, NULL, forget_all);
}

static void look_after(shb_writer_t *writer, uint64_t now) {
    uint64_t limit = (uint64_t)atomic_load_explicit(&writer->buffer->stall_ms, memory_order_relaxed) * 1000000;
    uint64_t last = atomic_load_explicit(&writer->view.head->last_ns, memory_order_relaxed);
    if (limit == 0 || last == 0 || now < last || now - last < limit || writer->on_stall == NULL || writer->stalled_at == last)
        return;
    writer->stalled_at = last;
    writer->on_stall(writer->on_stall_user, (now - last) / 1000000);
}

/* Readers that may not write into the file of waiters hold a lock on the buffer instead. */
static bool has_silent_readers(const shb_buffer_t *buffer) {
    struct flock asked = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
    return fcntl(buffer->fd, F_OFD_GETLK, &asked) == 0 && asked.l_type != F_UNLCK;
}

static void *run(void *unused) {
    (void)unused;
    pthread_mutex_lock(&lock);
    while (!stopping) {
        uint64_t now = shb_now_ns();
        for (shb_buffer_t *at = buffers; at != NULL; at = at->next_pulsed) {
            atomic_store_explicit(&((shb_header_t *)at->base)->heartbeat_ns, now, memory_order_relaxed);
            atomic_store_explicit(&at->always_wake, has_silent_readers(at), memory_order_relaxed);
        }
        for (shb_writer_t *at = writers; at != NULL; at = at->next)
            look_after(at, now);
        uint64_t next = now + SHB_HEARTBEAT_NS;
        const struct timespec until = {.tv_sec = (time_t)(next / 1000000000), .tv_nsec = (long)(next % 1000000000)};
        while (!stopping && pthread_cond_timedwait(&changed, &lock, &until) == 0)
            continue;
    }
    pthread_mutex_unlock(&lock);
    return NULL;
}

/* Under the lock. The host's signals are for the host's threads. */
static int start(void) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = pthread_create(&thread, NULL, run, NULL);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    if (error == 0) {
        pthread_setname_np(thread, "shb-pulse");
        running = true;
    }
    return error;
}

int shb_pulse_add_buffer(shb_buffer_t *buffer) {
    pthread_once(&once, prepare);
    pthread_mutex_lock(&lock);
    /* One that is just being stopped belongs to who stops it; a new one can start as soon as that is done. */
    while (stopping)
        pthread_cond_wait(&changed, &lock);
    int error = running ? 0 : start();
    if (error == 0) {
        buffer->next_pulsed = buffers;
        buffers = buffer;
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
        last = buffers == NULL;
    }
    if (last) {
        stopping = true;
        pthread_cond_broadcast(&changed);
        pthread_mutex_unlock(&lock);
        pthread_join(thread, NULL);
        pthread_mutex_lock(&lock);
        running = stopping = false;
        pthread_cond_broadcast(&changed);
    }
    pthread_mutex_unlock(&lock);
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
    if (*at != NULL)
        *at = writer->next;
    pthread_mutex_unlock(&lock);
}

int shb_writer_on_stall(shb_writer_t *writer, shb_stall_handler_t handler, void *user) {
    if (writer == NULL)
        return SHB_ERR_ARG;
    pthread_mutex_lock(&lock);
    writer->on_stall = handler;
    writer->on_stall_user = user;
    pthread_mutex_unlock(&lock);
    return SHB_OK;
}
