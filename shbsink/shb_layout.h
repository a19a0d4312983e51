/*
 * Layout of the mapping, version 3. Everything stands at an offset that both sides compute from the geometry;
 * nothing in the mapping is a pointer or an offset into it, so a reader that has checked the geometry once
 * cannot be led astray.
 *
 * Private to the library and to its tests.
 */
#ifndef SHB_LAYOUT_H
#define SHB_LAYOUT_H

#include <stddef.h>
#include <stdint.h>

#include "shb.h"

#ifdef __cplusplus
#include <atomic>
#define SHB_ATOMIC(type) std::atomic<type>
#define SHB_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#include <stdatomic.h>
#define SHB_ATOMIC(type) _Atomic(type)
#define SHB_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#define SHB_LAYOUT_MAGIC UINT64_C(0x3155425242485321) /* "!SHBRBU1" */
#define SHB_LAYOUT_VERSION 3u
#define SHB_WAITERS_MAGIC UINT64_C(0x3152455449415721)      /* "!WAITER1" */
#define SHB_READER_TABLE_MAGIC UINT64_C(0x3152454441455221) /* "!READER1" */

#define SHB_PAGE_BYTES 4096u
#define SHB_LINE_BYTES UINT64_C(64)
/* Frames start on this boundary, so that payload can be copied by whole words and later be read in place. */
#define SHB_FRAME_ALIGN 64u

enum { SHB_STATE_OPEN = 1, SHB_STATE_DESTROYED = 2 };

/*
 * Who made a file. A process id and a start time mean something only in their own namespaces; `pid_ns` and
 * `time_ns` (inodes of /proc/self/ns/, 0: not known) say whether a process that looks is in the same ones.
 */
typedef struct shb_origin {
    uint64_t creator; /* identity of the creating process, see shb_identity_self */
    uint64_t pid_ns;
    uint64_t time_ns;
} shb_origin_t;

/*
 * The first page. All but `state` and the heartbeat is written before the name appears and never again. The
 * first four fields, and heartbeat_ns since version 2, keep their places in all versions, so that any version
 * can tell whose a buffer is and whether that process lives.
 */
typedef struct shb_header {
    uint64_t magic;
    uint32_t version;
    uint32_t header_bytes;
    uint64_t total_bytes;
    uint64_t creator; /* as in shb_origin_t */
    uint32_t channels;
    uint32_t streams;
    uint64_t video_bytes;
    uint64_t audio_bytes;
    uint32_t video_frames;
    uint32_t audio_frames;
    uint64_t token; /* random; part of the names of the file of waiters and of the socket */
    uint64_t pid_ns;
    uint64_t time_ns;
    uint64_t reserved0[5];
    /* line 2 */
    SHB_ATOMIC(uint32_t) state;
    uint32_t reserved1[15];
    /* line 3: renewed four times a second while the creator runs */
    SHB_ATOMIC(uint64_t) heartbeat_ns;      /* CLOCK_MONOTONIC, which differs between time namespaces */
    SHB_ATOMIC(uint64_t) heartbeat_wall_ns; /* CLOCK_REALTIME, which may jump */
    uint64_t reserved2[6];
} shb_header_t;

/*
 * The file of waiters, "NAME+TOKEN" beside the buffer, is open to the creator's user alone. Its readers sleep
 * there: whoever may map the word that somebody sleeps on may also take that sleeper away. It is the one thing
 * that readers write, holds nothing but hints, and never holds up a writer: `waiting` costs it one system call,
 * after which it is 0 again. It is also what is locked while a buffer is removed.
 *
 * The words of the tracks follow, and behind them the table of readers, which creators before 2.1 do not have.
 */
typedef struct shb_waiters_header {
    uint64_t magic;
    uint32_t version;
    uint32_t header_bytes;
    uint64_t total_bytes;
    uint64_t creator;
    uint64_t token; /* of the buffer */
    uint64_t pid_ns;
    uint64_t time_ns;
    uint64_t reserved;
} shb_waiters_header_t;

typedef struct shb_waiters {
    SHB_ATOMIC(uint32_t) wake;    /* futex word, changes with every frame and at the end */
    SHB_ATOMIC(uint32_t) waiting; /* 1: somebody sleeps, or is about to, until `wake` changes */
    uint32_t reserved[14];
} shb_waiters_t;

/*
 * One reader, in its own words. `claim` is the identity of its process, 0: free; one whose process has ended is
 * free as well. Times are heartbeats of the creator.
 */
