/*
 * The reader's handles.
 */
#ifndef SHB_READER_H
#define SHB_READER_H

#include "shb_internal.h"

/* A creator that was killed wakes nobody: a waiting reader looks after it that often. */
#define SHB_LIVENESS_NS UINT64_C(200000000)
/* A reader that nobody can wake looks by itself. */
#define SHB_UNWOKEN_LOOK_NS UINT64_C(5000000)
/* It tries that often to be woken after all. */
#define SHB_CONNECT_NS UINT64_C(1000000000)

struct shb_map {
    char name[SHB_NAME_MAX + 2];
    shb_header_t *base;
    size_t bytes;
    shb_places_t places;
    shb_origin_t origin;
    shb_origin_t self; /* of the process that attached it */
    bool near;         /* the creator's process id means the same here */
    bool same_time;    /* so does its CLOCK_MONOTONIC */
    uid_t owner;
    gid_t group;
    mode_t mode;
    dev_t device;
    ino_t inode;
    void *waiters;              /* null when they may not be written */
    size_t waiters_bytes;       /* of that mapping */
    shb_reader_table_t *table;  /* null when there is none */
    SHB_ATOMIC(unsigned) holds; /* 1 until it is detached, and 1 per open reader: the last one unmaps */
    SHB_ATOMIC(bool) damaged;   /* a part of the file is gone: what is read there is zeros */
    void *guarded[2];           /* of the buffer and of the waiters, null: not guarded */
};

struct shb_reader {
    shb_map_t *map;
    shb_track_view_t view;
    shb_waiters_t *waiters; /* of the track, null when they may not be written */
    shb_start_t start;
    uint64_t begin; /* index that the count of what was offered began with */
    uint64_t due;   /* index of the frame that would come if nothing were lost */
    uint64_t next;  /* index to read next; later than `due` once something was */
    uint64_t skip;  /* frames to give up when the oldest are overwritten faster than they can be had */
    bool wants_key; /* leave out frames until a key frame comes */
    bool fresh;     /* nothing delivered yet, waiting for a first key frame: leaving out is no loss */
    bool delivered;
    bool has_epoch; /* `epoch` is that of the last frame delivered, and no seek came since */
    uint64_t epoch;
    /* That of the last frame looked at, taken while the frame was whole; serial 0 when it has none. */
    shb_description_t description;
    uint64_t description_epoch;
    bool has_left_out; /* the track's count of frames left out is known as of the last frame */
    uint64_t left_out;
    uint64_t frame_left_out; /* the same of the frame that was looked at last */
    /* The creator. */
    uint64_t beat;       /* its last heartbeat seen */
    uint64_t beat_at;    /* about when that was, by our clock */
    uint64_t checked_ns; /* when the system was last asked */
    bool gone;           /* what it answered */
    bool suspect;        /* a connection has ended: do not wait for the heartbeat to fail */
    /* Being woken by a socket. */
    int link;           /* -1: none */
    bool watched;       /* the descriptor of the set looks at it */
    bool called;        /* a call is under way */
    uint64_t linked_ns; /* when a connection was last tried, 0: never */
    /* In the table of readers. */
    shb_reader_slot_t *slot; /* null: not listed */
    uint64_t slot_claim;
    shb_set_t *set;
    shb_reader_t *next_in_set;
    bool borrowed; /* frame `next` is in the caller's hands, and these are its values */
    shb_frame_t frame;
    shb_reader_stats_t stats;
};

/* Where a frame goes: into the caller's memory, or nowhere but into `place`, a pointer to where it lies. */
typedef struct shb_target {
    void *data;
    size_t capacity;
    const void **place;
    bool look_only; /* nothing of it is wanted but that it is there */
} shb_target_t;

typedef struct shb_extent {
    uint64_t tail, head;
} shb_extent_t;

/* What is held; false when the mapping is damaged. */
bool shb_take_extent(const shb_reader_t *reader, shb_extent_t *out);
/* Puts the reader where its start rule says. */
void shb_place(shb_reader_t *reader, const shb_extent_t *extent);
/*
 * SHB_OK when shb_reader_read has a frame, or what it would say instead; SHB_ERR_TIMEOUT when there is nothing.
 * Never waits.
 */
int shb_look(shb_reader_t *reader);

/* Now, by the creator's CLOCK_MONOTONIC. */
uint64_t shb_map_now(const shb_map_t *map);

/* The reader's entry in the table of readers (shb_readers.c). */
void shb_reader_enter(shb_reader_t *reader);
void shb_reader_leave(shb_reader_t *reader);
/* A frame has been delivered. */
void shb_reader_show_frame(shb_reader_t *reader);
/* It has looked and found nothing; `beat`: the creator's last heartbeat. */
void shb_reader_show_life(shb_reader_t *reader, uint64_t beat);

/* The reader's side of the sockets (shb_call.c). */
/* Asks to be woken as soon as there is a frame behind those that the reader has seen; false: nobody will. */
bool shb_call_out(shb_reader_t *reader);
/* Takes what has come in; the call is no longer under way then. */
void shb_call_drain(shb_reader_t *reader);
void shb_call_end(shb_reader_t *reader);
/* Sleeps until something may have come, at most `ns`. */
void shb_call_wait(shb_reader_t *reader, uint64_t ns);

/* The end of a wait that begins now: 0 for one that must not wait, UINT64_MAX for one without end. */
uint64_t shb_deadline(int timeout_ms);
/* How much of it is left, at most `longest`; 0 when it is over. */
uint64_t shb_time_left(uint64_t deadline, uint64_t longest);

/* Guarding mappings against files that are cut short (shb_guard.c). */
void *shb_guard_add(void *base, size_t bytes, SHB_ATOMIC(bool) * damaged);
void shb_guard_remove(void *guarded);

#endif /* SHB_READER_H */
