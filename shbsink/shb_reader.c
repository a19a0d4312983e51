/*
 * The reader's side. A reader writes nothing into the mapping, and trusts nothing in it: what it reads there is taken once,
 * checked against the geometry it computed itself, and used only if the writer has not come by meanwhile.
 */
#define _GNU_SOURCE /* F_OFD_SETLK */

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shb_internal.h"

/* A creator that was killed wakes nobody: a waiting reader looks after it that often. */
#define LIVENESS_NS UINT64_C(200000000)
/* As long as its last heartbeat is no older than this, nobody needs to ask the system whether it lives. */
#define FRESH_NS (2 * SHB_HEARTBEAT_NS)
/* A reader that cannot announce itself is noticed at the next heartbeat or the one after; until then it looks by itself. */
#define UNNOTICED_NS (4 * SHB_HEARTBEAT_NS)
#define UNNOTICED_LOOK_NS UINT64_C(5000000)

struct shb_map {
    char name[SHB_NAME_MAX + 2];
    shb_header_t *base;
    size_t bytes;
    shb_places_t places;
    uint64_t creator;
    void *waiters; /* null when they may not be written */
    int fd;        /* of the buffer, which it keeps locked for reading when `waiters` is null; else -1 */
    uint64_t attached_ns;
};

struct shb_reader {
    shb_map_t *map;
    shb_track_view_t view;
    shb_start_t start;
    uint64_t due;   /* index of the frame that would come if nothing were lost */
    uint64_t next;  /* index to read next; later than `due` once something was */
    bool wants_key; /* leave out frames until a key frame comes */
    bool fresh;     /* nothing delivered yet, waiting for a first key frame: leaving out is no loss */
    bool delivered;
    uint64_t epoch; /* of the last frame delivered */
    /* That of the last frame looked at, taken while the frame was whole; serial 0 when it has none. */
    shb_description_t description;
    uint64_t description_epoch;
    uint64_t checked_ns; /* when the creator was last looked after */
    bool gone;           /* the creator was not there */
    bool borrowed;       /* frame `next` is in the caller's hands, and these are its values */
    shb_frame_t frame;
    shb_reader_stats_t stats;
};

