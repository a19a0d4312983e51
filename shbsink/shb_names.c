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

void shb_info_from_header(const char *full, shb_header_t *header, const struct stat *file, shb_info_t *out) {
    *out = SHB_INIT(shb_info_t);
    memcpy(out->name, full, strnlen(full, sizeof out->name - 1));
    out->version = header->version;
    out->creator_pid = (int32_t)shb_identity_pid(header->creator);
    out->owner = file->st_uid;
    out->group = file->st_gid;
    out->mode = file->st_mode & 0777;
    shb_places_t places;
    if (shb_check_header(header, (uint64_t)file->st_size, &places) != SHB_OK)
        return;
    out->heartbeat_age_ns = shb_heartbeat_age(header);
    out->total_bytes = places.total_bytes + places.waiters_bytes;
    out->geometry = places.geometry;
}

/*
 * Opens what may be a buffer and takes its header; -1 when there is nothing of that kind. Never follows links,
 * never waits.
 */
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

static bool is_same(const struct stat *a, const struct stat *b) {
    return a->st_ino == b->st_ino && a->st_dev == b->st_dev;
}

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
 * Locks what decides between several who find the same corpse. That is its file of waiters, which nobody but
 * its owner can open: a lock on the buffer itself could be held for good by whoever may read it. A descriptor;
 * -1: somebody holds it; -2: there is none, and what has its name is another user's, who must not hold anybody
 * up.
 */
static int lock_corpse(const char *path, uid_t owner) {
    struct stat file;
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && errno == ENOENT)
        fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return -2;
    if (fstat(fd, &file) != 0 || !S_ISREG(file.st_mode) || (file.st_uid != owner && file.st_uid != geteuid())) {
        close(fd);
        return -2;
    }
    if (lock_soon(fd))
        return fd;
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
}

/* Only who holds the lock while the path still leads to that file removes it. */
int shb_remove_file(const char *full, bool force) {
    char path[SHB_PATH_MAX], lock_path[SHB_PATH_MAX], socket_path[SHB_PATH_MAX];
    shb_header_t header;
    struct stat opened, named;
    shb_path(full, path);
    int fd = open_header(path, &header, &opened);
    if (fd < 0)
        return errno == ENOENT ? SHB_OK : errno == 0 || errno == ELOOP ? SHB_ERR_VERSION : SHB_ERR_SYSTEM;
    close(fd);
    /* A buffer that lives is left alone without leaving a trace beside it. */
    if (!force && shb_creator_alive(&header))
        return SHB_ERR_EXISTS;
    /* The token stands where it stood in version 2; others get a name that none of them has. */
    shb_waiters_path(full, header.version == 2 || header.version == SHB_LAYOUT_VERSION ? header.token : 0, lock_path);
    int lock = lock_corpse(lock_path, opened.st_uid);
    if (lock == -1)
        return SHB_ERR_SYSTEM;
    int result = SHB_OK;
    if (stat(path, &named) == 0 && is_same(&named, &opened) && unlink(path) != 0 && errno != ENOENT)
        result = SHB_ERR_SYSTEM;
    int saved = errno;
    /* The socket before the waiters: by their name it is found by whoever goes on where this one died. */
    if (result == SHB_OK && header.version == SHB_LAYOUT_VERSION) {
        shb_socket_path(header.token, socket_path);
        unlink(socket_path);
    }
    if (result == SHB_OK || lock >= 0) {
        struct stat locked;
        /*
         * With a buffer that could not be removed, what belongs to it stays, but for a lock that was made for
         * this.
         */
        if (result == SHB_OK || (fstat(lock, &locked) == 0 && locked.st_size == 0))
            unlink(lock_path);
    }
    if (lock >= 0)
        close(lock);
    errno = saved;
    return result;
}

/* One without a buffer has been left half-way, or is of a creator that is about to give its buffer the name. */
static bool is_orphan(const shb_waiters_header_t *header, const struct stat *file) {
    const time_t grace = 5;
    if (header->magic != SHB_WAITERS_MAGIC)
        return false;
    shb_origin_t origin = {.creator = header->creator};
    if (header->version == SHB_LAYOUT_VERSION) {
        origin.pid_ns = header->pid_ns;
        origin.time_ns = header->time_ns;
    }
    switch (shb_origin_life(&origin)) {
        case SHB_LIFE_GONE:
            return true;
        case SHB_LIFE_ALIVE:
            return false;
        case SHB_LIFE_UNKNOWN:
            break;
    }
    return time(NULL) - file->st_ctime > grace;
}

/* The token of the buffer that has the name now, 0 when there is none. */
static uint64_t token_in_use(const char *full) {
    char path[SHB_PATH_MAX];
    shb_header_t header;
    struct stat file;
    shb_path(full, path);
    int fd = open_header(path, &header, &file);
    if (fd < 0)
        return 0;
    close(fd);
    return header.version == 2 || header.version == SHB_LAYOUT_VERSION ? header.token : 0;
}

void shb_sweep_waiters(const char *full) {
    const char *name = full + 1;
    const uint64_t used = token_in_use(full);
    DIR *folder = opendir(SHB_PATH_PREFIX);
    if (folder == NULL)
        return;
    for (const struct dirent *entry = readdir(folder); entry != NULL; entry = readdir(folder)) {
        const char *plus = strchr(entry->d_name, '+');
        size_t length = plus != NULL ? (size_t)(plus - entry->d_name) : 0;
        if (length != strlen(name) || memcmp(entry->d_name, name, length) != 0)
            continue;
        shb_waiters_header_t header;
        struct stat file;
        int fd = openat(dirfd(folder), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        if (fstat(fd, &file) == 0 && read(fd, &header, sizeof header) == (ssize_t)sizeof header &&
            (used == 0 || header.token != used) && is_orphan(&header, &file)) {
            char socket_path[SHB_PATH_MAX];
            shb_socket_path(header.token, socket_path);
            unlink(socket_path);
            unlinkat(dirfd(folder), entry->d_name, 0);
        }
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

/* Exactly, with whatever system calls that takes. Older layouts do not say where their creator was. */
static void find_creator(shb_header_t *header, shb_info_t *info) {
    const shb_origin_t origin = shb_origin_of(header);
    bool closed = info->geometry.channels != 0 && atomic_load_explicit(&header->state, memory_order_acquire) != SHB_STATE_OPEN;
    info->pid_is_ours = origin.pid_ns == 0 || shb_origin_is_near(&origin);
    info->alive = !closed && shb_creator_alive(header);
}

/* Entries are as far apart as the caller's header says. */
static void give_all(shb_info_t *out, const shb_info_t *all, size_t count) {
    uint32_t stride = count > 0 ? out->struct_size : 0;
    for (size_t i = 0; i < count; i++) {
        unsigned char *to = (unsigned char *)out + i * stride;
        memcpy(to, &stride, sizeof stride);
        shb_give_struct(to, &all[i], sizeof *all);
    }
}

int shb_list(shb_info_t *out, size_t capacity, size_t *count) {
    if (count == NULL || (out == NULL && capacity > 0) || (capacity > 0 && !shb_can_give(out, sizeof *out)))
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
        shb_info_t *info = &all[found++];
        shb_info_from_header(full, &header, &file, info);
        find_creator(&header, info);
    }
    closedir(folder);
    if (result == SHB_OK) {
        if (found > 0)
            qsort(all, found, sizeof *all, by_name);
        give_all(out, all, found < capacity ? found : capacity);
        *count = found;
    }
    free(all);
    return result;
}
