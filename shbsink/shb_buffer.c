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
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

/*
 * Every buffer of this process. The pointer travels through a host and an element property before it comes back here, so it
 * is looked up and never followed before it has been found.
 */
static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static shb_buffer_t *registry;

shb_buffer_t *shb_buffer_hold(const shb_buffer_t *buffer) {
    pthread_mutex_lock(&registry_lock);
    shb_buffer_t *at = registry;
    while (at != NULL && at != buffer)
        at = at->next;
    if (at != NULL)
        at->holds++;
    pthread_mutex_unlock(&registry_lock);
    return at;
}

void shb_buffer_drop(shb_buffer_t *buffer) {
    pthread_mutex_lock(&registry_lock);
    bool last = --buffer->holds == 0;
    pthread_mutex_unlock(&registry_lock);
    if (!last)
        return;
    munmap(buffer->base, (size_t)buffer->places.total_bytes);
    munmap(buffer->waiters, (size_t)buffer->places.waiters_bytes);
    close(buffer->fd);
    free(buffer);
}

/* Everything that can fail for want of memory fails here, before the name exists. */
static int reserve(int fd, uint64_t bytes) {
    struct statvfs room;
    /* Asked first so that a hopeless request does not fill the file system for a moment. */
    if (fstatvfs(fd, &room) == 0 && room.f_blocks != 0 && bytes / room.f_frsize > room.f_bavail)
        return SHB_ERR_NO_SPACE;
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

/* Gives the finished file its name, which is the moment from which readers can see it. */
static int publish(int fd, const char *path) {
    char self[64];
    snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
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

/* A nameless file, so that a creator that dies before it is published leaves nothing behind. */
static int make_file(uint64_t bytes, mode_t mode, int *fd, void **base) {
    *base = MAP_FAILED;
    *fd = open(SHB_PATH_PREFIX, O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
    if (*fd < 0)
        return errno == ENOSPC ? SHB_ERR_NO_SPACE : SHB_ERR_SYSTEM;
    int result = reserve(*fd, bytes);
    if (result != SHB_OK)
        return result;
    /* The pages are there; mapping them now keeps some thousand page faults out of the first lap of each track. */
    *base = mmap(NULL, (size_t)bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, *fd, 0);
    /* Whatever the creator's umask says. */
    if (*base == MAP_FAILED || fchmod(*fd, mode) != 0)
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

/* The token is in the name, so that a reader that has the buffer finds the waiters that belong to it and no others. */
static uint64_t make_token(const shb_buffer_t *buffer) {
    uint64_t token;
    if (getrandom(&token, sizeof token, GRND_NONBLOCK) != (ssize_t)sizeof token)
        token = shb_now_ns() ^ buffer->creator;
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
        header->creator = buffer->creator;
        header->token = token;
        shb_waiters_path(buffer->name, token, buffer->waiters_path);
        result = publish(fd, buffer->waiters_path);
    }
    drop_file(buffer->places.waiters_bytes, fd, result == SHB_OK ? MAP_FAILED : buffer->waiters);
    return result;
}

/* Both files; the waiters first, so that a reader that sees the buffer finds them. */
static int make_files(shb_buffer_t *buffer) {
    const shb_places_t *places = &buffer->places;
    /* Readers of other users may look. */
    int result = make_file(places->total_bytes, 0644, &buffer->fd, &buffer->base);
    if (result == SHB_OK) {
        const shb_geometry_t *g = &places->geometry;
        shb_header_t *header = buffer->base;
        header->magic = SHB_LAYOUT_MAGIC;
        header->version = SHB_LAYOUT_VERSION;
        header->header_bytes = SHB_PAGE_BYTES;
        header->total_bytes = places->total_bytes;
        header->creator = buffer->creator;
        header->channels = g->channels;
        header->streams = g->streams;
        header->video_bytes = g->video_bytes;
        header->audio_bytes = g->audio_bytes;
        header->video_frames = g->video_frames;
        header->audio_frames = g->audio_frames;
        header->waiters = make_token(buffer);
        atomic_store_explicit(&header->heartbeat_ns, shb_now_ns(), memory_order_relaxed);
        atomic_store_explicit(&header->state, SHB_STATE_OPEN, memory_order_release);
        result = make_waiters(buffer, header->waiters);
        if (result == SHB_OK) {
            result = publish_buffer(buffer);
            if (result != SHB_OK) {
                int saved = errno;
                unlink(buffer->waiters_path);
                munmap(buffer->waiters, (size_t)places->waiters_bytes);
                errno = saved;
            }
        }
    }
    struct stat file;
    if (result == SHB_OK && fstat(buffer->fd, &file) == 0) {
        buffer->device = file.st_dev;
        buffer->inode = file.st_ino;
    }
    if (result != SHB_OK)
        drop_file(places->total_bytes, buffer->fd, buffer->base);
    return result;
}

/* A name that another creator has taken in the meantime is no longer ours to remove. */
static void remove_files(const shb_buffer_t *buffer) {
    struct stat file;
    if (stat(buffer->path, &file) == 0 && file.st_dev == buffer->device && file.st_ino == buffer->inode)
        unlink(buffer->path);
    unlink(buffer->waiters_path);
}

int shb_create(const char *name, const shb_geometry_t *geometry, shb_buffer_t **out) {
    char full[SHB_NAME_MAX + 2];
    shb_places_t places;
    if (out == NULL || !shb_full_name(name, full) || !shb_places_from_geometry(geometry, &places))
        return SHB_ERR_ARG;
    shb_buffer_t *buffer = calloc(1, sizeof *buffer);
    if (buffer == NULL)
        return SHB_ERR_SYSTEM;
    memcpy(buffer->name, full, sizeof full);
    shb_path(full, buffer->path);
    buffer->places = places;
    buffer->holds = 1;
    buffer->creator = shb_identity_self();
    int result = make_files(buffer);
    if (result != SHB_OK) {
        free(buffer);
        return result;
    }
    result = shb_pulse_add_buffer(buffer);
    if (result != SHB_OK) {
        int saved = errno;
        remove_files(buffer);
        shb_buffer_drop(buffer);
        errno = saved;
        return result;
    }
    shb_sweep_waiters(full);
    pthread_mutex_lock(&registry_lock);
    buffer->next = registry;
    registry = buffer;
    pthread_mutex_unlock(&registry_lock);
    *out = buffer;
    return SHB_OK;
}

void shb_destroy(shb_buffer_t *buffer) {
    if (buffer == NULL)
        return;
    pthread_mutex_lock(&registry_lock);
    shb_buffer_t **at = &registry;
    while (*at != NULL && *at != buffer)
        at = &(*at)->next;
    bool known = *at != NULL;
    if (known)
        *at = buffer->next;
    pthread_mutex_unlock(&registry_lock);
    if (!known)
        return;
    shb_pulse_remove_buffer(buffer);
    /* A forked child that ends tidily must not take its parent's buffer away. */
    if (buffer->creator == shb_identity_self()) {
        remove_files(buffer);
        shb_header_t *header = buffer->base;
        atomic_store_explicit(&header->state, SHB_STATE_DESTROYED, memory_order_release);
        const shb_geometry_t *g = &buffer->places.geometry;
        for (uint32_t channel = 0; channel < g->channels; channel++)
            for (uint32_t stream = 0; stream < g->streams; stream++)
                for (int kind = SHB_VIDEO; kind <= SHB_AUDIO; kind++) {
                    shb_track_view_t view;
                    if (shb_track_at(&buffer->places, buffer->base, channel, stream, (shb_kind_t)kind, &view))
                        shb_wake(&view.head->wake);
                }
    }
    shb_buffer_drop(buffer);
}

const char *shb_name(const shb_buffer_t *buffer) {
    return buffer == NULL ? NULL : buffer->name;
}

const char *shb_file(const shb_buffer_t *buffer, unsigned index) {
    if (buffer == NULL || index > 1)
        return NULL;
    return index == 0 ? buffer->path : buffer->waiters_path;
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
    shb_buffer_t *held = out == NULL ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    *out = held->places.geometry;
    shb_buffer_drop(held);
    return SHB_OK;
}

int shb_buffer_stats(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_stats_t *out) {
    shb_buffer_t *held = out == NULL ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_track_view_t view;
    bool inside = shb_track_at(&held->places, held->base, channel, stream, kind, &view);
    if (inside)
        shb_track_stats(&view, out);
    shb_buffer_drop(held);
    return inside ? SHB_OK : SHB_ERR_ARG;
}

int shb_buffer_description(const shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind,
                           shb_description_t *out) {
    shb_buffer_t *held = out == NULL ? NULL : shb_buffer_hold(buffer);
    if (held == NULL)
        return SHB_ERR_ARG;
    shb_track_view_t view;
    int result = SHB_ERR_ARG;
    if (shb_track_at(&held->places, held->base, channel, stream, kind, &view))
        result = shb_track_newest_description(&view, out);
    shb_buffer_drop(held);
    return result;
}
