/*
 * Shows the programs what the kernel says of them. qemu answers for /proc/PID/stat of the process itself, with another start time than
 * others see, so that a process is not taken for the one that it is.
 */
#define _GNU_SOURCE /* O_PATH */

#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <unistd.h>

static int open_really(const char *path, int flags, mode_t mode) {
    static const char proc[] = "/proc/";
    if (strncmp(path, proc, sizeof proc - 1) != 0)
        return openat(AT_FDCWD, path, flags, mode);
    /* It knows its own files by their whole paths. */
    int directory = openat(AT_FDCWD, proc, O_PATH | O_DIRECTORY | O_CLOEXEC);
    int fd = openat(directory, path + sizeof proc - 1, flags, mode);
    close(directory);
    return fd;
}

/* Comes before that of the C library. */
int open(const char *path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(list, mode_t) : 0;
    va_end(list);
    return open_really(path, flags, mode);
}
