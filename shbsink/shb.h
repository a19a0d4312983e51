/*
 * shb.h - a shared buffer for live elementary streams: one writer per track, any number of readers, newest data
 * wins.
 *
 * The host creates the buffer (POSIX shared memory), the `shbsink` element writes into it, and readers in any
 * process copy the frames out. A frame is one access unit of video or one audio frame. The writer never waits
 * for readers: when a reader is slower than the stream, the oldest frames are overwritten and the reader learns
 * exactly how many it lost. A reader never gets torn or mixed data.
 *
 * A track is named by channel x stream x kind. Times are nanoseconds, sizes bytes, rates per second.
 *
 * C99 and C++11. All functions that return int answer SHB_OK (0) or a negative SHB_ERR_ value (shb_strerror has
 * its text); with SHB_ERR_SYSTEM and SHB_ERR_NO_SPACE, errno holds the reason. Outputs are written only on
 * success unless the function says otherwise.
 *
 * Every struct begins with its size, so that later versions can add fields behind the last one. Begin with
 * SHB_INIT, which sets the size and clears the rest:
 *
 *     shb_frame_t frame = SHB_INIT(shb_frame_t);
 *
 * The library fills in no more than `struct_size` bytes, and takes fields beyond it as 0. A size that is
 * smaller than that of the first version of the struct, 0 for one, is SHB_ERR_ARG. In C++ a declared struct has
 * its size already.
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
#define SHB_SIZED(type) uint32_t struct_size = sizeof(type)
#define SHB_INIT(type) \
    type {}
extern "C" {
#else
#define SHB_SIZED(type) uint32_t struct_size
#define SHB_INIT(type)              \
    (type) {                        \
        .struct_size = sizeof(type) \
    }
#endif

/* Version of this header; shb_version() has that of the library in use. */
#define SHB_VERSION_MAJOR 2
#define SHB_VERSION_MINOR 1
#define SHB_VERSION_PATCH 0
#define SHB_VERSION_NUMBER (SHB_VERSION_MAJOR << 16 | SHB_VERSION_MINOR << 8 | SHB_VERSION_PATCH)

#define SHB_TIME_NONE UINT64_MAX
#define SHB_OFFSET_NONE INT64_MIN

/* Largest codec data of a description, bytes. */
#define SHB_CODEC_DATA_MAX 8192u

enum {
    SHB_OK = 0,
    SHB_ERR_ARG = -1,       /* null pointer, bad name, index outside the geometry, struct without its size */
    SHB_ERR_EXISTS = -2,    /* a buffer of this name exists and its creator is alive */
    SHB_ERR_NOT_FOUND = -3, /* no buffer of this name */
    SHB_ERR_SYSTEM = -4,    /* a system call failed, errno holds the reason */
    SHB_ERR_NO_SPACE = -5,  /* not enough shared memory for this geometry; shb_room tells how much there is */
    SHB_ERR_VERSION = -6,   /* the mapping has another layout version or is not a shared buffer */
    SHB_ERR_CORRUPT = -7,   /* the mapping contradicts itself */
    SHB_ERR_BUSY = -8,      /* the track has a live writer already */
    SHB_ERR_TOO_BIG = -9,   /* write: the frame is larger than the track; read: the caller's memory is too small */
    SHB_ERR_TIMEOUT = -10,  /* nothing arrived within the time given */
    SHB_ERR_CLOSED = -11,   /* the creator has destroyed the buffer or is gone */
    SHB_ERR_OVERRUN = -12,  /* read in place: the frame was overwritten while it was in use */
    SHB_ERR_OWNER = -13     /* the buffer belongs to another user than the one demanded */
};

typedef enum shb_kind { SHB_VIDEO = 0, SHB_AUDIO = 1 } shb_kind_t;

/* Flags of a frame. */
enum {
    SHB_FRAME_KEY = 1u << 0,     /* decoding can start here (every audio frame is a key frame) */
    SHB_FRAME_DISCONT = 1u << 1, /* the stream has a gap right before this frame */
    SHB_FRAME_HEADER = 1u << 2   /* the frame holds headers only */
};

