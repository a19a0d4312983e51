/*
 * What the creator's, the writer's and the reader's side share: places, processes, waiting and copying.
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
/*
 * As long as the last heartbeat is no older than this, nobody needs to ask the system whether the creator
 * lives.
 */
#define SHB_FRESH_NS (2 * SHB_HEARTBEAT_NS)
/*
 * A creator that cannot be asked for is taken for dead after this; one that was only stopped for a while is
 * not.
 */
#define SHB_SILENT_NS (20 * SHB_HEARTBEAT_NS)

/* ---- Structs with a size: the first field of each public one ------------------------------------------------------- */

/*
 * Copies what the caller gave into `out`; false when its size is too small, or when it holds fields that are
 * not known here.
 */
bool shb_take_struct(const void *given, void *out, size_t size);
/* Whether the caller's struct has room for `size` bytes, and filling it in; its own size stays. */
bool shb_can_give(const void *given, size_t size);
void shb_give_struct(void *given, const void *from, size_t size);

/* ---- Places ---------------------------------------------------------------------------------------------------------- */

/* Geometry with the defaults filled in and the places that follow from it. */
typedef struct shb_places {
    shb_geometry_t geometry;
    uint64_t track_bytes[2]; /* per kind: track head, descriptors, payload, rounded to pages */
    uint64_t total_bytes;
    uint64_t words_bytes;   /* of the file of waiters, without the table of readers */
    uint64_t waiters_bytes; /* with it */
    uint64_t tracks;        /* their number */
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
/* The track of this number, which must be below places->tracks. */
void shb_track_by_number(const shb_places_t *places, void *base, uint64_t number, shb_track_view_t *out);
/* Checks the first page against the size of the mapping: SHB_OK, SHB_ERR_VERSION, SHB_ERR_CORRUPT. */
int shb_check_header(const shb_header_t *header, uint64_t mapped, shb_places_t *out);
/* Words of the track in a mapping of the file of waiters. */
shb_waiters_t *shb_waiters_at(void *base, uint64_t track);

/* ---- Readers that are listed (shb_readers.c) ------------------------------------------------------------------------- */

/* The table in a mapping of the file of waiters that has one. */
shb_reader_table_t *shb_reader_table_at(const shb_places_t *places, void *waiters);
void shb_reader_table_init(shb_reader_table_t *table);
bool shb_reader_table_is_sound(const shb_reader_table_t *table);

typedef struct shb_reader_list {
    const shb_places_t *places;
    void *base; /* of the buffer */
    shb_reader_table_t *table;
    uint64_t now; /* by the creator's clock */
} shb_reader_list_t;

/* Fills in up to `capacity` of them; how many there are. Slots of processes that have ended are made free. */
size_t shb_reader_list(const shb_reader_list_t *list, shb_reader_info_t *out, size_t capacity);

/* ---- Names ----------------------------------------------------------------------------------------------------------- */

/* Puts the leading "/" in front; false when the name is not allowed. `out` holds SHB_NAME_MAX + 2 bytes. */
bool shb_full_name(const char *name, char *out);
/*
 * Paths of the buffer (`full` with its leading "/"), of its file of waiters and of its socket; `out` holds
 * SHB_PATH_MAX bytes.
 */
void shb_path(const char *full, char *out);
void shb_waiters_path(const char *full, uint64_t token, char *out);
void shb_socket_path(uint64_t token, char *out);
/*
 * Removes the buffer of this name if its creator has died, or in any case with `force`; what is no shared
 * buffer stays. Its other files go with it. SHB_OK: the name is free; SHB_ERR_EXISTS, SHB_ERR_VERSION,
 * SHB_ERR_SYSTEM.
 */
int shb_remove_file(const char *full, bool force);
/* Removes the files of waiters of this name whose creators have died, and their sockets. */
void shb_sweep_waiters(const char *full);
/*
 * What a header says about its buffer, but for what the system has to say of its creator; `file` is what it
 * stands in.
 */
struct stat;
void shb_info_from_header(const char *full, shb_header_t *header, const struct stat *file, shb_info_t *out);

/* ---- Processes ------------------------------------------------------------------------------------------------------- */

/*
 * Identity of a process: its id and its start time in one word, so that a recycled id is not mistaken for the
 * process that had it before and that one compare-and-swap can claim a track. It holds in one PID namespace and
 * one time namespace.
 */
uint64_t shb_identity_self(void);
/* In a forked child, which is another process. */
void shb_identity_forget(void);
pid_t shb_identity_pid(uint64_t identity);
bool shb_identity_alive(uint64_t identity);

typedef enum shb_life { SHB_LIFE_GONE, SHB_LIFE_ALIVE, SHB_LIFE_UNKNOWN } shb_life_t;

shb_origin_t shb_origin_self(void);
shb_origin_t shb_origin_of(const shb_header_t *header);
/* Whether the creator's process id means the same here. */
bool shb_origin_is_near(const shb_origin_t *origin);
/* What the system says of the process; UNKNOWN where it cannot be asked for. */
shb_life_t shb_origin_life(const shb_origin_t *origin);
/* UINT64_MAX when no clock can tell. */
uint64_t shb_heartbeat_age(shb_header_t *header);
/* Exactly where the process can be asked for, otherwise by its heartbeat. Takes system calls. */
bool shb_creator_alive(shb_header_t *header);

uint64_t shb_now_ns(void);
uint64_t shb_wall_ns(void);

/* ---- Waiting --------------------------------------------------------------------------------------------------------- */

/* Waits until *word differs from `seen`, at most timeout_ns; may return early. */
void shb_wait(SHB_ATOMIC(uint32_t) * word, uint32_t seen, uint64_t timeout_ns);
/* The same for several words; false when the system cannot do that. */
#define SHB_WAIT_MANY_MAX 128
bool shb_wait_many(SHB_ATOMIC(uint32_t) *const *words, const uint32_t *seen, size_t count, uint64_t timeout_ns);
/* Changes *word and wakes everybody who waits for it. */
void shb_wake(SHB_ATOMIC(uint32_t) * word);
/*
 * Changes the word, and wakes only if somebody has announced himself: without a waiter this is no system call.
 */
void shb_wake_waiting(shb_waiters_t *waiters);
/* Announces a waiter. The word must have been read before, and what the wait is for looked at after that. */
void shb_announce(shb_waiters_t *waiters);

/* A fork must find this lock free, or its child could never take it (shb_guard.c). */
void shb_guard_lock(void);
void shb_guard_unlock(void);

/* ---- Copying --------------------------------------------------------------------------------------------------------- */

/*
 * Payload copies. Writer and reader may meet in the same bytes by design: the reader checks afterwards and
 * throws away what was torn.
 */
void shb_copy_in(void *to, const void *from, size_t size);
void shb_copy_out(void *to, const void *from, size_t size);
/* Orders the announcement before the copy in, and the copy out before the check. */
void shb_fence_full(void);
void shb_fence_release(void);
void shb_fence_acquire(void);

/* ---- Statistics and descriptions, the same for both sides ------------------------------------------------------------- */

/* `now` by the creator's clock; `creator_lives` decides for a track whose writer is the creator. */
void shb_track_stats(const shb_track_view_t *view, uint64_t now, bool creator_lives, uint64_t creator, shb_stats_t *out);
/* `data` is null, or has room for SHB_CODEC_DATA_MAX bytes. */
int shb_track_newest_description(const shb_track_view_t *view, shb_description_t *out, uint64_t *data);
/* The description with this serial of this epoch. SHB_OK, SHB_ERR_NOT_FOUND. */
int shb_track_description(const shb_track_view_t *view, uint64_t epoch, uint32_t serial, shb_description_t *out,
                          uint64_t *data);

#endif /* SHB_INTERNAL_H */
