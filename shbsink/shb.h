/*
 * shb.h - a shared buffer for live elementary streams: one writer per track, any number of readers, newest data wins.
 *
 * The host creates the buffer (POSIX shared memory), the `shbsink` element writes into it, and readers in any process copy the
 * frames out. A frame is one access unit of video or one audio frame. The writer never waits for readers: when a reader
 * is slower than the stream, the oldest frames are overwritten and the reader is told exactly how many it lost. A reader never gets
 * torn or mixed data.
 *
 * A track is named by channel x stream x kind. Times are nanoseconds, sizes bytes, rates per second.
 *
 * C99 and C++. All functions that return int answer SHB_OK (0) or a negative SHB_ERR_ value (shb_strerror tells what it means);
 * outputs are written only on success unless the function says otherwise.
 */
#ifndef SHB_H
#define SHB_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define SHB_API __attribute__((visibility("default")))
#else
#define SHB_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define SHB_TIME_NONE UINT64_MAX

enum {
    SHB_OK = 0,
    SHB_ERR_ARG = -1,       /* null pointer, bad name, index outside the geometry */
    SHB_ERR_EXISTS = -2,    /* a buffer of this name exists and its creator is alive */
    SHB_ERR_NOT_FOUND = -3, /* no buffer of this name */
    SHB_ERR_SYSTEM = -4,    /* a system call failed, errno holds the reason */
    SHB_ERR_NO_SPACE = -5,  /* not enough shared memory for this geometry */
    SHB_ERR_VERSION = -6,   /* the mapping has another layout version or is not a shared buffer */
    SHB_ERR_CORRUPT = -7,   /* the mapping contradicts itself */
    SHB_ERR_BUSY = -8,      /* the track has a live writer already */
    SHB_ERR_TOO_BIG = -9,   /* write: the frame is larger than the track; read: the caller's memory is too small */
    SHB_ERR_TIMEOUT = -10,  /* nothing arrived within the time given */
    SHB_ERR_CLOSED = -11,   /* the creator has destroyed the buffer or is gone */
    SHB_ERR_OVERRUN = -12   /* read in place: the frame was overwritten while it was in use */
};

typedef enum shb_kind { SHB_VIDEO = 0, SHB_AUDIO = 1 } shb_kind_t;

/* Flags of a frame. */
enum {
    SHB_FRAME_KEY = 1u << 0,     /* decoding can start here (every audio frame is a key frame) */
    SHB_FRAME_DISCONT = 1u << 1, /* the stream has a gap right before this frame */
    SHB_FRAME_HEADER = 1u << 2   /* the frame holds headers only */
};

/* Size of a buffer. Zero fields take the default in brackets. */
typedef struct shb_geometry {
    uint32_t channels;     /* [1] 1 to 1024 */
    uint32_t streams;      /* [1] streams per channel, 1 to 64 */
    uint64_t video_bytes;  /* [8 MiB] payload bytes of each video track; a power of two, 64 KiB to 1 GiB */
    uint64_t audio_bytes;  /* [512 KiB] the same for each audio track */
    uint32_t video_frames; /* [1024] frame descriptors of each video track; a power of two, 16 to 65536 */
    uint32_t audio_frames; /* [1024] the same for each audio track */
} shb_geometry_t;

/* What a track carries, as the writer read it from the stream. */
typedef struct shb_description {
    uint32_t serial;           /* 0 while unknown; rises by one at every change within one epoch */
    int32_t media;             /* media kind code of the sink's "media" property (48 H.264, 64 H.265, 21 AAC, ...) */
    char code[16];             /* encoding name, NUL-terminated */
    char profile[24];          /* profile name, NUL-terminated, may be empty */
    char level[16];            /* level, NUL-terminated, may be empty */
    int32_t width, height;     /* video: pixels */
    int32_t fps_n, fps_d;      /* video: announced frame rate, 0/1 when not announced */
    int32_t scan_type;         /* video: 0 progressive, 1 interlaced, 2 anything else */
    int32_t ref_frames;        /* video: reference frames */
    int32_t sample_rate;       /* audio: Hz */
    int32_t channels;          /* audio: channels */
    int32_t samples_per_frame; /* audio: samples per frame and channel */
    int32_t nominal_bitrate;   /* audio: bits per second as announced, 0 when not */
} shb_description_t;