/* Whether a track has a stream. */
typedef enum shb_presence {
    SHB_PRESENCE_UNKNOWN = 0,  /* the source does not know its streams yet */
    SHB_PRESENCE_EXPECTED = 1, /* there is such a stream, or there was one when the source last knew */
    SHB_PRESENCE_ABSENT = 2    /* the source has no such stream: nothing will come unless it changes */
} shb_presence_t;

/* Size of a buffer. Zero fields take the default in brackets. */
typedef struct shb_geometry {
    SHB_SIZED(struct shb_geometry);
    uint32_t channels;     /* [1] 1 to 1024 */
    uint32_t streams;      /* [1] streams per channel, 1 to 64 */
    uint32_t video_frames; /* [1024] frame descriptors of each video track; a power of two, 16 to 65536 */
    uint32_t audio_frames; /* [1024] the same for each audio track */
    uint32_t reserved;
    uint64_t video_bytes; /* [8 MiB] payload bytes of each video track; a power of two, 64 KiB to 1 GiB */
    uint64_t audio_bytes; /* [512 KiB] the same for each audio track */
} shb_geometry_t;

/* Who may read a buffer. */
typedef struct shb_create_options {
    SHB_SIZED(struct shb_create_options);
    /*
     * [0600] Permissions of the files: 0600, and 0040 and 0004 for readers of the group and of all others. The
     * umask is taken off.
     */
    uint32_t mode;
    uint32_t group_given; /* 1: `group` is to be the group of the files, of which the creator must be a member */
    uint32_t group;
} shb_create_options_t;

typedef struct shb_attach_options {
    SHB_SIZED(struct shb_attach_options);
    uint32_t owner_given; /* 1: attach only when the buffer belongs to the user `owner` */
    uint32_t owner;
    uint32_t reserved;
} shb_attach_options_t;

/* What a track carries, as the writer read it from the stream. Texts end with a NUL. */
typedef struct shb_description {
    SHB_SIZED(struct shb_description);
    uint32_t serial;           /* 0 while unknown; rises by one at every change within one epoch */
    int32_t media;             /* kind of media as in the sink's property "media": 48 H.264, 21 AAC, ... */
    uint32_t codec_data_bytes; /* size of the codec data, 0: none */
    char code[16];             /* encoding name */
    char profile[24];          /* may be empty */
    char level[16];            /* may be empty */
    char format[16];           /* "byte-stream", "adts", "raw", "loas"; empty where a codec has one form only */
    int32_t width, height;     /* video: pixels */
    int32_t fps_n, fps_d;      /* video: announced frame rate, 0/1 when not announced */
    int32_t scan_type;         /* video: 0 progressive, 1 interlaced, 2 anything else */
    int32_t ref_frames;        /* video: reference frames */
    int32_t reorder_frames;    /* video: frames that can come before one that is shown earlier; -1: not known */
    int32_t sample_rate;       /* audio: Hz */
    int32_t channels;          /* audio: channels */
    int32_t samples_per_frame; /* audio: samples per frame and channel */
    int32_t nominal_bitrate;   /* audio: bits per second as announced, 0 when not */
    int32_t reserved;
} shb_description_t;

/* One frame, as a reader gets it. */
typedef struct shb_frame {
    SHB_SIZED(struct shb_frame);
    uint32_t size;        /* bytes */
    uint32_t flags;       /* SHB_FRAME_ */
    uint32_t description; /* serial of the description that the frame belongs to */
    uint64_t sequence;    /* number of the frame within the epoch, from 0, without holes on the writer's side */
    uint64_t epoch;       /* rises whenever a new writer opens the track; sequence starts again */
    uint64_t pts;         /* ns of the writer's pipeline, anew in each epoch; SHB_TIME_NONE when not known */
    uint64_t dts;         /* the same */
    uint64_t duration;    /* ns, SHB_TIME_NONE when not known */
    /*
     * Frames that this reader did not get between the previous one and this one: overwritten unread, or passed
     * over by the start rule after a loss or at a new epoch. `lost_before` of them belong to earlier epochs
     * than this frame's. Within one epoch, sequence = previous sequence + 1 + lost; at the first frame of a
     * later one, sequence = lost - lost_before.
     */
    uint64_t lost;
    uint64_t lost_before;
    uint64_t left_out;    /* frames since the previous one that were larger than the track and not written */
    uint64_t arrival_ns;  /* when it was written, CLOCK_MONOTONIC of the creator */
    uint64_t wall_ns;     /* the same moment as CLOCK_REALTIME, ns since 1970-01-01 UTC */
    int64_t clock_offset; /* pts and dts plus this are times of CLOCK_MONOTONIC; SHB_OFFSET_NONE: not known */
} shb_frame_t;

