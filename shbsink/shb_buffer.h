/*
 * The creator's and the writer's handles.
 */
#ifndef SHB_BUFFER_H
#define SHB_BUFFER_H

#include <pthread.h>
#include <sys/types.h>

#include "shb_internal.h"

typedef struct shb_connection shb_connection_t;

/* What the pulse waits for: the listener or the bell of a buffer, or one of its connections. */
typedef struct shb_watch {
    enum { SHB_WATCH_LISTENER, SHB_WATCH_BELL, SHB_WATCH_CONNECTION } what;
    shb_buffer_t *buffer;
    shb_connection_t *connection;
} shb_watch_t;

/* A reader that is woken by its socket. All under the lock of the pulse. */
struct shb_connection {
    shb_connection_t *next;
    shb_watch_t watch;
    int fd;
    uid_t user;
    bool asked; /* it waits for `call` to come true */
    shb_call_t call;
};

struct shb_buffer {
    shb_buffer_t *next_pulsed; /* buffers with a heartbeat, under the lock of the pulse */
    unsigned holds;            /* 1 for the creator and 1 per open writer, under the registry's lock: the last one unmaps */
    char name[SHB_NAME_MAX + 2];
    char path[SHB_PATH_MAX];
    char waiters_path[SHB_PATH_MAX];
    char socket_path[SHB_PATH_MAX];
    shb_origin_t origin; /* the process that made it: a forked child holds a copy of this, but not the buffer */
    dev_t device;        /* what the name led to when it was made */
    ino_t inode;
    int fd; /* of the buffer's file */
    shb_places_t places;
    void *base;
    void *waiters;
    SHB_ATOMIC(uint32_t) stall_ms;

    /* Readers that are woken by sockets. The writers see no more of that than `called` and the bell. */
    int listener;               /* -1: there is none */
    int bell;                   /* an eventfd; -1: there is none */
    SHB_ATOMIC(bool) * called;  /* per track: somebody wants to be woken */
    shb_watch_t listener_watch; /* the rest under the lock of the pulse */
    shb_watch_t bell_watch;
    shb_connection_t *connections;
    unsigned count;
    bool deaf; /* no descriptor was left for one more connection: not listening until the next heartbeat */
};

struct shb_writer {
    shb_writer_t *next; /* writers that are looked after, under the lock of the pulse, as is all of the stall watch */
    shb_stall_handler_t on_stall;
    void *on_stall_user;
    uint64_t stalled_at; /* time of the last frame when the handler was called */
    uint64_t silent_ms;  /* for the handler */
    bool stall_runs;     /* the handler is running, on `stall_thread` */
    bool stall_to_join;
    pthread_t stall_thread;

    shb_buffer_t *buffer;
    shb_track_view_t view;
    shb_waiters_t *waiters;
    uint64_t identity;
    uint64_t epoch;
    uint64_t epoch_head;
    uint64_t head;     /* the next index */
    uint64_t tail;     /* as announced */
    uint64_t position; /* payload byte at which the next frame may start */
    uint64_t total_bytes;
    uint64_t key_frames;
    uint64_t left_out; /* of all epochs */
    bool gap;          /* a frame was left out since the last one */
    int64_t clock_offset;
    shb_description_t description; /* serial 0 until the first one */
    unsigned char codec_data[SHB_CODEC_DATA_MAX];
};

/* Takes a hold; null when this is no buffer of this process. Any pointer may be asked about. */
shb_buffer_t *shb_buffer_hold(const shb_buffer_t *buffer);
void shb_buffer_drop(shb_buffer_t *buffer);

/* A fork must find these locks free, or its child could never take them. */
void shb_registry_lock(void);
void shb_registry_unlock(void);

/*
 * The thread that renews heartbeats, wakes readers by their sockets and watches for stalls. SHB_OK,
 * SHB_ERR_SYSTEM.
 */
int shb_pulse_add_buffer(shb_buffer_t *buffer);
void shb_pulse_remove_buffer(shb_buffer_t *buffer);
void shb_pulse_add_writer(shb_writer_t *writer);
/* When it has returned, the writer's handler is not running and will not be called. */
void shb_pulse_remove_writer(shb_writer_t *writer);
/* Writes the heartbeat of a buffer. */
void shb_pulse_beat(const shb_buffer_t *buffer);

/*
 * The creator's side of the sockets (shb_bell.c). A buffer without is one whose other readers have to look by
 * themselves.
 */
void shb_bell_open(shb_buffer_t *buffer, mode_t mode, const gid_t *group);
void shb_bell_close(shb_buffer_t *buffer);
/* Frame `head` - 1 of the track has been written: wakes who has called. */
void shb_bell_ring(shb_buffer_t *buffer, uint64_t track);
/* The rest under the lock of the pulse: what its epoll has to look at, and what it has found. */
void shb_bell_watch(shb_buffer_t *buffer, int epoll);
void shb_bell_unwatch(shb_buffer_t *buffer, int epoll);
void shb_bell_answer(const shb_watch_t *watch, int epoll);
/* Once per heartbeat. */
void shb_bell_tend(shb_buffer_t *buffer, int epoll);
/* In a forked child: gives back its copies of the descriptors. */
void shb_bell_forget(shb_buffer_t *buffer);

#endif /* SHB_BUFFER_H */