/* Finds the file of waiters that belongs to the buffer. Without it a lock tells the creator that there is a reader. */
static void attach_waiters(shb_map_t *map, int fd) {
    char path[SHB_PATH_MAX];
    shb_waiters_path(map->name, map->base->waiters, path);
    int file = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat opened;
    shb_waiters_header_t header;
    if (file >= 0 && fstat(file, &opened) == 0 && S_ISREG(opened.st_mode) &&
        (uint64_t)opened.st_size == map->places.waiters_bytes &&
        pread(file, &header, sizeof header, 0) == (ssize_t)sizeof header && header.magic == SHB_WAITERS_MAGIC &&
        header.version == SHB_LAYOUT_VERSION && header.token == map->base->waiters) {
        void *base = mmap(NULL, (size_t)map->places.waiters_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (base != MAP_FAILED)
            map->waiters = base;
    }
    if (file >= 0)
        close(file);
    if (map->waiters != NULL)
        return;
    struct flock reading = {.l_type = F_RDLCK, .l_whence = SEEK_SET};
    map->fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (map->fd >= 0)
        fcntl(map->fd, F_OFD_SETLK, &reading);
}

int shb_attach(const char *name, shb_map_t **out) {
    char full[SHB_NAME_MAX + 2];
    if (out == NULL || !shb_full_name(name, full))
        return SHB_ERR_ARG;
    char path[SHB_PATH_MAX];
    shb_path(full, path);
    /* Never follows links, and never waits: under that name may stand anything. */
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return errno == ENOENT ? SHB_ERR_NOT_FOUND : errno == ELOOP ? SHB_ERR_VERSION : SHB_ERR_SYSTEM;
    struct stat file;
    int result = SHB_ERR_SYSTEM;
    void *base = MAP_FAILED;
    shb_map_t *map = NULL;
    if (fstat(fd, &file) != 0)
        goto done;
    result = SHB_ERR_VERSION;
    if (!S_ISREG(file.st_mode) || file.st_size < (off_t)SHB_PAGE_BYTES)
        goto done;
    result = SHB_ERR_SYSTEM;
    base = mmap(NULL, (size_t)file.st_size, PROT_READ, MAP_SHARED, fd, 0);
    map = calloc(1, sizeof *map);
    if (base == MAP_FAILED || map == NULL)
        goto done;
    memcpy(map->name, full, sizeof full);
    map->fd = -1;
    map->base = base;
    map->bytes = (size_t)file.st_size;
    map->creator = map->base->creator;
    map->attached_ns = shb_now_ns();
    result = shb_check_header(base, map->bytes, &map->places);
    if (result == SHB_OK)
        attach_waiters(map, fd);

done:
    if (result != SHB_OK) {
        int saved = errno;
        if (base != MAP_FAILED)
            munmap(base, (size_t)file.st_size);
        free(map);
        errno = saved;
    } else {
        *out = map;
    }
    close(fd);
    return result;
}

void shb_detach(shb_map_t *map) {
    if (map == NULL)
        return;
    munmap(map->base, map->bytes);
    if (map->waiters != NULL)
        munmap(map->waiters, (size_t)map->places.waiters_bytes);
    if (map->fd >= 0)
        close(map->fd);
    free(map);
}

int shb_map_info(const shb_map_t *map, shb_info_t *out) {
    if (map == NULL || out == NULL)
        return SHB_ERR_ARG;
    shb_info_from_header(map->name, map->base, map->bytes, out);
    return SHB_OK;
}

int shb_map_geometry(const shb_map_t *map, shb_geometry_t *out) {
    if (map == NULL || out == NULL)
        return SHB_ERR_ARG;
    *out = map->places.geometry;
    return SHB_OK;
}

int shb_map_alive(const shb_map_t *map) {
    return map != NULL && atomic_load_explicit(&map->base->state, memory_order_acquire) == SHB_STATE_OPEN &&
           shb_identity_alive(map->creator);
}

int shb_map_stats(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out) {
    shb_track_view_t view;
    if (map == NULL || out == NULL || !shb_track_at(&map->places, map->base, channel, stream, kind, &view))
        return SHB_ERR_ARG;
    shb_track_stats(&view, out);
    return SHB_OK;
}

int shb_map_description(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_description_t *out) {
    shb_track_view_t view;
    if (map == NULL || out == NULL || !shb_track_at(&map->places, map->base, channel, stream, kind, &view))
        return SHB_ERR_ARG;
    return shb_track_newest_description(&view, out);
}

/* ---- Reader ------------------------------------------------------------------------------------------------------- */

typedef struct extent {
    uint64_t tail, head;
} extent_t;

/* Tail first: the head only rises, so a head taken later is never behind it in an intact mapping. */
static bool take_extent(const shb_track_view_t *view, extent_t *out) {
    for (;;) {
        out->tail = atomic_load_explicit(&view->head->tail, memory_order_acquire);
        out->head = atomic_load_explicit(&view->head->head, memory_order_acquire);
        if (out->tail > out->head)
            return false;
        if (out->head - out->tail <= view->frames)
            return true;
        /* More than there is room for: either the writer went on between the two looks, or the mapping is damaged. */
        if (atomic_load_explicit(&view->head->tail, memory_order_acquire) == out->tail)
            return false;
    }
}

/* Puts the reader where its start rule says. `skip` frames of the oldest are given up when they are overwritten too fast to be had. */
static void place(shb_reader_t *reader, const extent_t *extent, uint64_t skip) {
    uint64_t key;
    switch (reader->start) {
        case SHB_START_OLDEST:
            reader->next = extent->tail + (skip < (extent->head - extent->tail) / 2 ? skip : (extent->head - extent->tail) / 2);
            break;
        case SHB_START_NEWEST:
            reader->next = extent->head > extent->tail ? extent->head - 1 : extent->head;
            break;
        case SHB_START_KEY:
            key = atomic_load_explicit(&reader->view.head->newest_key, memory_order_acquire);
            reader->wants_key = true;
            /* A key frame that came after the head was taken is found on the way. */
            reader->next = key > extent->tail && key <= extent->head ? key - 1 : extent->head;
            break;
    }
}

int shb_reader_open(shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_start_t start, shb_reader_t **out) {
    shb_track_view_t view;
    if (map == NULL || out == NULL || !shb_track_at(&map->places, map->base, channel, stream, kind, &view) ||
        (start != SHB_START_OLDEST && start != SHB_START_NEWEST && start != SHB_START_KEY))
        return SHB_ERR_ARG;
    extent_t extent;
    if (!take_extent(&view, &extent))
        return SHB_ERR_CORRUPT;
    shb_reader_t *reader = calloc(1, sizeof *reader);
    if (reader == NULL)
        return SHB_ERR_SYSTEM;
    reader->map = map;
    reader->view = view;
    reader->start = start;
    if (start == SHB_START_NEWEST)
        reader->next = extent.head;
    else
        place(reader, &extent, 0);
    reader->due = reader->next;
    reader->fresh = reader->wants_key && reader->next == extent.head;
    *out = reader;
    return SHB_OK;
}

void shb_reader_close(shb_reader_t *reader) {
    free(reader);
}

static bool creator_gone(shb_reader_t *reader) {
    if (reader->gone)
        return true;
    if (atomic_load_explicit(&reader->map->base->state, memory_order_acquire) != SHB_STATE_OPEN)
        return reader->gone = true;
    uint64_t now = shb_now_ns();
    if (reader->checked_ns == 0 || now - reader->checked_ns >= LIVENESS_NS) {
        reader->checked_ns = now;
        uint64_t beat = atomic_load_explicit(&reader->map->base->heartbeat_ns, memory_order_relaxed);
        bool fresh = beat <= now && now - beat < FRESH_NS;
        reader->gone = !fresh && !shb_identity_alive(reader->map->creator);
    }
    return reader->gone;
}

typedef enum take { TAKE_DONE, TAKE_LAPPED, TAKE_SKIP, TAKE_TOO_BIG, TAKE_CORRUPT } take_t;

static bool intact(const shb_reader_t *reader) {
    shb_fence_acquire();
    return atomic_load_explicit(&reader->view.head->tail, memory_order_relaxed) <= reader->next;
}

/* The description of frame `f`, which is true while the frame is intact. */
static void find_description(const shb_reader_t *reader, const shb_frame_t *f, shb_description_t *out) {
    if (reader->description.serial == f->description && reader->description_epoch == f->epoch)
        *out = reader->description;
    else if (shb_track_description(&reader->view, f->epoch, f->description, out) != SHB_OK)
        out->serial = 0;
}

/* Where a frame goes: into the caller's memory, or nowhere but into `place`, a pointer to where it lies. */
typedef struct target {
    void *data;
    size_t capacity;
    const void **place;
    bool look_only; /* nothing of it is wanted but that it is there */
} target_t;

/* Takes frame reader->next. All that comes from the mapping is checked for bounds before use and for truth after the copy. */
static take_t take_frame(shb_reader_t *reader, const target_t *to, shb_frame_t *frame) {
    const shb_track_view_t *view = &reader->view;
    shb_descriptor_t *descriptor = &view->descriptors[reader->next & (view->frames - 1)];
    shb_frame_t f = {
        .sequence = atomic_load_explicit(&descriptor->sequence, memory_order_relaxed),
        .epoch = atomic_load_explicit(&descriptor->epoch, memory_order_relaxed),
        .pts = atomic_load_explicit(&descriptor->pts, memory_order_relaxed),
        .dts = atomic_load_explicit(&descriptor->dts, memory_order_relaxed),
        .duration = atomic_load_explicit(&descriptor->duration, memory_order_relaxed),
        .size = atomic_load_explicit(&descriptor->size, memory_order_relaxed),
        .flags = atomic_load_explicit(&descriptor->flags, memory_order_relaxed),
        .description = atomic_load_explicit(&descriptor->description, memory_order_relaxed),
    };
    uint64_t offset = atomic_load_explicit(&descriptor->position, memory_order_relaxed) & (view->bytes - 1);
    bool sound = f.size != 0 && f.size <= view->bytes && offset % SHB_FRAME_ALIGN == 0 && offset + f.size <= view->bytes &&
                 f.epoch != 0 && f.sequence <= reader->next && (!reader->delivered || f.epoch >= reader->epoch);
    bool fits = to->place != NULL || f.size <= to->capacity;
    /* A reader that wants a key frame wants one again in each new epoch: nothing of it decodes on top of the last. */
    bool key_only = reader->wants_key || (reader->start == SHB_START_KEY && reader->delivered && f.epoch != reader->epoch);
    bool skip = key_only && (f.flags & SHB_FRAME_KEY) == 0;
    const void *source = view->payload + offset;
    shb_description_t description;
    if (sound && fits && !skip) {
        if (to->place == NULL)
            shb_copy_out(to->data, source, f.size);
        if (!to->look_only)
            find_description(reader, &f, &description);
    }
    if (!intact(reader))
        return TAKE_LAPPED;
    if (!sound)
        return TAKE_CORRUPT;
    if (skip) {
        reader->wants_key = true;
        return TAKE_SKIP;
    }
    uint64_t missed = reader->next - reader->due;
    f.lost = missed < f.sequence ? missed : f.sequence;
    *frame = f;
    if (to->place != NULL)
        *to->place = source;
    if (fits && !to->look_only) {
        reader->description = description;
        reader->description_epoch = f.epoch;
    }
    return fits ? TAKE_DONE : TAKE_TOO_BIG;
}

/* Frame reader->next has been delivered. */
static void move_on(shb_reader_t *reader, const shb_frame_t *frame) {
    reader->stats.frames++;
    reader->stats.bytes += frame->size;
    reader->stats.key_frames += (frame->flags & SHB_FRAME_KEY) != 0;
    reader->stats.lost += frame->lost;
    reader->stats.losses += frame->lost != 0;
    reader->stats.epochs += !reader->delivered || frame->epoch != reader->epoch;
    reader->next++;
    reader->due = reader->next;
    reader->wants_key = false;
    reader->fresh = false;
    reader->delivered = true;
    reader->epoch = frame->epoch;
}

static int take_next(shb_reader_t *reader, const target_t *to, shb_frame_t *frame, bool *nothing) {
    *nothing = false;
    uint64_t skip = 0;
    for (;;) {
        extent_t extent;
        if (!take_extent(&reader->view, &extent) || reader->next > extent.head)
            return SHB_ERR_CORRUPT;
        if (reader->next < extent.tail) {
            place(reader, &extent, skip);
            /* The oldest frame is the next to go: give up more of them each time that one was gone before it was copied. */
            skip = skip * 2 + 1;
        }
        if (reader->fresh)
            reader->due = reader->next;
        if (reader->next == extent.head) {
            *nothing = true;
            return SHB_OK;
        }
        switch (take_frame(reader, to, frame)) {
            case TAKE_DONE:
                if (to->place == NULL)
                    move_on(reader, frame);
                return SHB_OK;
            case TAKE_TOO_BIG:
                return SHB_ERR_TOO_BIG;
            case TAKE_CORRUPT:
                return SHB_ERR_CORRUPT;
            case TAKE_SKIP:
                reader->next++;
                break;
            case TAKE_LAPPED:
                break;
        }
    }
}

/* How long a reader may sleep before it looks by itself. */
static uint64_t longest_sleep(const shb_reader_t *reader, uint64_t now) {
    return reader->map->waiters == NULL && now - reader->map->attached_ns < UNNOTICED_NS ? UNNOTICED_LOOK_NS : LIVENESS_NS;
}

/* Takes the next frame, or waits for it. */
static int await_next(shb_reader_t *reader, const target_t *to, int timeout_ms, shb_frame_t *frame) {
    uint64_t deadline = timeout_ms > 0 ? shb_now_ns() + (uint64_t)timeout_ms * 1000000 : 0;
    SHB_ATOMIC(uint32_t) *word = &reader->view.head->wake;
    for (;;) {
        /* The word is taken before the look: a frame or an end that comes after it changes the word, and the wait returns at once. */
        uint32_t seen = atomic_load_explicit(word, memory_order_acquire);
        bool nothing;
        int result = take_next(reader, to, frame, &nothing);
        if (result == SHB_OK && nothing && creator_gone(reader)) {
            /* What it wrote last may have come between the look and its end. */
            result = take_next(reader, to, frame, &nothing);
            if (result == SHB_OK && nothing)
                return SHB_ERR_CLOSED;
        }
        if (result != SHB_OK || !nothing)
            return result;
        if (timeout_ms == 0)
            return SHB_ERR_TIMEOUT;
        uint64_t now = shb_now_ns();
        uint64_t wait = longest_sleep(reader, now);
        if (timeout_ms > 0) {
            if (now >= deadline)
                return SHB_ERR_TIMEOUT;
            if (deadline - now < wait)
                wait = deadline - now;
        }
        if (reader->map->waiters != NULL)
            shb_announce(shb_waiters_at(reader->map->waiters, reader->view.number));
        shb_wait(word, seen, wait);
    }
}

int shb_reader_read(shb_reader_t *reader, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame) {
    if (reader == NULL || frame == NULL || (data == NULL && capacity > 0) || timeout_ms < -1 || reader->borrowed)
        return SHB_ERR_ARG;
    const target_t to = {.data = data, .capacity = capacity};
    return await_next(reader, &to, timeout_ms, frame);
}

int shb_reader_borrow(shb_reader_t *reader, int timeout_ms, const void **data, shb_frame_t *frame) {
    if (reader == NULL || frame == NULL || data == NULL || timeout_ms < -1 || reader->borrowed)
        return SHB_ERR_ARG;
    const target_t to = {.place = data};
    int result = await_next(reader, &to, timeout_ms, &reader->frame);
    if (result == SHB_OK) {
        *frame = reader->frame;
        reader->borrowed = true;
    }
    return result;
}

int shb_reader_return(shb_reader_t *reader) {
    if (reader == NULL || !reader->borrowed)
        return SHB_ERR_ARG;
    reader->borrowed = false;
    if (!intact(reader))
        return SHB_ERR_OVERRUN;
    move_on(reader, &reader->frame);
    return SHB_OK;
}

int shb_reader_wait(shb_reader_t *reader, int timeout_ms) {
    if (reader == NULL || timeout_ms < -1 || reader->borrowed)
        return SHB_ERR_ARG;
    const void *place;
    const target_t to = {.place = &place, .look_only = true};
    shb_frame_t frame;
    return await_next(reader, &to, timeout_ms, &frame);
}

int shb_reader_description(shb_reader_t *reader, shb_description_t *out) {
    if (reader == NULL || out == NULL)
        return SHB_ERR_ARG;
    if ((!reader->delivered && !reader->borrowed) || reader->description.serial == 0)
        return SHB_ERR_NOT_FOUND;
    *out = reader->description;
    return SHB_OK;
}

int shb_reader_get_stats(const shb_reader_t *reader, shb_reader_stats_t *out) {
    if (reader == NULL || out == NULL)
        return SHB_ERR_ARG;
    *out = reader->stats;
    uint64_t head = atomic_load_explicit(&reader->view.head->head, memory_order_acquire);
    out->waiting = head > reader->due ? head - reader->due : 0;
    return SHB_OK;
}