/* Counters of a track since its writer opened it, unless noted. */
typedef struct shb_stats {
    SHB_SIZED(struct shb_stats);
    int32_t writer_pid; /* in the creator's PID namespace; 0 when no writer has the track open now */
    uint64_t epoch;     /* 0 when the track never had a writer */
    uint64_t frames, bytes, key_frames;
    uint64_t left_out; /* frames larger than the track, which were not written */
    uint64_t held;     /* frames that a reader can have now */
    /* Over all epochs of this buffer. */
    uint64_t total_frames, total_bytes, total_left_out;
    uint64_t age_ns;      /* age of the last frame, SHB_TIME_NONE when there is none */
    uint32_t bitrate;     /* bits per second over the writer's last window of about one second, 0 before the first */
    uint32_t fps_milli;   /* frames per 1000 seconds over the same window */
    int64_t clock_offset; /* as in shb_frame_t, for the next frame */
    uint32_t presence;    /* shb_presence_t */
    uint32_t reserved;
} shb_stats_t;

/* Counters of one reader since it was opened. frames + lost + waiting = offered, at any time. */
typedef struct shb_reader_stats {
    SHB_SIZED(struct shb_reader_stats);
    uint32_t reserved;
    uint64_t frames, bytes, key_frames; /* delivered */
    uint64_t lost;                      /* the sum of `lost` over all frames delivered */
    uint64_t losses;                    /* frames delivered with a `lost` above 0 */
    uint64_t left_out;                  /* the sum of `left_out` over all frames delivered */
    uint64_t epochs;                    /* changes of `epoch` from frame to frame, the first frame included */
    uint64_t waiting;                   /* frames written that this reader has not read yet, lost ones included */
    /* Frames written since the reader began; not those that a seek or the wait for a key frame skips. */
    uint64_t offered;
} shb_reader_stats_t;

/*
 * A reader, as shb_buffer_readers and shb_map_readers find it. Readers write this themselves, where any process of
 * the creator's user may write: figures for people and for monitoring, and nothing to rely on. Since 2.1.
 */
typedef struct shb_reader_info {
    SHB_SIZED(struct shb_reader_info);
    int32_t pid;         /* process that reads, in its own PID namespace */
    int32_t pid_is_ours; /* 1: pid means the same to the caller; 0: another PID namespace */
    shb_kind_t kind;
    uint32_t channel, stream;
    uint64_t frames, bytes;  /* as in shb_reader_stats_t, as of its last frame */
    uint64_t lost, left_out; /* the same */
    uint64_t waiting;        /* frames written that it has not read yet */
    /* Times go by the creator's heartbeat, four times a second. */
    uint64_t open_ns;          /* since it was opened */
    uint64_t last_read_age_ns; /* since its last frame, SHB_TIME_NONE: it has had none */
    char program[16];          /* name of the program, NUL-terminated printable ASCII */
} shb_reader_info_t;

/* A buffer of this machine, as shb_list and shb_map_info find it. */
typedef struct shb_info {
    SHB_SIZED(struct shb_info);
    /* Of the layout. With another one than this library's, or damage, heartbeat_age_ns and later are 0. */
    uint32_t version;
    int32_t creator_pid;       /* process that made it, in its own PID namespace */
    int32_t pid_is_ours;       /* 1: creator_pid means the same to the caller; 0: another PID namespace */
    int32_t alive;             /* 1 while the creator has it open, 0 after it destroyed it or died */
    uint32_t owner;            /* user that it belongs to */
    uint32_t group;            /* group of the file */
    uint32_t mode;             /* permissions of the file */
    char name[208];            /* with its leading "/" */
    uint64_t heartbeat_age_ns; /* since the creator's last heartbeat (every 250 ms; a stopped process has none) */
    uint64_t total_bytes;      /* shared memory that it takes */
    shb_geometry_t geometry;
} shb_info_t;

