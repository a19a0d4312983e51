/*
 * The reader's side. A reader writes nothing into the mapping, and trusts nothing in it: what it reads there is
 * taken once, checked against the geometry it computed itself, and used only if the writer has not come by
 * meanwhile.
 */
#define _GNU_SOURCE /* F_OFD_SETLK */

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "shb_reader.h"

/* ---- Map ------------------------------------------------------------------------------------------------------------- */

/* Finds the file of waiters that belongs to the buffer. Without it a reader is woken by a socket. */
static void attach_waiters(shb_map_t *map) {
    char path[SHB_PATH_MAX];
    shb_waiters_path(map->name, map->base->token, path);
    int file = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat opened;
    shb_waiters_header_t header;
    if (file < 0)
        return;
    /* One of another user's could be cut short by him. */
    const shb_places_t *places = &map->places;
    if (fstat(file, &opened) == 0 && S_ISREG(opened.st_mode) && opened.st_uid == map->owner &&
        (uint64_t)opened.st_size >= places->words_bytes && pread(file, &header, sizeof header, 0) == (ssize_t)sizeof header &&
        header.magic == SHB_WAITERS_MAGIC && header.version == SHB_LAYOUT_VERSION && header.token == map->base->token) {
        /* A creator of another version may have no table of readers there, or something else. */
        bool whole = (uint64_t)opened.st_size >= places->waiters_bytes;
        size_t bytes = (size_t)(whole ? places->waiters_bytes : places->words_bytes);
        void *base = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (base != MAP_FAILED) {
            map->waiters = base;
            map->waiters_bytes = bytes;
            map->guarded[1] = shb_guard_add(base, bytes, &map->damaged);
            if (whole && shb_reader_table_is_sound(shb_reader_table_at(places, base)))
                map->table = shb_reader_table_at(places, base);
        }
    }
    close(file);
}

/* Maps the file; everything but the map's own fields of the header is left to the caller. */
static int map_file(shb_map_t *map, int fd, const shb_attach_options_t *options) {
    struct stat file;
    if (fstat(fd, &file) != 0)
        return SHB_ERR_SYSTEM;
    if (!S_ISREG(file.st_mode) || file.st_size < (off_t)SHB_PAGE_BYTES)
        return SHB_ERR_VERSION;
    if (options->owner_given != 0 && file.st_uid != options->owner)
        return SHB_ERR_OWNER;
    void *base = mmap(NULL, (size_t)file.st_size, PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED)
        return SHB_ERR_SYSTEM;
    map->base = base;
    map->bytes = (size_t)file.st_size;
    map->owner = file.st_uid;
    map->group = file.st_gid;
    map->mode = file.st_mode;
    map->device = file.st_dev;
    map->inode = file.st_ino;
    map->guarded[0] = shb_guard_add(base, map->bytes, &map->damaged);
    return shb_check_header(base, map->bytes, &map->places);
}

static void drop_map(shb_map_t *map) {
    if (atomic_fetch_sub_explicit(&map->holds, 1, memory_order_acq_rel) > 1)
        return;
    shb_guard_remove(map->guarded[0]);
    shb_guard_remove(map->guarded[1]);
    if (map->base != NULL)
        munmap(map->base, map->bytes);
    if (map->waiters != NULL)
        munmap(map->waiters, map->waiters_bytes);
    free(map);
}

int shb_attach_with(const char *name, const shb_attach_options_t *options, shb_map_t **out) {
    char full[SHB_NAME_MAX + 2];
    shb_attach_options_t wanted = SHB_INIT(shb_attach_options_t);
    if (out == NULL || !shb_full_name(name, full) || (options != NULL && !shb_take_struct(options, &wanted, sizeof wanted)) ||
        wanted.owner_given > 1)
        return SHB_ERR_ARG;
    char path[SHB_PATH_MAX];
    shb_path(full, path);
    /* Never follows links, and never waits: under that name may stand anything. */
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return errno == ENOENT ? SHB_ERR_NOT_FOUND : errno == ELOOP ? SHB_ERR_VERSION : SHB_ERR_SYSTEM;
    int result = SHB_ERR_SYSTEM;
    shb_map_t *map = calloc(1, sizeof *map);
    if (map != NULL) {
        atomic_init(&map->holds, 1);
        memcpy(map->name, full, sizeof full);
        result = map_file(map, fd, &wanted);
        int saved = errno;
        if (result == SHB_OK) {
            map->self = shb_origin_self();
            map->origin = shb_origin_of(map->base);
            map->near = shb_origin_is_near(&map->origin);
            map->same_time = map->origin.time_ns == map->self.time_ns;
            attach_waiters(map);
            *out = map;
        } else {
            drop_map(map);
        }
        errno = saved;
    }
    int saved = errno;
    close(fd);
    errno = saved;
    return result;
}

