/*
 * The creator's side: making, finding and removing a buffer.
 */
#define _GNU_SOURCE /* O_TMPFILE */

#include "shb_buffer.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

/*
 * Every buffer of this process, in the order of their addresses. The pointer travels through a host and an element
 * property before it comes back here, so it is looked up and never followed before it has been found. A host of
 * hundreds of buffers looks up each of them many times a second.
 */
static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static shb_buffer_t **registry;
static size_t registered;
static size_t registry_room;

void shb_registry_lock(void) {
    pthread_mutex_lock(&registry_lock);
}

void shb_registry_unlock(void) {
    pthread_mutex_unlock(&registry_lock);
}

/* Where the buffer stands, or would stand. Under the lock, as the next ones. */
static size_t place_in_registry(const shb_buffer_t *buffer) {
    size_t low = 0, high = registered;
    while (low < high) {
        size_t middle = low + (high - low) / 2;
        if ((uintptr_t)registry[middle] < (uintptr_t)buffer)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

static bool is_registered(const shb_buffer_t *buffer, size_t place) {
    return place < registered && registry[place] == buffer;
}

static bool enter_in_registry(shb_buffer_t *buffer) {
    if (registered == registry_room) {
        size_t room = registry_room == 0 ? 16 : registry_room * 2;
        shb_buffer_t **more = realloc(registry, room * sizeof(shb_buffer_t *));
        if (more == NULL)
            return false;
        registry = more;
        registry_room = room;
    }
    size_t place = place_in_registry(buffer);
    memmove(registry + place + 1, registry + place, (registered - place) * sizeof(shb_buffer_t *));
    registry[place] = buffer;
    registered++;
    return true;
}

/* False when it is not there. */
static bool take_from_registry(const shb_buffer_t *buffer) {
    size_t place = place_in_registry(buffer);
    if (!is_registered(buffer, place))
        return false;
    registered--;
    memmove(registry + place, registry + place + 1, (registered - place) * sizeof(shb_buffer_t *));
    if (registered == 0) {
        free(registry);
        registry = NULL;
        registry_room = 0;
    }
    return true;
}

shb_buffer_t *shb_buffer_hold(const shb_buffer_t *buffer) {
    pthread_mutex_lock(&registry_lock);
    size_t place = place_in_registry(buffer);
    shb_buffer_t *found = is_registered(buffer, place) ? registry[place] : NULL;
    if (found != NULL)
        found->holds++;
    pthread_mutex_unlock(&registry_lock);
    return found;
}

void shb_buffer_drop(shb_buffer_t *buffer) {
    pthread_mutex_lock(&registry_lock);
    bool last = --buffer->holds == 0;
    pthread_mutex_unlock(&registry_lock);
    if (!last)
        return;
    munmap(buffer->base, (size_t)buffer->places.total_bytes);
    munmap(buffer->waiters, (size_t)buffer->places.waiters_bytes);
    shb_bell_close(buffer);
    close(buffer->fd);
    free(buffer);
}

/* Everything that can fail for want of memory fails here, before the name exists. */
static int reserve(int fd, uint64_t bytes) {
    struct statvfs room;
    struct rlimit limit;
    /* Asked first so that a hopeless request does not fill the file system for a moment. */
    if (fstatvfs(fd, &room) == 0 && room.f_blocks != 0 && bytes / room.f_frsize > room.f_bavail) {
        errno = ENOSPC;
        return SHB_ERR_NO_SPACE;
    }
    /* A file beyond the limit would be answered with a signal that ends the host. */
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && bytes > limit.rlim_cur) {
        errno = EFBIG;
        return SHB_ERR_NO_SPACE;
    }
    if (ftruncate(fd, (off_t)bytes) != 0)
        return errno == EFBIG || errno == ENOSPC ? SHB_ERR_NO_SPACE : SHB_ERR_SYSTEM;
    /* In slices: a signal ends the call early, and a large buffer in one piece might never get through. */
    const uint64_t slice = UINT64_C(16) << 20;
    for (uint64_t at = 0; at < bytes; at += slice) {
        uint64_t part = bytes - at < slice ? bytes - at : slice;
        int error;
        do
            error = posix_fallocate(fd, (off_t)at, (off_t)part);
        while (error == EINTR);
        if (error != 0) {
            errno = error;
            return error == ENOSPC || error == ENOMEM || error == EFBIG ? SHB_ERR_NO_SPACE : SHB_ERR_SYSTEM;
        }
    }
    return SHB_OK;
}

/*
 * Gives the finished file its name, which is the moment from which readers can see it. By the thread's own
 * entry: that of a process whose main thread has ended shows no files.
 */
static int publish(int fd, const char *path) {
    char self[64];
    snprintf(self, sizeof self, "/proc/thread-self/fd/%d", fd);
    return linkat(AT_FDCWD, self, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0 ? SHB_OK
           : errno == EEXIST                                              ? SHB_ERR_EXISTS
                                                                          : SHB_ERR_SYSTEM;
}

/* The same for a buffer, in the place of one that a dead creator has left. */
static int publish_buffer(const shb_buffer_t *buffer) {
    int result = SHB_ERR_EXISTS;
    for (int attempt = 0; attempt < 100 && result == SHB_ERR_EXISTS; attempt++) {
        result = publish(buffer->fd, buffer->path);
        if (result == SHB_ERR_EXISTS && shb_remove_file(buffer->name, false) != SHB_OK)
            break;
    }
    return result;
}

/*
 * A nameless file, so that a creator that dies before it is published leaves nothing behind. The system takes
 * the umask off the mode.
 */
static int make_file(uint64_t bytes, mode_t mode, int *fd, void **base) {
    *base = MAP_FAILED;
    *fd = open(SHB_PATH_PREFIX, O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
    if (*fd < 0)
        return errno == ENOSPC ? SHB_ERR_NO_SPACE : SHB_ERR_SYSTEM;
    int result = reserve(*fd, bytes);
    if (result != SHB_OK)
        return result;
    /*
     * The pages are there; mapping them now keeps some thousand page faults out of the first lap of each track.
     */
    *base = mmap(NULL, (size_t)bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, *fd, 0);
    if (*base == MAP_FAILED)
        return errno == ENOMEM ? SHB_ERR_NO_SPACE : SHB_ERR_SYSTEM;
    return SHB_OK;
}

static void drop_file(uint64_t bytes, int fd, void *base) {
    int saved = errno;
    if (base != MAP_FAILED)
        munmap(base, (size_t)bytes);
    if (fd >= 0)
        close(fd);
    errno = saved;
}

/*
 * The token is in the name, so that a reader that has the buffer finds the waiters that belong to it and no
 * others.
 */
static uint64_t make_token(const shb_buffer_t *buffer) {
    uint64_t token;
    if (getrandom(&token, sizeof token, GRND_NONBLOCK) != (ssize_t)sizeof token)
        token = shb_now_ns() ^ buffer->origin.creator;
    return token;
}

static int make_waiters(shb_buffer_t *buffer, uint64_t token) {
    int fd;
    /* Who may write here may cut the file, and with it the writer: nobody but the creator's user. */
    int result = make_file(buffer->places.waiters_bytes, 0600, &fd, &buffer->waiters);
    if (result == SHB_OK) {
        shb_waiters_header_t *header = buffer->waiters;
        header->magic = SHB_WAITERS_MAGIC;
        header->version = SHB_LAYOUT_VERSION;
        header->header_bytes = sizeof *header;
        header->total_bytes = buffer->places.waiters_bytes;
        header->creator = buffer->origin.creator;
        header->pid_ns = buffer->origin.pid_ns;
        header->time_ns = buffer->origin.time_ns;
        header->token = token;
        shb_reader_table_init(shb_reader_table_at(&buffer->places, buffer->waiters));
        result = publish(fd, buffer->waiters_path);
    }
    drop_file(buffer->places.waiters_bytes, fd, result == SHB_OK ? MAP_FAILED : buffer->waiters);
    return result;
}

static void fill_header(shb_buffer_t *buffer) {
    const shb_geometry_t *g = &buffer->places.geometry;
    shb_header_t *header = buffer->base;
    header->magic = SHB_LAYOUT_MAGIC;
    header->version = SHB_LAYOUT_VERSION;
    header->header_bytes = SHB_PAGE_BYTES;
    header->total_bytes = buffer->places.total_bytes;
    header->creator = buffer->origin.creator;
    header->pid_ns = buffer->origin.pid_ns;
    header->time_ns = buffer->origin.time_ns;
    header->channels = g->channels;
    header->streams = g->streams;
    header->video_bytes = g->video_bytes;
    header->audio_bytes = g->audio_bytes;
    header->video_frames = g->video_frames;
    header->audio_frames = g->audio_frames;
    header->token = make_token(buffer);
    for (uint64_t track = 0; track < buffer->places.tracks; track++) {
        shb_track_view_t view;
        shb_track_by_number(&buffer->places, buffer->base, track, &view);
        atomic_store_explicit(&view.head->clock_offset, SHB_OFFSET_NONE, memory_order_relaxed);
    }
    shb_pulse_beat(buffer);
    atomic_store_explicit(&header->state, SHB_STATE_OPEN, memory_order_release);
}

/* All files; the buffer last, so that a reader that sees it finds the others. */
static int make_files(shb_buffer_t *buffer, mode_t mode, const gid_t *group) {
    const shb_places_t *places = &buffer->places;
    struct stat file;
    int result = make_file(places->total_bytes, mode, &buffer->fd, &buffer->base);
    if (result == SHB_OK && ((group != NULL && fchown(buffer->fd, (uid_t)-1, *group) != 0) || fstat(buffer->fd, &file) != 0))
        result = SHB_ERR_SYSTEM;
    if (result == SHB_OK) {
        buffer->device = file.st_dev;
        buffer->inode = file.st_ino;
        fill_header(buffer);
        uint64_t token = ((const shb_header_t *)buffer->base)->token;
        shb_waiters_path(buffer->name, token, buffer->waiters_path);
        shb_socket_path(token, buffer->socket_path);
        result = make_waiters(buffer, token);
    }
    if (result == SHB_OK) {
        /* With the permissions that the umask has left. */
        shb_bell_open(buffer, file.st_mode & 0777, group);
        result = publish_buffer(buffer);
        if (result != SHB_OK) {
            int saved = errno;
            if (buffer->listener >= 0)
                unlink(buffer->socket_path);
            unlink(buffer->waiters_path);
            shb_bell_close(buffer);
            munmap(buffer->waiters, (size_t)places->waiters_bytes);
            errno = saved;
        }
    }
    if (result != SHB_OK)
        drop_file(places->total_bytes, buffer->fd, buffer->base);
    return result;
}

/*
 * A name that another creator has taken in the meantime is no longer ours to remove. The waiters go last: by
 * their name the socket of a creator that died half-way is found.
 */
static void remove_files(const shb_buffer_t *buffer) {
    struct stat file;
    if (stat(buffer->path, &file) == 0 && file.st_dev == buffer->device && file.st_ino == buffer->inode)
        unlink(buffer->path);
    unlink(buffer->socket_path);
    unlink(buffer->waiters_path);
}

/* Group and others may read at most: whoever may write can spoil the buffer. */
static bool take_options(const shb_create_options_t *given, shb_create_options_t *out) {
    if (given != NULL && !shb_take_struct(given, out, sizeof *out))
        return false;
    if (out->mode == 0)
        out->mode = 0600;
    return (out->mode & ~(uint32_t)0644) == 0 && (out->mode & 0600) == 0600 && out->group_given <= 1;
}

int shb_create_with(const char *name, const shb_geometry_t *geometry, const shb_create_options_t *options, shb_buffer_t **out) {
    char full[SHB_NAME_MAX + 2];
    shb_places_t places;
    shb_create_options_t wanted = SHB_INIT(shb_create_options_t);
    if (out == NULL || !shb_full_name(name, full) || !shb_places_from_geometry(geometry, &places) ||
        !take_options(options, &wanted))
        return SHB_ERR_ARG;
    shb_buffer_t *buffer = calloc(1, sizeof *buffer);
    if (buffer == NULL)
        return SHB_ERR_SYSTEM;
    memcpy(buffer->name, full, sizeof full);
    shb_path(full, buffer->path);
    buffer->places = places;
    buffer->holds = 1;
    buffer->listener = buffer->bell = -1;
    buffer->origin = shb_origin_self();
    const gid_t group = wanted.group;
    int result = make_files(buffer, wanted.mode, wanted.group_given != 0 ? &group : NULL);
    if (result != SHB_OK) {
        free(buffer);
        return result;
    }
    pthread_mutex_lock(&registry_lock);
    bool entered = enter_in_registry(buffer);
    pthread_mutex_unlock(&registry_lock);
    result = entered ? shb_pulse_add_buffer(buffer) : SHB_ERR_SYSTEM;
    if (result != SHB_OK) {
        int saved = errno;
        pthread_mutex_lock(&registry_lock);
        take_from_registry(buffer);
        pthread_mutex_unlock(&registry_lock);
        remove_files(buffer);
        shb_buffer_drop(buffer);
        errno = saved;
        return result;
    }
    shb_sweep_waiters(full);
    *out = buffer;
    return SHB_OK;
}

int shb_create(const char *name, const shb_geometry_t *geometry, shb_buffer_t **out) {
    return shb_create_with(name, geometry, NULL, out);
}

int shb_room(const shb_geometry_t *geometry, uint64_t *needed, uint64_t *available) {
    shb_places_t places;
    struct statvfs room;
    if (needed == NULL || available == NULL || !shb_places_from_geometry(geometry, &places))
        return SHB_ERR_ARG;
    if (statvfs(SHB_PATH_PREFIX, &room) != 0)
        return SHB_ERR_SYSTEM;
    *needed = places.total_bytes + places.waiters_bytes;
    /* Without blocks the file system has no limit of its own. */
    *available = room.f_blocks != 0 ? (uint64_t)room.f_bavail * room.f_frsize : UINT64_MAX;
    return SHB_OK;
}

void shb_destroy(shb_buffer_t *buffer) {
    if (buffer == NULL)
        return;
    pthread_mutex_lock(&registry_lock);
    bool known = take_from_registry(buffer);
    pthread_mutex_unlock(&registry_lock);
    if (!known)
        return;
    /* A forked child that ends tidily must not take its parent's buffer away. */
    if (buffer->origin.creator == shb_identity_self()) {
        remove_files(buffer);
        shb_header_t *header = buffer->base;
        atomic_store_explicit(&header->state, SHB_STATE_DESTROYED, memory_order_release);
        for (uint64_t track = 0; track < buffer->places.tracks; track++)
            shb_wake(&shb_waiters_at(buffer->waiters, track)->wake);
    }
    shb_pulse_remove_buffer(buffer);
    shb_buffer_drop(buffer);
}

const char *shb_name(const shb_buffer_t *buffer) {
    return buffer == NULL ? NULL : buffer->name;
}

const char *shb_file(const shb_buffer_t *buffer, unsigned index) {
    if (buffer == NULL)
        return NULL;
    switch (index) {
        case 0:
            return buffer->path;
        case 1:
            return buffer->waiters_path;
        case 2:
            return buffer->socket_path;
        default:
            return NULL;
    }
}

int shb_set_stall_watch(shb_buffer_t *buffer, uint32_t ms) {
    shb_buffer_t *held = ms <= UINT32_C(1) << 31 ? shb_buffer_hold(buffer) : NULL;
    if (held == NULL)
        return SHB_ERR_ARG;
    atomic_store_explicit(&held->stall_ms, ms, memory_order_relaxed);
    shb_buffer_drop(held);
    return SHB_OK;
}

uint32_t shb_get_stall_watch(const shb_buffer_t *buffer) {
    shb_buffer_t *held = shb_buffer_hold(buffer);
    if (held == NULL)
        return 0;
    uint32_t ms = atomic_load_explicit(&held->stall_ms, memory_order_relaxed);
    shb_buffer_drop(held);
    return ms;
}

int shb_get_geometry(const shb_buffer_t *buffer, shb_geometry_t *out) {
    shb_buffer_t *held = out == NULL || !shb_can_give(out, sizeof *out) ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_give_struct(out, &held->places.geometry, sizeof *out);
    shb_buffer_drop(held);
    return SHB_OK;
}

int shb_buffer_stats(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out) {
    shb_buffer_t *held = out == NULL || !shb_can_give(out, sizeof *out) ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_track_view_t view;
    bool inside = shb_track_at(&held->places, held->base, channel, stream, kind, &view);
    if (inside) {
        shb_stats_t stats;
        shb_track_stats(&view, shb_now_ns(), true, held->origin.creator, &stats);
        shb_give_struct(out, &stats, sizeof stats);
    }
    shb_buffer_drop(held);
    return inside ? SHB_OK : SHB_ERR_ARG;
}

int shb_buffer_description(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind,
                           shb_description_t *out) {
    shb_buffer_t *held = out == NULL || !shb_can_give(out, sizeof *out) ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_track_view_t view;
    shb_description_t description;
    int result = SHB_ERR_ARG;
    if (shb_track_at(&held->places, held->base, channel, stream, kind, &view))
        result = shb_track_newest_description(&view, &description, NULL);
    if (result == SHB_OK)
        shb_give_struct(out, &description, sizeof description);
    shb_buffer_drop(held);
    return result;
}

int shb_buffer_readers(const shb_buffer_t *buffer, shb_reader_info_t *out, size_t capacity, size_t *count) {
    if (count == NULL || (capacity > 0 && (out == NULL || !shb_can_give(out, sizeof *out))))
        return SHB_ERR_ARG;
    shb_buffer_t *held = shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    const shb_reader_list_t list = {.places = &held->places,
                                    .base = held->base,
                                    .table = shb_reader_table_at(&held->places, held->waiters),
                                    .now = shb_now_ns()};
    *count = shb_reader_list(&list, out, capacity);
    shb_buffer_drop(held);
    return SHB_OK;
}

int shb_set_presence(shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_presence_t presence) {
    bool known = presence == SHB_PRESENCE_UNKNOWN || presence == SHB_PRESENCE_EXPECTED || presence == SHB_PRESENCE_ABSENT;
    shb_buffer_t *held = known ? shb_buffer_hold(buffer) : NULL;
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_track_view_t view;
    bool inside = shb_track_at(&held->places, held->base, channel, stream, kind, &view);
    if (inside)
        atomic_store_explicit(&view.head->presence, (uint32_t)presence, memory_order_relaxed);
    shb_buffer_drop(held);
    return inside ? SHB_OK : SHB_ERR_ARG;
}