typedef struct shb_buffer shb_buffer_t; /* the creator's side: what goes into "share-buffer" */
typedef struct shb_writer shb_writer_t; /* one track, open for writing */
typedef struct shb_map shb_map_t;       /* a buffer seen from a reader, mapped read-only */
typedef struct shb_reader shb_reader_t; /* one reader of one track */
typedef struct shb_set shb_set_t;       /* readers that are waited for together */
typedef struct shb_follow shb_follow_t; /* one track of whatever buffer has a name */

/* Text of an SHB_ value, static, never null. */
SHB_API const char *shb_strerror(int result);
/* SHB_VERSION_NUMBER of the library in use. Any thread. */
SHB_API uint32_t shb_version(void);

/* ---- Creator ----------------------------------------------------------------------------------------------------- */

/*
 * Creates the buffer `name` ("/" is put in front if it is missing; 1 to 200 characters of [A-Za-z0-9._-]), for
 * readers of the creator's user. A buffer of the same name whose creator has died is replaced. geometry may be
 * null for the defaults. The memory is reserved at once, so that a full /dev/shm shows here and not as a signal
 * later. Errors: ARG, EXISTS, NO_SPACE, SYSTEM.
 */
SHB_API int shb_create(const char *name, const shb_geometry_t *geometry, shb_buffer_t **out);
/*
 * The same for other readers as well. options may be null. Errors: also ARG for a mode outside of its range,
 * SYSTEM (EPERM): `group`.
 */
SHB_API int shb_create_with(const char *name, const shb_geometry_t *geometry, const shb_create_options_t *options,
                            shb_buffer_t **out);
/*
 * Removes the name, tells attached readers, and unmaps. Every writer must have been closed; one that was not
 * keeps the memory until it is. Null and pointers that are no open buffer of this process are ignored.
 */
SHB_API void shb_destroy(shb_buffer_t *buffer);
/*
 * How many bytes a buffer of this geometry (null: the defaults) takes, and how many are free. Errors: ARG,
 * SYSTEM.
 */
SHB_API int shb_room(const shb_geometry_t *geometry, uint64_t *needed, uint64_t *available);
/* Name with its leading "/"; valid as long as the buffer. Null for null. */
SHB_API const char *shb_name(const shb_buffer_t *buffer);
/*
 * Paths of the files behind the buffer, index 0, 1 and 2, null for others; valid as long as the buffer. For a
 * host that wants them gone when it crashes: unlink() is allowed in a signal handler, shb_destroy is not.
 */
SHB_API const char *shb_file(const shb_buffer_t *buffer, unsigned index);
/* The geometry in force, defaults filled in. Errors: ARG. */
SHB_API int shb_get_geometry(const shb_buffer_t *buffer, shb_geometry_t *out);
/*
 * Statistics and description of a track, read in the creator's process. Errors: ARG; NOT_FOUND: no description
 * yet.
 */
SHB_API int shb_buffer_stats(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out);
SHB_API int shb_buffer_description(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind,
                                   shb_description_t *out);
/*
 * Says whether the source has a stream for this track, as far as it knows. A writer that opens the track makes
 * it EXPECTED by itself. Readers find it in shb_stats_t. Any thread. Errors: ARG.
 */
SHB_API int shb_set_presence(shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_presence_t presence);

/*
 * Lists who reads the buffer now, in the creator's process. Up to `capacity` entries are filled in; *count: how
 * many there are. out[0].struct_size is the size of each entry. out may be null with capacity 0. Not listed are
 * readers of other users than the creator's (those of root are), those of libraries before 2.1, and of more than
 * 64 readers those that came last. A reader that was killed is not listed any more. A reader in another PID
 * namespace leaves the list for good when it has not read or waited for a minute; it can read on all the same.
 * Asks the system about each process. Any thread. Errors: ARG. Since 2.1.
 */