/* One frame, as a reader gets it. */
typedef struct shb_frame {
    uint64_t sequence; /* number of the frame within the epoch, from 0, without holes on the writer's side */
    uint64_t epoch;    /* rises whenever a new writer opens the track; sequence starts again */
    uint64_t pts;      /* ns, SHB_TIME_NONE when not known */
    uint64_t dts;      /* ns, SHB_TIME_NONE when not known */
    uint64_t duration; /* ns, SHB_TIME_NONE when not known */
    uint64_t lost;  /* frames of this epoch that were overwritten unread between the previous read and this one, together with
                          those that the start rule then passed over: sequence = previous sequence + 1 + lost */
    uint32_t size;  /* bytes */
    uint32_t flags; /* SHB_FRAME_ */
    uint32_t description; /* serial of the description that the frame belongs to */
} shb_frame_t;

/* Counters of a track since its writer opened it, unless noted. */
typedef struct shb_stats {
    uint64_t epoch;     /* 0 when the track never had a writer */
    int32_t writer_pid; /* 0 when no writer has the track open now */
    uint64_t frames, bytes, key_frames;
    uint64_t left_out;                  /* frames larger than the track, which were not written */
    uint64_t held;                      /* frames that a reader can have now */
    uint64_t total_frames, total_bytes; /* over all epochs of this buffer */
    uint64_t age_ns;                    /* age of the last frame, SHB_TIME_NONE when there is none */
    uint32_t bitrate;   /* bits per second over the writer's last window of about one second, 0 before the first */
    uint32_t fps_milli; /* frames per 1000 seconds over the same window */
} shb_stats_t;

/* Counters of one reader since it was opened. */
typedef struct shb_reader_stats {
    uint64_t frames, bytes, key_frames; /* delivered */
    uint64_t lost;                      /* the sum of `lost` over all frames delivered */
    uint64_t losses;                    /* frames delivered with a `lost` above 0 */
    uint64_t epochs;                    /* epochs of which at least one frame was delivered */
    uint64_t waiting;                   /* frames written that this reader has not read yet, lost ones included */
} shb_reader_stats_t;

/* A buffer of this machine, as shb_list and shb_map_info find it. */
typedef struct shb_info {
    char name[204];            /* with its leading "/" */
    uint32_t version;          /* layout version; what follows `alive` is zero unless it is this library's and sound */
    int32_t creator_pid;       /* process that made it */
    int32_t alive;             /* 1 while the creator has it open, 0 after it destroyed it or died */
    uint64_t heartbeat_age_ns; /* since the creator's last heartbeat (every 250 ms; a stopped process has none) */
    uint64_t total_bytes;      /* shared memory that it takes */
    shb_geometry_t geometry;
} shb_info_t;

typedef struct shb_buffer shb_buffer_t; /* the creator's side: what goes into "share-buffer" */
typedef struct shb_writer shb_writer_t; /* one track, open for writing */
typedef struct shb_map shb_map_t;       /* a buffer seen from a reader, mapped read-only */
typedef struct shb_reader shb_reader_t; /* one reader of one track */

/* Text of an SHB_ value, static, never null. */
SHB_API const char *shb_strerror(int result);

/* ---- Creator ----------------------------------------------------------------------------------------------------- */

/*
 * Creates the buffer `name` ("/" is put in front if it is missing; 1 to 200 characters of [A-Za-z0-9._-]) with mode 0644.
 * A buffer of the same name whose creator has died is replaced. geometry may be null for the defaults.
 * The memory is reserved at once, so that a full /dev/shm shows here and not as a signal later.
 * Errors: ARG, EXISTS, NO_SPACE, SYSTEM.
 */
