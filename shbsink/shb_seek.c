/*
 * Moving a reader to a moment, and opening both tracks of a source at one.
 */
#include <stdlib.h>

#include "shb_reader.h"

typedef struct moment {
    uint64_t ns;
    bool wall; /* of CLOCK_REALTIME, otherwise of the creator's CLOCK_MONOTONIC */
} moment_t;

static const shb_descriptor_t *descriptor_at(const shb_reader_t *reader, uint64_t index) {
    return &reader->view.descriptors[index & (reader->view.frames - 1)];
}

static uint64_t arrival_of(const shb_descriptor_t *descriptor, bool wall) {
    return atomic_load_explicit(wall ? &descriptor->wall_ns : &descriptor->arrival_ns, memory_order_relaxed);
}

static bool is_key(const shb_descriptor_t *descriptor) {
    return (atomic_load_explicit(&descriptor->flags, memory_order_relaxed) & SHB_FRAME_KEY) != 0;
}

/* The newest key frame that came at that moment or before, else the oldest one held, else the next to come. */
static uint64_t find_key(const shb_reader_t *reader, const shb_extent_t *extent, const moment_t *moment) {
    uint64_t found = extent->head;
    for (uint64_t at = extent->head; at > extent->tail; at--) {
        const shb_descriptor_t *descriptor = descriptor_at(reader, at - 1);
        if (!is_key(descriptor))
            continue;
        found = at - 1;
        if (arrival_of(descriptor, moment->wall) <= moment->ns)
            break;
    }
    return found;
}

/*
 * What was found in descriptors counts when none of them has been overwritten since; the oldest may always be
 * gone already.
 */
static bool still_held(const shb_reader_t *reader, uint64_t index) {
    shb_fence_acquire();
    return atomic_load_explicit(&reader->view.head->tail, memory_order_relaxed) <= index;
}

static void move_to(shb_reader_t *reader, uint64_t index, bool wants_key, uint64_t head) {
    reader->begin += index - reader->due;
    reader->next = reader->due = index;
    reader->skip = 0;
    reader->wants_key = wants_key;
    reader->fresh = wants_key && index == head;
    reader->has_epoch = false;
    reader->has_left_out = false;
}

static moment_t moment_of(const shb_reader_t *reader, shb_seek_t where, uint64_t ns) {
    moment_t moment = {.ns = ns, .wall = where == SHB_SEEK_WALL};
    if (where == SHB_SEEK_BACK) {
        uint64_t now = shb_map_now(reader->map);
        moment.ns = now > ns ? now - ns : 0;
    }
    return moment;
}

int shb_reader_seek(shb_reader_t *reader, shb_seek_t where, uint64_t ns) {
    if (reader == NULL || reader->borrowed || (int)where < SHB_SEEK_OLDEST || where > SHB_SEEK_WALL)
        return SHB_ERR_ARG;
    const moment_t moment = moment_of(reader, where, ns);
    shb_extent_t extent;
    uint64_t key;
    for (;;) {
        if (!shb_take_extent(reader, &extent))
            return SHB_ERR_CORRUPT;
        switch (where) {
            case SHB_SEEK_OLDEST:
                move_to(reader, extent.tail, false, extent.head);
                return SHB_OK;
            case SHB_SEEK_NEWEST:
                move_to(reader, extent.head, false, extent.head);
                return SHB_OK;
            case SHB_SEEK_KEY:
                key = atomic_load_explicit(&reader->view.head->newest_key, memory_order_acquire);
                key = key > extent.tail && key <= extent.head ? key - 1 : extent.head;
                break;
            default:
                key = find_key(reader, &extent, &moment);
                break;
        }
        if (still_held(reader, key)) {
            move_to(reader, key, true, extent.head);
            return SHB_OK;
        }
    }
}

/* ---- Both tracks ------------------------------------------------------------------------------------------------------- */

/* A time of the stream by the clock, all ones when its relation to that is not known. */
static uint64_t clock_time(const shb_descriptor_t *descriptor) {
    uint64_t pts = atomic_load_explicit(&descriptor->pts, memory_order_relaxed);
    int64_t offset = atomic_load_explicit(&descriptor->clock_offset, memory_order_relaxed);
    return pts == SHB_TIME_NONE || offset == SHB_OFFSET_NONE ? SHB_TIME_NONE : pts + (uint64_t)offset;
}

/* Puts the audio on the first frame that is not before the picture. */
static int meet(shb_reader_t *audio, const shb_descriptor_t *picture) {
    uint64_t arrival = arrival_of(picture, false);
    uint64_t time = clock_time(picture);
    shb_extent_t extent;
    for (;;) {
        if (!shb_take_extent(audio, &extent))
            return SHB_ERR_CORRUPT;
        uint64_t at = extent.tail;
        for (; at < extent.head; at++) {
            const shb_descriptor_t *descriptor = descriptor_at(audio, at);
            uint64_t audio_time = time == SHB_TIME_NONE ? SHB_TIME_NONE : clock_time(descriptor);
            if (audio_time != SHB_TIME_NONE ? audio_time >= time : arrival_of(descriptor, false) >= arrival)
                break;
        }
        if (still_held(audio, at)) {
            move_to(audio, at, false, extent.head);
            return SHB_OK;
        }
    }
}

int shb_open_av(shb_map_t *map, uint32_t channel, uint32_t stream, shb_seek_t where, uint64_t ns, shb_reader_t **video,
                shb_reader_t **audio) {
    shb_reader_t *picture = NULL, *sound = NULL;
    if (video == NULL || audio == NULL)
        return SHB_ERR_ARG;
    int result = shb_reader_open(map, channel, stream, SHB_VIDEO, SHB_START_KEY, &picture);
    if (result == SHB_OK)
        result = shb_reader_open(map, channel, stream, SHB_AUDIO, SHB_START_OLDEST, &sound);
    if (result == SHB_OK)
        result = shb_reader_seek(picture, where, ns);
    if (result == SHB_OK) {
        shb_extent_t extent;
        if (!shb_take_extent(picture, &extent))
            result = SHB_ERR_CORRUPT;
        else if (picture->next < extent.head && picture->next >= extent.tail)
            result = meet(sound, descriptor_at(picture, picture->next));
        else
            result = shb_reader_seek(sound, where, ns);
    }
    if (result != SHB_OK) {
        shb_reader_close(picture);
        shb_reader_close(sound);
        return result;
    }
    *video = picture;
    *audio = sound;
    return SHB_OK;
}