SHB_API int shb_buffer_readers(const shb_buffer_t *buffer, shb_reader_info_t *out, size_t capacity, size_t *count);

/*
 * Stall watch, off (0) unless set: when an open track that has carried data gets none for `ms` milliseconds (at
 * most 2^31), the handler of its writer is called, once until data flows again. In `shbsink` the handler posts
 * an element error on the bus, which makes a source connect again whose protocol never notices a dead peer.
 * Looked at four times a second. Takes effect at once, also for tracks that are open. Errors: ARG.
 */
SHB_API int shb_set_stall_watch(shb_buffer_t *buffer, uint32_t ms);
/* The time in force, ms; 0: off, or no buffer. */
SHB_API uint32_t shb_get_stall_watch(const shb_buffer_t *buffer);

/* ---- Writer ------------------------------------------------------------------------------------------------------- */

/* Opens a track for writing and starts a new epoch. One writer a track. Errors: ARG, BUSY, SYSTEM. */
SHB_API int shb_writer_open(shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_writer_t **out);
/*
 * Closes the track; what was written stays readable. Waits for a stall handler that is running. Null is
 * ignored.
 */
SHB_API void shb_writer_close(shb_writer_t *writer);
/*
 * Sets the description that the frames written from now on belong to, with what a decoder needs before the
 * first frame (codec_data may be null); its fields `serial` and `codec_data_bytes` are ignored and filled in.
 * What is the same as before is no change. Errors: ARG; TOO_BIG: more than SHB_CODEC_DATA_MAX bytes.
 */
SHB_API int shb_writer_describe(shb_writer_t *writer, const shb_description_t *description, const void *codec_data,
                                size_t codec_data_bytes);
/*
 * Says how the time stamps of the frames from now on relate to the clock: pts + offset is a time of
 * CLOCK_MONOTONIC, ns; SHB_OFFSET_NONE (at first): not known. Errors: ARG.
 */
SHB_API int shb_writer_set_clock(shb_writer_t *writer, int64_t offset);
/*
 * Writes one frame. `flags` are SHB_FRAME_. Never waits. Errors: ARG; TOO_BIG: the frame is left out, which
 * readers find in `left_out` of the next one, together with SHB_FRAME_DISCONT.
 */
SHB_API int shb_writer_write(shb_writer_t *writer, const void *data, size_t size, uint64_t pts, uint64_t dts, uint64_t duration,
                             uint32_t flags);
/* Publishes the measured rates for shb_stats. */
SHB_API void shb_writer_set_rates(shb_writer_t *writer, uint32_t bitrate, uint32_t fps_milli);
/*
 * What to call when the stall watch finds the track without data; `silent_ms`: for how long. Comes on a thread
 * of its own with no lock of the library held; it must not call shb_writer_close, shb_destroy or this function.
 * After shb_writer_close or this function has returned, the handler before is not running and will not be
 * called. Null: nothing. Errors: ARG.
 */
typedef void (*shb_stall_handler_t)(void *user, uint64_t silent_ms);
SHB_API int shb_writer_on_stall(shb_writer_t *writer, shb_stall_handler_t handler, void *user);

/* ---- Reader ------------------------------------------------------------------------------------------------------- */

/*
 * Maps the buffer `name` read-only. Errors: ARG; NOT_FOUND; VERSION: another layout, or no shared buffer;
 * CORRUPT; SYSTEM (EACCES: it is not for this user).
 */
SHB_API int shb_attach(const char *name, shb_map_t **out);
/* The same with conditions. options may be null. Errors: also OWNER. */
SHB_API int shb_attach_with(const char *name, const shb_attach_options_t *options, shb_map_t **out);
/* Gives the map back; readers that are still open keep it until they are closed. Null is ignored. */
SHB_API void shb_detach(shb_map_t *map);
/*
 * These look at the mapping alone, without a system call while the creator's heartbeat is young. Errors: ARG;
 * CORRUPT (shb_guard).
 */