SHB_API int shb_create(const char *name, const shb_geometry_t *geometry, shb_buffer_t **out);
/*
 * Removes the name, tells attached readers, and unmaps. Every writer must have been closed; one that was not keeps the memory
 * until it is. Null and pointers that are no open buffer of this process are ignored.
 */
SHB_API void shb_destroy(shb_buffer_t *buffer);
/* Name with its leading "/"; valid as long as the buffer. Null for null. */
SHB_API const char *shb_name(const shb_buffer_t *buffer);
/*
 * Paths of the files behind the buffer, index 0 and 1, null for others; valid as long as the buffer. For a host that wants them
 * gone when it crashes: unlink() is allowed in a signal handler, shb_destroy is not.
 */
SHB_API const char *shb_file(const shb_buffer_t *buffer, unsigned index);
/* The geometry in force, defaults filled in. */
SHB_API int shb_get_geometry(const shb_buffer_t *buffer, shb_geometry_t *out);
/* Statistics and description of a track, read in the creator's process. Errors: ARG; NOT_FOUND: no description yet. */
SHB_API int shb_buffer_stats(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out);
SHB_API int shb_buffer_description(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind,
                                   shb_description_t *out);

/*
 * Stall watch, off (0) unless set: when an open track that has carried data gets none for `ms` milliseconds (at most 2^31), the handler
 * of its writer is called, once until data flows again. In `shbsink` the handler posts an element error on the bus, which makes a
 * source connect again whose protocol never notices a dead peer. Looked at four times a second. Takes effect at once, also for tracks
 * that are open. Errors: ARG.
 */
SHB_API int shb_set_stall_watch(shb_buffer_t *buffer, uint32_t ms);
/* The time in force, ms; 0: off, or no buffer. */
SHB_API uint32_t shb_get_stall_watch(const shb_buffer_t *buffer);

/* ---- Writer ------------------------------------------------------------------------------------------------------- */

/* Opens a track for writing and starts a new epoch. One writer a track. Errors: ARG, BUSY, SYSTEM. */
SHB_API int shb_writer_open(shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_writer_t **out);
/* Closes the track; what was written stays readable. Null is ignored. */
SHB_API void shb_writer_close(shb_writer_t *writer);
/* Sets the description that the frames written from now on belong to; its serial field is ignored and filled in. */
SHB_API int shb_writer_describe(shb_writer_t *writer, const shb_description_t *description);
/* Writes one frame. `flags` are SHB_FRAME_. Never waits. Errors: ARG, TOO_BIG (nothing is written or lost). */
SHB_API int shb_writer_write(shb_writer_t *writer, const void *data, size_t size, uint64_t pts, uint64_t dts, uint64_t duration,
                             uint32_t flags);
/* Publishes the measured rates for shb_stats. */
SHB_API void shb_writer_set_rates(shb_writer_t *writer, uint32_t bitrate, uint32_t fps_milli);
/*
 * What to call when the stall watch finds the track without data: `silent_ms` tells for how long. Comes on a thread of the library and
 * must return soon; it must not call shb_writer_close, shb_destroy or this function. After shb_writer_close has returned it is not
 * running and will not be called. Null: nothing. Errors: ARG.
 */
typedef void (*shb_stall_handler_t)(void *user, uint64_t silent_ms);
SHB_API int shb_writer_on_stall(shb_writer_t *writer, shb_stall_handler_t handler, void *user);

/* ---- Reader ------------------------------------------------------------------------------------------------------- */