typedef struct shb_reader_slot {
    /* line 0: what changes when a reader comes or goes */
    SHB_ATOMIC(uint64_t) claim;
    SHB_ATOMIC(uint64_t) track; /* number + 1, 0 while the slot is being filled in */
    SHB_ATOMIC(uint64_t) pid_ns;
    SHB_ATOMIC(uint64_t) time_ns;
    SHB_ATOMIC(uint64_t) opened_ns;
    SHB_ATOMIC(uint64_t) program[2]; /* NUL-terminated text */
    uint64_t reserved0;
    /* line 1: what changes with each frame */
    SHB_ATOMIC(uint64_t) frames;
    SHB_ATOMIC(uint64_t) bytes;
    SHB_ATOMIC(uint64_t) lost;
    SHB_ATOMIC(uint64_t) left_out;
    SHB_ATOMIC(uint64_t) due;     /* index of the frame that comes next if nothing is lost */
    SHB_ATOMIC(uint64_t) read_ns; /* when the last frame was read, 0: none yet */
    SHB_ATOMIC(uint64_t) seen_ns; /* when the reader looked last */
    uint64_t reserved1;
} shb_reader_slot_t;

#define SHB_READER_SLOTS 64u

typedef struct shb_reader_table {
    uint64_t magic;
    uint32_t slots;
    uint32_t slot_bytes;
    uint64_t reserved[6];
    shb_reader_slot_t slot[SHB_READER_SLOTS];
} shb_reader_table_t;

/*
 * What goes over the socket "+TOKEN" of the buffer (seqpacket): a reader that wants to be woken sends this, and
 * gets one byte when `head` of the track is no longer `seen`. The connection ends with the creator.
 */
typedef struct shb_call {
    uint64_t track; /* number */
    uint64_t seen;
} shb_call_t;

#define SHB_DESCRIPTION_WORDS UINT64_C(24)
#define SHB_DESCRIPTION_SLOTS UINT64_C(8)
#define SHB_CODEC_DATA_WORDS (SHB_CODEC_DATA_MAX / 8)

/*
 * One description under a sequence lock (odd while it is being written). The slots are used in turn; before one
 * is used again, the tail is raised past the frames that belong to what it held, so that every intact frame has
 * its description.
 */
typedef struct shb_description_slot {
    SHB_ATOMIC(uint64_t) lock;
    SHB_ATOMIC(uint64_t) epoch;
    SHB_ATOMIC(uint64_t) first;      /* index of the first frame that can belong to it */
    SHB_ATOMIC(uint64_t) data_bytes; /* of codec_data in use */
    uint64_t reserved[4];
    SHB_ATOMIC(uint64_t) words[SHB_DESCRIPTION_WORDS]; /* shb_description_t, then zeros */
    SHB_ATOMIC(uint64_t) codec_data[SHB_CODEC_DATA_WORDS];
} shb_description_slot_t;

/*
 * Head of a track. Frames are numbered through all epochs here ("index"): frame i has descriptor i modulo the
 * number of descriptors.
 *
 *     tail  the oldest frame that is intact. The writer raises it BEFORE it overwrites: whoever finds tail <= i after a copy
 *           of frame i knows that the copy is whole.
 *     head  the next frame to be written; raised AFTER the frame is complete.
 */
typedef struct shb_track {
    /* line 0: what changes when a writer comes or goes */
    SHB_ATOMIC(uint64_t) owner;      /* identity of the writing process, 0 when no writer has the track open */
    SHB_ATOMIC(uint64_t) epoch_lock; /* sequence lock of what a new epoch resets, odd while one is being set up */
    SHB_ATOMIC(uint64_t) epoch;
    SHB_ATOMIC(uint64_t) epoch_head;     /* head when the epoch began */
    SHB_ATOMIC(uint64_t) epoch_bytes;    /* total_bytes when the epoch began */
    SHB_ATOMIC(uint64_t) epoch_left_out; /* left_out when the epoch began */
    SHB_ATOMIC(uint64_t) descriptions;   /* descriptions ever written, over all epochs */
    SHB_ATOMIC(uint32_t) presence;       /* shb_presence_t */
    uint32_t reserved0;
    /* line 1: announced before each overwrite */
    SHB_ATOMIC(uint64_t) tail;
    uint64_t reserved1[7];
    /* line 2: published after each frame */
    SHB_ATOMIC(uint64_t) head;
    SHB_ATOMIC(uint64_t) newest_key; /* index + 1 of the newest key frame, 0 when there never was one */
    uint64_t reserved2[6];
    /* line 3: statistics */
    SHB_ATOMIC(uint64_t) total_bytes;
    SHB_ATOMIC(uint64_t) key_frames;
    SHB_ATOMIC(uint64_t) last_ns; /* CLOCK_MONOTONIC of the last frame of this epoch, 0 when there is none */
    SHB_ATOMIC(uint32_t) bitrate;
    SHB_ATOMIC(uint32_t) fps_milli;
    SHB_ATOMIC(uint64_t) left_out; /* frames of all epochs that were larger than the track */
    SHB_ATOMIC(int64_t) clock_offset;
    uint64_t reserved3[2];
    shb_description_slot_t description[SHB_DESCRIPTION_SLOTS];
} shb_track_t;