SHB_API int shb_map_geometry(const shb_map_t *map, shb_geometry_t *out);
SHB_API int shb_map_info(const shb_map_t *map, shb_info_t *out);
/*
 * 1 while the creator has the buffer open, 0 after it destroyed it or died. Without a system call while its
 * heartbeat is young: a creator that was killed counts as alive for up to half a second; from another PID
 * namespace for up to five.
 */
SHB_API int shb_map_alive(const shb_map_t *map);
SHB_API int shb_map_stats(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out);
/* The newest description of a track. Errors: ARG; NOT_FOUND: none yet. */
SHB_API int shb_map_description(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind,
                                shb_description_t *out);
/*
 * The newest description together with its codec data. *size: its bytes, also with TOO_BIG, when `capacity` is
 * less. Errors: ARG; NOT_FOUND: no description yet; TOO_BIG.
 */
SHB_API int shb_map_codec_data(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_description_t *out,
                               void *data, size_t capacity, size_t *size);

/*
 * The same as shb_buffer_readers for a buffer of the caller's own user. Errors: ARG; CORRUPT; NOT_FOUND: this user
 * may not know who reads, or the creator's library is older than 2.1. Since 2.1.
 */
SHB_API int shb_map_readers(const shb_map_t *map, shb_reader_info_t *out, size_t capacity, size_t *count);

/* Where a new reader starts. */
typedef enum shb_start {
    SHB_START_OLDEST = 0, /* at the oldest frame still held; after a loss again at the oldest */
    SHB_START_NEWEST = 1, /* at the next frame to be written; after a loss at the newest frame held */
    SHB_START_KEY = 2     /* at the newest key frame held, or the next one to come; after a loss the same */
} shb_start_t;

/*
 * Opens a reader on a track, which may not have a writer yet. One thread at a time per reader.
 * Errors: ARG; CORRUPT; SYSTEM (ENOMEM).
 */
SHB_API int shb_reader_open(shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_start_t start,
                            shb_reader_t **out);
/* Also takes it out of its set. Null is ignored. */
SHB_API void shb_reader_close(shb_reader_t *reader);
/*
 * Copies the next frame into `data` and its particulars into `frame`. Waits up to timeout_ms (0 not at all, -1
 * without end); a frame that the writer overwrites while it is being copied is tried again only as long as
 * there is time. A reader follows the track into a new epoch by itself. Errors: ARG; TIMEOUT; CLOSED once the
 * creator is gone and everything held has been read; TOO_BIG: the frame stays unread, frame->size is what it
 * needs; CORRUPT.
 */
SHB_API int shb_reader_read(shb_reader_t *reader, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame);
/*
 * Reads the next frame where it lies, without a copy: *data points into the read-only mapping. The writer does
 * not wait, so the bytes may change under the caller's eyes: whatever was made of them counts only if
 * shb_reader_return says so afterwards. Waits and fails as shb_reader_read does, without TOO_BIG. One frame at
 * a time: ARG while another one is out.
 */
SHB_API int shb_reader_borrow(shb_reader_t *reader, int timeout_ms, const void **data, shb_frame_t *frame);
/*
 * Ends the use of a borrowed frame. SHB_OK: it was whole all the time, and the reader moves on. OVERRUN: it was
 * not; the reader goes on behind the loss, and the frame is counted in the `lost` of the next one. Errors: ARG
 * when none is out; CORRUPT.
 */
SHB_API int shb_reader_return(shb_reader_t *reader);
/*
 * Waits until shb_reader_read has a frame or its end, up to timeout_ms as there. Errors: ARG, TIMEOUT,
 * CLOSED, CORRUPT.
 */
SHB_API int shb_reader_wait(shb_reader_t *reader, int timeout_ms);
/*
 * The description that the last frame read belongs to; it was taken together with the frame, so it can be had
 * until the next read. Errors: ARG; NOT_FOUND: no frame yet, or one that was written before its writer knew
 * what it carries.
 */
