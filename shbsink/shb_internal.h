/*
 * What the creator's, the writer's and the reader's side share: places, process identities, waiting and copying.
 */
#ifndef SHB_INTERNAL_H
#define SHB_INTERNAL_H

#include <stdbool.h>
#include <sys/types.h>

#include "shb_layout.h"

#define SHB_NAME_MAX 200
#define SHB_PATH_PREFIX "/dev/shm"
/* "/dev/shm", the name, and "+" with the token of the file of waiters. */
#define SHB_PATH_MAX (SHB_NAME_MAX + 32)
#define SHB_HEARTBEAT_NS UINT64_C(250000000)

/* Geometry with the defaults filled in and the places that follow from it. */
typedef struct shb_places {
    shb_geometry_t geometry;
    uint64_t track_bytes[2]; /* per kind: track head, descriptors, payload, rounded to pages */
    uint64_t total_bytes;
    uint64_t waiters_bytes; /* of the file of waiters */
} shb_places_t;

/* One track of a mapping. `frames` and `bytes` come from the checked geometry, never from the mapping. */
typedef struct shb_track_view {
    shb_track_t *head;
    shb_descriptor_t *descriptors;
    unsigned char *payload;
    uint64_t frames;
    uint64_t bytes;
    uint64_t number; /* of the track, in the order of the mapping */
} shb_track_view_t;

/* Fills in defaults and computes the places; false when the geometry is outside its ranges. */
bool shb_places_from_geometry(const shb_geometry_t *geometry, shb_places_t *out);
/* False when channel, stream or kind is outside the geometry. */
bool shb_track_at(const shb_places_t *places, void *base, uint32_t channel, uint32_t stream, shb_kind_t kind,
                  shb_track_view_t *out);

/* Puts the leading "/" in front; false when the name is not allowed. `out` holds SHB_NAME_MAX + 2 bytes. */
bool shb_full_name(const char *name, char *out);

/*
 * Identity of a process: its id and its start time in one word, so that a recycled id is not mistaken for the process that had it before
 * and that one compare-and-swap can claim a track.
 */
uint64_t shb_identity_self(void);
pid_t shb_identity_pid(uint64_t identity);
bool shb_identity_alive(uint64_t identity);

uint64_t shb_now_ns(void);

/* Waits until *word differs from `seen`, at most timeout_ns; may return early. */
void shb_wait(SHB_ATOMIC(uint32_t) * word, uint32_t seen, uint64_t timeout_ns);
/* Changes *word and wakes everybody who waits for it. */
void shb_wake(SHB_ATOMIC(uint32_t) * word);
/*
 * Changes *word, and wakes only if somebody has announced himself by `waiters->waiting`, or if `always`: without a waiter this is no system
 * call. Null waiters count as nobody.
 */
void shb_wake_waiting(SHB_ATOMIC(uint32_t) * word, shb_waiters_t *waiters, bool always);
/* Announces a waiter. The futex word must have been read before, and what the wait is for looked at after that. */
void shb_announce(shb_waiters_t *waiters);
/* Words of the track in a mapping of the file of waiters. */
shb_waiters_t *shb_waiters_at(void *base, uint64_t track);

/* Payload copies. Writer and reader may meet in the same bytes by design: the reader checks afterwards and throws away what was torn. */
void shb_copy_in(void *to, const void *from, size_t size);
void shb_copy_out(void *to, const void *from, size_t size);
/* Orders the announcement before the copy in, and the copy out before the check. */
void shb_fence_full(void);
void shb_fence_release(void);
void shb_fence_acquire(void);

/* Statistics and descriptions, the same for both sides. */
void shb_track_stats(const shb_track_view_t *view, shb_stats_t *out);
int shb_track_newest_description(const shb_track_view_t *view, shb_description_t *out);
/* The description with this serial of this epoch. SHB_OK, SHB_ERR_NOT_FOUND, SHB_ERR_CORRUPT. */
int shb_track_description(const shb_track_view_t *view, uint64_t epoch, uint32_t serial, shb_description_t *out);

/* Paths of the buffer (`full` with its leading "/") and of its file of waiters; `out` holds SHB_PATH_MAX bytes. */
void shb_path(const char *full, char *out);
void shb_waiters_path(const char *full, uint64_t token, char *out);
/*
 * Removes the buffer of this name if its creator has died, or in any case with `force`; what is no shared buffer stays. Files of waiters that
 * belong to nobody any more go with it. SHB_OK: the name is free; SHB_ERR_EXISTS, SHB_ERR_VERSION, SHB_ERR_SYSTEM.
 */
int shb_remove_file(const char *full, bool force);
/* Removes the files of waiters of this name whose creators have died. */
void shb_sweep_waiters(const char *full);
/* What a header tells about its buffer; `file_bytes` is the size of what it stands in. */
void shb_info_from_header(const char *full, const shb_header_t *header, uint64_t file_bytes, shb_info_t *out);

/* Checks the first page against the size of the mapping: SHB_OK, SHB_ERR_VERSION, SHB_ERR_CORRUPT. */
int shb_check_header(const shb_header_t *header, uint64_t mapped, shb_places_t *out);

#endif /* SHB_INTERNAL_H */