int shb_attach(const char *name, shb_map_t **out) {
    return shb_attach_with(name, NULL, out);
}

void shb_detach(shb_map_t *map) {
    if (map != NULL)
        drop_map(map);
}

int shb_map_alive(const shb_map_t *map) {
    if (map == NULL || atomic_load_explicit(&map->base->state, memory_order_acquire) != SHB_STATE_OPEN)
        return 0;
    uint64_t age = shb_heartbeat_age(map->base);
    if (age < SHB_FRESH_NS)
        return 1;
    shb_life_t life = shb_origin_life(&map->origin);
    return life == SHB_LIFE_UNKNOWN ? age < SHB_SILENT_NS : life == SHB_LIFE_ALIVE;
}

/* After shb_guard: what is asked about lies in a part of the file that is gone. */
static bool is_damaged(const shb_map_t *map) {
    return atomic_load_explicit(&map->damaged, memory_order_acquire);
}

int shb_map_info(const shb_map_t *map, shb_info_t *out) {
    if (map == NULL || out == NULL || !shb_can_give(out, sizeof *out))
        return SHB_ERR_ARG;
    const struct stat file = {.st_uid = map->owner, .st_gid = map->group, .st_mode = map->mode, .st_size = (off_t)map->bytes};
    shb_info_t info;
    shb_info_from_header(map->name, map->base, &file, &info);
    info.pid_is_ours = map->near;
    info.alive = shb_map_alive(map);
    if (is_damaged(map))
        return SHB_ERR_CORRUPT;
    shb_give_struct(out, &info, sizeof info);
    return SHB_OK;
}

int shb_map_geometry(const shb_map_t *map, shb_geometry_t *out) {
    if (map == NULL || out == NULL || !shb_can_give(out, sizeof *out))
        return SHB_ERR_ARG;
    shb_give_struct(out, &map->places.geometry, sizeof *out);
    return SHB_OK;
}

/* In another time namespace the creator's clock is known by its heartbeat, which tells both clocks. */
uint64_t shb_map_now(const shb_map_t *map) {
    if (map->same_time)
        return shb_now_ns();
    return atomic_load_explicit(&map->base->heartbeat_ns, memory_order_relaxed) + shb_wall_ns() -
           atomic_load_explicit(&map->base->heartbeat_wall_ns, memory_order_relaxed);
}

int shb_map_stats(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out) {
    shb_track_view_t view;
    if (map == NULL || out == NULL || !shb_can_give(out, sizeof *out) ||
        !shb_track_at(&map->places, map->base, channel, stream, kind, &view))
        return SHB_ERR_ARG;
    shb_stats_t stats;
    shb_track_stats(&view, shb_map_now(map), shb_map_alive(map) != 0, map->origin.creator, &stats);
    if (is_damaged(map))
        return SHB_ERR_CORRUPT;
    shb_give_struct(out, &stats, sizeof stats);
    return SHB_OK;
}

int shb_map_description(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_description_t *out) {
    shb_track_view_t view;
    shb_description_t description;
    if (map == NULL || out == NULL || !shb_can_give(out, sizeof *out) ||
        !shb_track_at(&map->places, map->base, channel, stream, kind, &view))
        return SHB_ERR_ARG;
    int result = shb_track_newest_description(&view, &description, NULL);
    if (is_damaged(map))
        return SHB_ERR_CORRUPT;
    if (result == SHB_OK)
        shb_give_struct(out, &description, sizeof description);
    return result;
}