/*
 * One frame. `position` counts payload bytes through all epochs; the frame starts at position modulo the
 * track's bytes.
 */
typedef struct shb_descriptor {
    SHB_ATOMIC(uint64_t) sequence;
    SHB_ATOMIC(uint64_t) epoch;
    SHB_ATOMIC(uint64_t) pts;
    SHB_ATOMIC(uint64_t) dts;
    SHB_ATOMIC(uint64_t) duration;
    SHB_ATOMIC(uint64_t) position;
    SHB_ATOMIC(uint32_t) size;
    SHB_ATOMIC(uint32_t) flags;
    SHB_ATOMIC(uint32_t) description;
    uint32_t reserved0;
    SHB_ATOMIC(uint64_t) arrival_ns; /* CLOCK_MONOTONIC */
    SHB_ATOMIC(uint64_t) wall_ns;    /* CLOCK_REALTIME */
    SHB_ATOMIC(int64_t) clock_offset;
    SHB_ATOMIC(uint64_t) left_out; /* of the track, when this frame was written */
    uint64_t reserved1[4];
} shb_descriptor_t;

#define SHB_V3(condition) SHB_STATIC_ASSERT(condition, "layout version 3")
#define SHB_ALL(condition) SHB_STATIC_ASSERT(condition, "all layout versions")
SHB_STATIC_ASSERT(sizeof(shb_description_t) <= SHB_DESCRIPTION_WORDS * 8, "a description is copied by words");
SHB_STATIC_ASSERT(sizeof(shb_description_t) % 8 == 0, "a description is copied by words");
SHB_ALL(offsetof(shb_header_t, version) == 8);
SHB_ALL(offsetof(shb_header_t, total_bytes) == 16);
SHB_ALL(offsetof(shb_header_t, creator) == 24);
SHB_ALL(offsetof(shb_header_t, heartbeat_ns) == 3 * SHB_LINE_BYTES);
SHB_ALL(offsetof(shb_waiters_header_t, creator) == 24);
SHB_V3(sizeof(shb_header_t) == 4 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_header_t, video_bytes) == 40);
SHB_V3(offsetof(shb_header_t, video_frames) == 56);
SHB_V3(offsetof(shb_header_t, token) == 64);
SHB_V3(offsetof(shb_header_t, pid_ns) == 72);
SHB_V3(offsetof(shb_header_t, state) == 2 * SHB_LINE_BYTES);
SHB_V3(sizeof(shb_waiters_header_t) == SHB_LINE_BYTES);
SHB_V3(offsetof(shb_waiters_header_t, token) == 32);
SHB_V3(offsetof(shb_waiters_header_t, pid_ns) == 40);
SHB_V3(sizeof(shb_waiters_t) == SHB_LINE_BYTES);
SHB_V3(sizeof(shb_reader_slot_t) == 2 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_reader_slot_t, frames) == SHB_LINE_BYTES);
SHB_V3(offsetof(shb_reader_table_t, slot) == SHB_LINE_BYTES);
SHB_V3(sizeof(shb_call_t) == 16);
SHB_V3(offsetof(shb_description_slot_t, words) == SHB_LINE_BYTES);
SHB_V3(offsetof(shb_description_slot_t, codec_data) == 4 * SHB_LINE_BYTES);
SHB_V3(sizeof(shb_description_slot_t) == 4 * SHB_LINE_BYTES + SHB_CODEC_DATA_MAX);
SHB_V3(offsetof(shb_track_t, epoch_head) == 24);
SHB_V3(offsetof(shb_track_t, descriptions) == 48);
SHB_V3(offsetof(shb_track_t, tail) == 1 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_track_t, head) == 2 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_track_t, newest_key) == 2 * SHB_LINE_BYTES + 8);
SHB_V3(offsetof(shb_track_t, total_bytes) == 3 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_track_t, left_out) == 3 * SHB_LINE_BYTES + 32);
SHB_V3(offsetof(shb_track_t, description) == 4 * SHB_LINE_BYTES);
SHB_V3(sizeof(shb_descriptor_t) == 2 * SHB_LINE_BYTES);
SHB_V3(offsetof(shb_descriptor_t, position) == 40);
SHB_V3(offsetof(shb_descriptor_t, size) == 48);
SHB_V3(offsetof(shb_descriptor_t, description) == 56);
SHB_V3(offsetof(shb_descriptor_t, arrival_ns) == SHB_LINE_BYTES);
SHB_V3(offsetof(shb_descriptor_t, left_out) == SHB_LINE_BYTES + 24);

#endif /* SHB_LAYOUT_H */
