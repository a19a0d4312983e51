/*
 * The creator's and the writer's handles.
 */
#ifndef SHB_BUFFER_H
#define SHB_BUFFER_H

#include <sys/types.h>

#include "shb_internal.h"

struct shb_buffer {
    shb_buffer_t *next;        /* registry, under its lock */
    shb_buffer_t *next_pulsed; /* buffers with a heartbeat, under the lock of the pulse */
    unsigned holds;            /* 1 for the creator and 1 per open writer, under the registry's lock: the last one unmaps */
    char name[SHB_NAME_MAX + 2];
    char path[SHB_PATH_MAX];
    char waiters_path[SHB_PATH_MAX];
    uint64_t creator; /* identity of the process that made it: a forked child holds a copy of this, but not the buffer */
    dev_t device;     /* what the name led to when it was made */
    ino_t inode;
    int fd; /* of the buffer's file: what readers have locked can be asked here */
    shb_places_t places;
    void *base;
    void *waiters;
    SHB_ATOMIC(uint32_t) stall_ms;
    SHB_ATOMIC(bool) always_wake; /* a reader is attached that cannot announce itself */
};

struct shb_writer {
    shb_writer_t *next; /* writers that are looked after, under the lock of the pulse, as are the next three */
    shb_stall_handler_t on_stall;
    void *on_stall_user;
    uint64_t stalled_at; /* time of the last frame when the handler was called */

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
    uint64_t left_out;
    shb_description_t description; /* serial 0 until the first one */
};

/* Takes a hold; null when this is no buffer of this process. Any pointer may be asked about. */
shb_buffer_t *shb_buffer_hold(const shb_buffer_t *buffer);
void shb_buffer_drop(shb_buffer_t *buffer);

/* The thread that renews heartbeats and watches for stalls. SHB_OK, SHB_ERR_SYSTEM. */
int shb_pulse_add_buffer(shb_buffer_t *buffer);
void shb_pulse_remove_buffer(shb_buffer_t *buffer);
void shb_pulse_add_writer(shb_writer_t *writer);
/* When it has returned, the writer's handler is not running and will not be called. */
void shb_pulse_remove_writer(shb_writer_t *writer);

#endif /* SHB_BUFFER_H */