int shb_map_readers(const shb_map_t *map, shb_reader_info_t *out, size_t capacity, size_t *count) {
    if (map == NULL || count == NULL || (capacity > 0 && (out == NULL || !shb_can_give(out, sizeof *out))))
        return SHB_ERR_ARG;
    if (map->table == NULL)
        return SHB_ERR_NOT_FOUND;
    const shb_reader_list_t list = {.places = &map->places, .base = map->base, .table = map->table, .now = shb_map_now(map)};
    size_t found = shb_reader_list(&list, out, capacity);
    if (is_damaged(map))
        return SHB_ERR_CORRUPT;
    *count = found;
    return SHB_OK;
}

/* Hands codec data out. */
static int give_data(const uint64_t *from, uint32_t bytes, void *data, size_t capacity, size_t *size) {
    *size = bytes;
    if (bytes > capacity)
        return SHB_ERR_TOO_BIG;
    if (bytes > 0)
        memcpy(data, from, bytes);
    return SHB_OK;
}

int shb_map_codec_data(const shb_map_t *map, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_description_t *out,
                       void *data, size_t capacity, size_t *size) {
    shb_track_view_t view;
    shb_description_t description;
    uint64_t words[SHB_CODEC_DATA_WORDS];
    if (map == NULL || out == NULL || !shb_can_give(out, sizeof *out) || size == NULL || (data == NULL && capacity > 0) ||
        !shb_track_at(&map->places, map->base, channel, stream, kind, &view))
        return SHB_ERR_ARG;
    int result = shb_track_newest_description(&view, &description, words);
    if (is_damaged(map))
        return SHB_ERR_CORRUPT;
    if (result != SHB_OK)
        return result;
    result = give_data(words, description.codec_data_bytes, data, capacity, size);
    if (result == SHB_OK)
        shb_give_struct(out, &description, sizeof description);
    return result;
}

/* ---- Reader ------------------------------------------------------------------------------------------------------- */

/* Tail first: the head only rises, so a head taken later is never behind it in an intact mapping. */
bool shb_take_extent(const shb_reader_t *reader, shb_extent_t *out) {
    const shb_track_view_t *view = &reader->view;
    for (;;) {
        out->tail = atomic_load_explicit(&view->head->tail, memory_order_acquire);
        out->head = atomic_load_explicit(&view->head->head, memory_order_acquire);
        if (out->tail > out->head || atomic_load_explicit(&reader->map->damaged, memory_order_acquire))
            return false;
        if (out->head - out->tail <= view->frames)
            return true;
        /*
         * More than there is room for: either the writer went on between the two looks, or the mapping is
         * damaged.
         */
        if (atomic_load_explicit(&view->head->tail, memory_order_acquire) == out->tail)
            return false;
    }
}