SHB_API int shb_reader_description(shb_reader_t *reader, shb_description_t *out);
/*
 * The codec data of that description. *size: its bytes (0: the codec needs none, or it came with the frames),
 * also with TOO_BIG. Errors: ARG; NOT_FOUND as above, or it has been overwritten since; TOO_BIG: `capacity` is
 * less than *size.
 */
SHB_API int shb_reader_codec_data(shb_reader_t *reader, void *data, size_t capacity, size_t *size);
SHB_API int shb_reader_get_stats(const shb_reader_t *reader, shb_reader_stats_t *out);

/* Where shb_reader_seek goes. Times are those of arrival. */
typedef enum shb_seek {
    SHB_SEEK_OLDEST = 0,    /* the oldest frame held; `ns` is ignored */
    SHB_SEEK_NEWEST = 1,    /* the next frame to be written; `ns` is ignored */
    SHB_SEEK_KEY = 2,       /* the newest key frame held, or the next one to come; `ns` is ignored */
    SHB_SEEK_BACK = 3,      /* the newest key frame that arrived at least `ns` ago */
    SHB_SEEK_MONOTONIC = 4, /* the newest key frame that arrived at or before `ns` of CLOCK_MONOTONIC */
    SHB_SEEK_WALL = 5       /* the same with CLOCK_REALTIME, ns since 1970-01-01 UTC */
} shb_seek_t;

/*
 * Moves a reader, forward or back, as often as wanted. When no key frame is held from so long ago, it goes to
 * the oldest one held; when there is none at all, to the next one to come. What is jumped over is not lost, and
 * what comes again counts again. The start rule for losses stays. Errors: ARG, also while a frame is borrowed;
 * CORRUPT.
 */
SHB_API int shb_reader_seek(shb_reader_t *reader, shb_seek_t where, uint64_t ns);
/*
 * Opens both tracks of a source at one moment: the video where shb_reader_seek goes, the audio at its first
 * frame that is not before that picture, by the clock that both time stamps relate to, or by arrival where one
 * is unknown. Without a picture to begin with, each goes where `where` says. After a loss video goes on at a
 * key frame, audio at the oldest frame held. This is what a recording with seconds from before an event begins
 * with: SHB_SEEK_BACK. Errors: ARG, CORRUPT, SYSTEM; both or none are opened.
 */
SHB_API int shb_open_av(shb_map_t *map, uint32_t channel, uint32_t stream, shb_seek_t where, uint64_t ns, shb_reader_t **video,
                        shb_reader_t **audio);

/* ---- Waiting for several ------------------------------------------------------------------------------------------------ */

/*
 * Waits until one of `count` readers (1 to 1024), of any tracks and buffers, has a frame or its end, up to
 * timeout_ms as shb_reader_read does; *index: which one. A buffer that is closed or damaged is such an end.
 * Begins to look behind the one that was found last when *index holds that (any other value: at the first).
 * Errors: ARG; TIMEOUT; SYSTEM.
 */
SHB_API int shb_wait_any(shb_reader_t *const *readers, size_t count, int timeout_ms, size_t *index);

/*
 * A set of readers with one file descriptor, for the event loop of a host (poll, epoll, GLib, asyncio, ...).
 * When the descriptor is readable, call shb_set_next with timeout 0 and read from the reader that it finds,
 * again and again until it says TIMEOUT: only then the descriptor waits for what comes next. One thread at a
 * time per set, which is also that of its readers. Errors of shb_set_open: ARG, SYSTEM.
 */
SHB_API int shb_set_open(shb_set_t **out);
/* Its readers stay open. Null is ignored. */
SHB_API void shb_set_close(shb_set_t *set);
/* Errors: ARG, also for a reader that is in a set; SYSTEM. */
SHB_API int shb_set_add(shb_set_t *set, shb_reader_t *reader);
/* Errors: ARG, also for a reader that is not in this set. */
SHB_API int shb_set_remove(shb_set_t *set, shb_reader_t *reader);
/* The descriptor, which stays the set's; -1 for null. */
SHB_API int shb_set_fd(const shb_set_t *set);
/*
 * A reader that has a frame or its end, in turns; waits up to timeout_ms as shb_reader_read does. Errors:
 * ARG, TIMEOUT, SYSTEM.
 */
