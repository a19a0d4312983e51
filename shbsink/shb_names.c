/*
 * The names that buffers have in /dev/shm: finding, telling and removing what stands there, whoever made it.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "shb_internal.h"

void shb_info_from_header(const char *full, const shb_header_t *header, uint64_t file_bytes, shb_info_t *out) {
    memset(out, 0, sizeof *out);
    memcpy(out->name, full, strnlen(full, sizeof out->name - 1));
    out->version = header->version;
    out->creator_pid = (int32_t)shb_identity_pid(header->creator);
    out->alive = shb_identity_alive(header->creator);
    shb_places_t places;
    if (shb_check_header(header, file_bytes, &places) != SHB_OK)
        return;
    if (atomic_load_explicit(&header->state, memory_order_acquire) != SHB_STATE_OPEN)
        out->alive = 0;
    uint64_t beat = atomic_load_explicit(&header->heartbeat_ns, memory_order_relaxed);
    uint64_t now = shb_now_ns();
    out->heartbeat_age_ns = now > beat ? now - beat : 0;
    out->total_bytes = places.total_bytes + places.waiters_bytes;
    out->geometry = places.geometry;
}

/* Opens what may be a buffer and takes its header; -1 when there is nothing of that kind. Never follows links, never waits. */
static int open_header(const char *path, shb_header_t *header, struct stat *file) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return -1;
    if (fstat(fd, file) != 0 || !S_ISREG(file->st_mode) || pread(fd, header, sizeof *header, 0) != (ssize_t)sizeof *header ||
        header->magic != SHB_LAYOUT_MAGIC) {
        close(fd);
        errno = 0;
        return -1;
    }
    return fd;
}

/* Whoever may read the file may lock it, and keep it so: who does that holds nobody up for good. */
static bool lock_soon(int fd) {
    const struct timespec pause = {.tv_nsec = 10000000};
    for (int attempt = 0; attempt < 100; attempt++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return false;
        nanosleep(&pause, NULL);
    }
    return false;
}

/*
 * The lock decides between several who find the same corpse: only who holds it while the path still leads to that file removes
 * it.
 */
int shb_remove_file(const char *full, bool force) {
    char path[SHB_PATH_MAX];
    shb_header_t header;
    struct stat opened, named;
    shb_path(full, path);
    int fd = open_header(path, &header, &opened);
    if (fd < 0)
        return errno == ENOENT ? SHB_OK : errno == 0 || errno == ELOOP ? SHB_ERR_VERSION : SHB_ERR_SYSTEM;
    int result = SHB_ERR_SYSTEM;
    if (lock_soon(fd)) {
        bool ours = stat(path, &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
        if (ours && !force && shb_identity_alive(header.creator))
            result = SHB_ERR_EXISTS;
        else if (!ours || unlink(path) == 0)
            result = SHB_OK;
    }
    int saved = errno;
    if (result == SHB_OK && header.version == SHB_LAYOUT_VERSION) {
        shb_waiters_path(full, header.waiters, path);
        unlink(path);
    }
    close(fd);
    errno = saved;
    return result;
}

void shb_sweep_waiters(const char *full) {
    const char *name = full + 1;
    DIR *folder = opendir(SHB_PATH_PREFIX);
    if (folder == NULL)
        return;
    for (const struct dirent *entry = readdir(folder); entry != NULL; entry = readdir(folder)) {
        const char *plus = strchr(entry->d_name, '+');
        size_t length = plus != NULL ? (size_t)(plus - entry->d_name) : 0;
        if (length != strlen(name) || memcmp(entry->d_name, name, length) != 0)
            continue;
        shb_waiters_header_t header;
        int fd = openat(dirfd(folder), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        if (read(fd, &header, sizeof header) == (ssize_t)sizeof header && header.magic == SHB_WAITERS_MAGIC &&
            !shb_identity_alive(header.creator))
            unlinkat(dirfd(folder), entry->d_name, 0);
        close(fd);
    }
    closedir(folder);
}

int shb_remove(const char *name, int force) {
    char full[SHB_NAME_MAX + 2];
    char path[SHB_PATH_MAX];
    struct stat file;
    if (!shb_full_name(name, full))
        return SHB_ERR_ARG;
    shb_path(full, path);
    int result = SHB_ERR_NOT_FOUND;
    if (lstat(path, &file) == 0)
        result = shb_remove_file(full, force != 0);
    else if (errno != ENOENT)
        return SHB_ERR_SYSTEM;
    else
        /* A creator that died half-way has left waiters without a buffer. */
        shb_sweep_waiters(full);
    if (result == SHB_OK)
        shb_sweep_waiters(full);
    return result;
}

static int by_name(const void *a, const void *b) {
    return strcmp(((const shb_info_t *)a)->name, ((const shb_info_t *)b)->name);
}

int shb_list(shb_info_t *out, size_t capacity, size_t *count) {
    if (count == NULL || (out == NULL && capacity > 0))
        return SHB_ERR_ARG;
    DIR *folder = opendir(SHB_PATH_PREFIX);
    if (folder == NULL)
        return SHB_ERR_SYSTEM;
    /* All of them, since the first by name may come last. */
    shb_info_t *all = NULL;
    size_t found = 0, room = 0;
    int result = SHB_OK;
    for (const struct dirent *entry = readdir(folder); entry != NULL; entry = readdir(folder)) {
        char full[SHB_NAME_MAX + 2], path[SHB_PATH_MAX];
        shb_header_t header;
        struct stat file;
        if (!shb_full_name(entry->d_name, full))
            continue;
        shb_path(full, path);
        int fd = open_header(path, &header, &file);
        if (fd < 0)
            continue;
        close(fd);
        if (found == room) {
            room = room == 0 ? 16 : room * 2;
            shb_info_t *more = realloc(all, room * sizeof *all);
            if (more == NULL) {
                result = SHB_ERR_SYSTEM;
                break;
            }
            all = more;
        }
        shb_info_from_header(full, &header, (uint64_t)file.st_size, &all[found++]);
    }
    closedir(folder);
    if (result == SHB_OK) {
        if (found > 0)
            qsort(all, found, sizeof *all, by_name);
        if (found > 0 && capacity > 0)
            memcpy(out, all, (found < capacity ? found : capacity) * sizeof *all);
        *count = found;
    }
    free(all);
    return result;
}