void shb_place(shb_reader_t *reader, const shb_extent_t *extent) {
    uint64_t key, half = (extent->head - extent->tail) / 2;
    switch (reader->start) {
        case SHB_START_OLDEST:
            /*
             * The oldest frame is the next to go: give up more of them each time that one was gone before it
             * was copied.
             */
            reader->next = extent->tail + (reader->skip < half ? reader->skip : half);
            reader->skip = reader->skip * 2 + 1;
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
    shb_reader_t *reader = calloc(1, sizeof *reader);
    if (reader == NULL)
        return SHB_ERR_SYSTEM;
    reader->map = map;
    reader->view = view;
    reader->start = start;
    reader->link = -1;
    if (map->waiters != NULL)
        reader->waiters = shb_waiters_at(map->waiters, view.number);
    shb_extent_t extent;
    if (!shb_take_extent(reader, &extent)) {
        free(reader);
        return SHB_ERR_CORRUPT;
    }
    if (start == SHB_START_NEWEST)
        reader->next = extent.head;
    else
        shb_place(reader, &extent);
    reader->skip = 0;
    reader->begin = reader->due = reader->next;
    reader->fresh = reader->wants_key && reader->next == extent.head;
    if (reader->next == extent.head) {
        /* What has been left out so far was before the time of this reader. */
        reader->left_out = atomic_load_explicit(&view.head->left_out, memory_order_relaxed);
        reader->has_left_out = true;
    }
    atomic_fetch_add_explicit(&map->holds, 1, memory_order_relaxed);
    shb_reader_enter(reader);
    *out = reader;
    return SHB_OK;
}

void shb_reader_close(shb_reader_t *reader) {
    if (reader == NULL)
        return;
    if (reader->set != NULL)
        shb_set_remove(reader->set, reader);
    shb_call_end(reader);
    shb_reader_leave(reader);
    drop_map(reader->map);
    free(reader);
}

/*
 * Without a system call while the heartbeat is young. One that stands still is asked about, or, where the
 * creator cannot be asked for, given time; a creator that was only stopped is there again with its next
 * heartbeat.
 */
static bool creator_gone(shb_reader_t *reader) {
    shb_map_t *map = reader->map;
    if (atomic_load_explicit(&map->base->state, memory_order_acquire) != SHB_STATE_OPEN)
        return true;
    uint64_t now = shb_now_ns();
    uint64_t beat = atomic_load_explicit(&map->base->heartbeat_ns, memory_order_relaxed);
    shb_reader_show_life(reader, beat);
    if (reader->beat_at == 0 || beat != reader->beat) {
        uint64_t age = shb_heartbeat_age(map->base);
        reader->beat = beat;
        reader->beat_at = age < now ? now - age : now;
        reader->checked_ns = 0;
        reader->gone = false;
    }
    uint64_t age = now > reader->beat_at ? now - reader->beat_at : 0;
    if (age < SHB_FRESH_NS && !reader->suspect && !reader->gone)
        return false;
    if (reader->checked_ns == 0 || now - reader->checked_ns >= SHB_LIVENESS_NS || reader->suspect) {
        reader->checked_ns = now;
        reader->suspect = false;
        shb_life_t life = shb_origin_life(&map->origin);
        reader->gone = life == SHB_LIFE_UNKNOWN ? age >= SHB_SILENT_NS : life == SHB_LIFE_GONE;
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
    else if (shb_track_description(&reader->view, f->epoch, f->description, out, NULL) != SHB_OK)
        out->serial = 0;
}

/*
 * Takes frame reader->next. All that comes from the mapping is checked for bounds before use and for truth
 * after the copy.
 */
static take_t take_frame(shb_reader_t *reader, const shb_target_t *to, shb_frame_t *frame) {
    const shb_track_view_t *view = &reader->view;
    shb_descriptor_t *descriptor = &view->descriptors[reader->next & (view->frames - 1)];
    shb_frame_t f = {
        .struct_size = sizeof f,
        .sequence = atomic_load_explicit(&descriptor->sequence, memory_order_relaxed),
        .epoch = atomic_load_explicit(&descriptor->epoch, memory_order_relaxed),
        .pts = atomic_load_explicit(&descriptor->pts, memory_order_relaxed),
        .dts = atomic_load_explicit(&descriptor->dts, memory_order_relaxed),
        .duration = atomic_load_explicit(&descriptor->duration, memory_order_relaxed),
        .size = atomic_load_explicit(&descriptor->size, memory_order_relaxed),
        .flags = atomic_load_explicit(&descriptor->flags, memory_order_relaxed),
        .description = atomic_load_explicit(&descriptor->description, memory_order_relaxed),
        .arrival_ns = atomic_load_explicit(&descriptor->arrival_ns, memory_order_relaxed),
        .wall_ns = atomic_load_explicit(&descriptor->wall_ns, memory_order_relaxed),
        .clock_offset = atomic_load_explicit(&descriptor->clock_offset, memory_order_relaxed),
    };
    uint64_t left_out = atomic_load_explicit(&descriptor->left_out, memory_order_relaxed);
    uint64_t offset = atomic_load_explicit(&descriptor->position, memory_order_relaxed) & (view->bytes - 1);
    bool sound = f.size != 0 && f.size <= view->bytes && offset % SHB_FRAME_ALIGN == 0 && offset + f.size <= view->bytes &&
                 f.epoch != 0 && f.sequence <= reader->next && (!reader->has_epoch || f.epoch >= reader->epoch);
    bool fits = to->place != NULL || f.size <= to->capacity;
    /*
     * A reader that wants a key frame wants one again in each new epoch: nothing of it decodes on top of the
     * last.
     */
    bool key_only = reader->wants_key || (reader->start == SHB_START_KEY && reader->has_epoch && f.epoch != reader->epoch);
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
    f.lost = reader->next - reader->due;
    f.lost_before = f.lost > f.sequence ? f.lost - f.sequence : 0;
    f.left_out = reader->has_left_out && left_out > reader->left_out ? left_out - reader->left_out : 0;
    reader->frame_left_out = left_out;
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
    reader->stats.left_out += frame->left_out;
    reader->stats.epochs += !reader->delivered || frame->epoch != reader->epoch;
    reader->left_out = reader->frame_left_out;
    reader->has_left_out = true;
    reader->next++;
    reader->due = reader->next;
    reader->skip = 0;
    reader->wants_key = false;
    reader->fresh = false;
    reader->delivered = true;
    reader->has_epoch = true;
    reader->epoch = frame->epoch;
    shb_reader_show_frame(reader);
}

uint64_t shb_deadline(int timeout_ms) {
    return timeout_ms == 0 ? 0 : timeout_ms < 0 ? UINT64_MAX : shb_now_ns() + (uint64_t)timeout_ms * 1000000;
}

uint64_t shb_time_left(uint64_t deadline, uint64_t longest) {
    if (deadline == 0 || deadline == UINT64_MAX)
        return deadline == 0 ? 0 : longest;
    uint64_t now = shb_now_ns();
    return now >= deadline ? 0 : deadline - now < longest ? deadline - now : longest;
}

/*
 * SHB_ERR_TIMEOUT: `nothing` is there, or what is there is overwritten again and again before it has been
 * copied and the time is over.
 */
static int take_next(shb_reader_t *reader, const shb_target_t *to, uint64_t deadline, shb_frame_t *frame, bool *nothing) {
    *nothing = false;
    for (;;) {
        shb_extent_t extent;
        if (!shb_take_extent(reader, &extent) || reader->next > extent.head)
            return SHB_ERR_CORRUPT;
        if (reader->next < extent.tail)
            shb_place(reader, &extent);
        if (reader->fresh) {
            reader->begin += reader->next - reader->due;
            reader->due = reader->next;
        }
        if (reader->next == extent.head) {
            *nothing = true;
            return SHB_ERR_TIMEOUT;
        }
        switch (take_frame(reader, to, frame)) {
            case TAKE_DONE:
                if (atomic_load_explicit(&reader->map->damaged, memory_order_acquire))
                    return SHB_ERR_CORRUPT;
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
                if (shb_time_left(deadline, 1) == 0)
                    return SHB_ERR_TIMEOUT;
                break;
        }
    }
}

/* Takes the next frame if there is one, and otherwise says why there will be none; never waits. */
static int take_or_end(shb_reader_t *reader, const shb_target_t *to, uint64_t deadline, shb_frame_t *frame) {
    bool nothing;
    int result = take_next(reader, to, deadline, frame, &nothing);
    if (!nothing || !creator_gone(reader))
        return result;
    /* What it wrote last may have come between the look and its end. */
    result = take_next(reader, to, deadline, frame, &nothing);
    return nothing ? SHB_ERR_CLOSED : result;
}

/* Takes the next frame, or waits for it. */
static int await_next(shb_reader_t *reader, const shb_target_t *to, int timeout_ms, shb_frame_t *frame) {
    uint64_t deadline = shb_deadline(timeout_ms);
    for (;;) {
        /*
         * The word is taken before the look: a frame or an end that comes after it changes the word, and the
         * wait returns at once.
         */
        uint32_t seen = reader->waiters == NULL ? 0 : atomic_load_explicit(&reader->waiters->wake, memory_order_acquire);
        int result = take_or_end(reader, to, deadline, frame);
        if (result != SHB_ERR_TIMEOUT)
            return result;
        uint64_t wait = shb_time_left(deadline, SHB_LIVENESS_NS);
        if (wait == 0)
            return SHB_ERR_TIMEOUT;
        if (reader->waiters != NULL) {
            shb_announce(reader->waiters);
            shb_wait(&reader->waiters->wake, seen, wait);
        } else {
            shb_call_wait(reader, wait);
        }
    }
}

/* What the caller is given: all of a frame, or of one that does not fit its size. */
static int give_frame(int result, const shb_frame_t *from, shb_frame_t *out) {
    if (result == SHB_OK || result == SHB_ERR_TOO_BIG)
        shb_give_struct(out, from, sizeof *from);
    return result;
}

int shb_reader_read(shb_reader_t *reader, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame) {
    if (reader == NULL || frame == NULL || !shb_can_give(frame, sizeof *frame) || (data == NULL && capacity > 0) ||
        timeout_ms < -1 || reader->borrowed)
        return SHB_ERR_ARG;
    const shb_target_t to = {.data = data, .capacity = capacity};
    shb_frame_t got;
    return give_frame(await_next(reader, &to, timeout_ms, &got), &got, frame);
}

int shb_reader_borrow(shb_reader_t *reader, int timeout_ms, const void **data, shb_frame_t *frame) {
    if (reader == NULL || frame == NULL || !shb_can_give(frame, sizeof *frame) || data == NULL || timeout_ms < -1 ||
        reader->borrowed)
        return SHB_ERR_ARG;
    const shb_target_t to = {.place = data};
    int result = await_next(reader, &to, timeout_ms, &reader->frame);
    reader->borrowed = result == SHB_OK;
    return give_frame(result, &reader->frame, frame);
}

int shb_reader_return(shb_reader_t *reader) {
    if (reader == NULL || !reader->borrowed)
        return SHB_ERR_ARG;
    reader->borrowed = false;
    if (atomic_load_explicit(&reader->map->damaged, memory_order_acquire))
        return SHB_ERR_CORRUPT;
    if (!intact(reader))
        return SHB_ERR_OVERRUN;
    move_on(reader, &reader->frame);
    return SHB_OK;
}

int shb_reader_wait(shb_reader_t *reader, int timeout_ms) {
    if (reader == NULL || timeout_ms < -1 || reader->borrowed)
        return SHB_ERR_ARG;
    shb_frame_t frame;
    const void *place;
    const shb_target_t to = {.place = &place, .look_only = true};
    return await_next(reader, &to, timeout_ms, &frame);
}

int shb_look(shb_reader_t *reader) {
    shb_frame_t frame;
    const void *place;
    const shb_target_t to = {.place = &place, .look_only = true};
    return take_or_end(reader, &to, 0, &frame);
}

static bool has_description(const shb_reader_t *reader) {
    return (reader->delivered || reader->borrowed) && reader->description.serial != 0;
}

int shb_reader_description(shb_reader_t *reader, shb_description_t *out) {
    if (reader == NULL || out == NULL || !shb_can_give(out, sizeof *out))
        return SHB_ERR_ARG;
    if (!has_description(reader))
        return SHB_ERR_NOT_FOUND;
    shb_give_struct(out, &reader->description, sizeof *out);
    return SHB_OK;
}

int shb_reader_codec_data(shb_reader_t *reader, void *data, size_t capacity, size_t *size) {
    if (reader == NULL || size == NULL || (data == NULL && capacity > 0))
        return SHB_ERR_ARG;
    if (!has_description(reader))
        return SHB_ERR_NOT_FOUND;
    shb_description_t found;
    uint64_t words[SHB_CODEC_DATA_WORDS];
    int result = shb_track_description(&reader->view, reader->description_epoch, reader->description.serial, &found, words);
    return result != SHB_OK ? result : give_data(words, found.codec_data_bytes, data, capacity, size);
}

int shb_reader_get_stats(const shb_reader_t *reader, shb_reader_stats_t *out) {
    if (reader == NULL || out == NULL || !shb_can_give(out, sizeof *out))
        return SHB_ERR_ARG;
    shb_reader_stats_t stats = reader->stats;
    uint64_t head = atomic_load_explicit(&reader->view.head->head, memory_order_acquire);
    stats.waiting = head > reader->due ? head - reader->due : 0;
    stats.offered = (head > reader->due ? head : reader->due) - reader->begin;
    shb_give_struct(out, &stats, sizeof stats);
    return SHB_OK;
}