/* Maps the buffer `name` read-only. Errors: ARG, NOT_FOUND, VERSION, CORRUPT, SYSTEM. */
SHB_API int shb_attach(const char *name, shb_map_t **out);
/* Unmaps; every reader of the map must have been closed. Null is ignored. */
SHB_API void shb_detach(shb_map_t *map);
SHB_API int shb_map_geometry(const shb_map_t *map, shb_geometry_t *out);
SHB_API int shb_map_info(const shb_map_t *map, shb_info_t *out);
/* 1 while the creator has the buffer open, 0 after it destroyed it or died. */
SHB_API int shb_map_alive(const shb_map_t *map);
SHB_API int shb_map_stats(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out);
SHB_API int shb_map_description(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind,
                                shb_description_t *out);

/* Where a new reader starts. */
typedef enum shb_start {
    SHB_START_OLDEST = 0, /* at the oldest frame still held; after a loss again at the oldest */
    SHB_START_NEWEST = 1, /* at the next frame to be written; after a loss at the newest frame held */
    SHB_START_KEY = 2     /* at the newest key frame held, or the next one to come; after a loss the same */
} shb_start_t;

/* Opens a reader on a track, which may not have a writer yet. Errors: ARG, CORRUPT. One thread at a time per reader. */
SHB_API int shb_reader_open(shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_start_t start,
                            shb_reader_t **out);
SHB_API void shb_reader_close(shb_reader_t *reader);
/*
 * Copies the next frame into `data` and tells about it in `frame`. Waits up to timeout_ms (0 not at all, -1 without end).
 * A reader follows the track into a new epoch by itself.
 * Errors: ARG; TIMEOUT; CLOSED once the creator is gone and everything held has been read; TOO_BIG: the frame stays
 * unread, frame->size tells what it needs; CORRUPT.
 */
SHB_API int shb_reader_read(shb_reader_t *reader, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame);
/*
 * Reads the next frame where it lies, without a copy: *data points into the read-only mapping. The writer does not wait, so the bytes may
 * change under the caller's eyes: whatever was made of them counts only if shb_reader_return says so afterwards.
 * Waits and fails as shb_reader_read does, without TOO_BIG. One frame at a time: ARG while another one is out.
 */
SHB_API int shb_reader_borrow(shb_reader_t *reader, int timeout_ms, const void **data, shb_frame_t *frame);
/*
 * Ends the use of a borrowed frame. SHB_OK: it was whole all the time, and the reader moves on. OVERRUN: it was not; the reader
 * goes on behind the loss, and the frame is counted in the `lost` of the next one. Errors: ARG when none is out.
 */
SHB_API int shb_reader_return(shb_reader_t *reader);
/* Waits until shb_reader_read has something to say, up to timeout_ms as there. Errors: ARG, TIMEOUT, CLOSED, CORRUPT. */
SHB_API int shb_reader_wait(shb_reader_t *reader, int timeout_ms);
/*
 * The description that the last frame read belongs to; it was taken together with the frame, so it can be had until the next
 * read. Errors: ARG; NOT_FOUND: no frame yet, or one that was written before its writer knew what it carries.
 */
SHB_API int shb_reader_description(shb_reader_t *reader, shb_description_t *out);
SHB_API int shb_reader_get_stats(const shb_reader_t *reader, shb_reader_stats_t *out);

/* ---- What there is -------------------------------------------------------------------------------------------------- */

/*
 * Lists the buffers of this machine, sorted by name, in /dev/shm, those of other layout versions and of dead creators included. Up to
 * `capacity` entries are filled in; *count tells how many there are. out may be null with capacity 0. Errors: ARG, SYSTEM.
 */
SHB_API int shb_list(shb_info_t *out, size_t capacity, size_t *count);
/*
 * Removes the buffer that a creator has left behind. Errors: ARG; NOT_FOUND; EXISTS: its creator is alive (with force != 0 its name
 * is removed all the same: readers that are attached go on, others no longer find it); VERSION: the name leads to something
 * else, which is left alone; SYSTEM: not permitted, for one.
 */
SHB_API int shb_remove(const char *name, int force);

#ifdef __cplusplus
}
#endif

#endif /* SHB_H */