SHB_API int shb_set_next(shb_set_t *set, int timeout_ms, shb_reader_t **out);

/* ---- Following a name --------------------------------------------------------------------------------------------------- */

typedef struct shb_follow_options {
    SHB_SIZED(struct shb_follow_options);
    uint32_t channel, stream;
    shb_kind_t kind;
    shb_start_t start;    /* in the first buffer and in each later one */
    uint32_t owner_given; /* 1: only buffers of the user `owner` */
    uint32_t owner;
} shb_follow_options_t;

/* What has happened, any number of them at once. */
enum {
    SHB_FOLLOW_ATTACHED = 1u << 0,  /* a buffer of the name is there, the first or one more */
    SHB_FOLLOW_RESTARTED = 1u << 1, /* with ATTACHED: it is not the first one: its host was started anew */
    SHB_FOLLOW_GONE = 1u << 2,      /* the host has gone, and everything that it wrote has been read */
    SHB_FOLLOW_EPOCH = 1u << 3,     /* with a frame: the first of another writer; the source has connected again */
    SHB_FOLLOW_MEDIA = 1u << 4      /* with a frame: another description than before, or the first one */
};

/*
 * Follows one track of the buffer `name`, which need not exist yet, through every restart of its host. options
 * may be null: video of channel 0, stream 0, from the oldest frame on. Errors: ARG, SYSTEM. One thread at a
 * time.
 */
SHB_API int shb_follow_open(const char *name, const shb_follow_options_t *options, shb_follow_t **out);
SHB_API void shb_follow_close(shb_follow_t *follow);
/*
 * Reads the next frame as shb_reader_read does. *events (may be null): what has happened since the last call,
 * SHB_FOLLOW_. With events but no frame it answers TIMEOUT before the time is over. While there is no buffer it
 * waits for one (also while what has the name is something else, or belongs to another user than the one
 * demanded). Errors: ARG, also when the buffer has no such track; TIMEOUT; TOO_BIG: as shb_reader_read;
 * CORRUPT: the buffer is damaged, and the next call looks for another one; SYSTEM.
 */
SHB_API int shb_follow_read(shb_follow_t *follow, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame,
                            uint32_t *events);
/*
 * The map and the reader in use, null while there is none; valid until the next shb_follow_read or
 * shb_follow_close.
 */
SHB_API shb_map_t *shb_follow_map(shb_follow_t *follow);
SHB_API shb_reader_t *shb_follow_reader(shb_follow_t *follow);

/* ---- What there is -------------------------------------------------------------------------------------------------- */

/*
 * Lists the buffers of this machine that this user may read, sorted by name, in /dev/shm, those of other layout
 * versions and of dead creators included. Up to `capacity` entries are filled in; *count: how many there are.
 * out[0].struct_size is the size of each entry. out may be null with capacity 0. Errors: ARG, SYSTEM.
 */
SHB_API int shb_list(shb_info_t *out, size_t capacity, size_t *count);
/*
 * Removes the buffer that a creator has left behind. Errors: ARG; NOT_FOUND; EXISTS: its creator is alive (with
 * force != 0 its name is removed all the same: readers that are attached go on, others no longer find it);
 * VERSION: the name leads to something else, which is left alone; SYSTEM: not permitted, for one.
 */
SHB_API int shb_remove(const char *name, int force);

/* ---- Buffers of others ------------------------------------------------------------------------------------------------- */

/*
 * The owner of a buffer can cut its file short, and whoever has it attached then dies of SIGBUS at the next
 * look. After shb_guard(1) such a reader goes on with zeros in the place of what is gone, and gets CORRUPT.
 * That takes a handler of SIGBUS for the process, which is why it is asked for; faults that are not in an
 * attached buffer go to the handler that was there before. shb_guard(0) puts that back. Call it before other
 * threads begin to attach. Errors: SYSTEM.
 */
SHB_API int shb_guard(int on);

#ifdef __cplusplus
}
#endif

#endif /* SHB_H */
