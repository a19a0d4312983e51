/*
 * A reader's socket to the creator: for readers that may not touch the file of waiters, and for descriptors
 * that an event loop can wait for. See shb_bell.c for the other end.
 */
#define _GNU_SOURCE /* struct ucred */

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "shb_reader.h"

static int connect_to(const char *path, uid_t owner) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    struct ucred peer;
    socklen_t size = sizeof peer;
    memcpy(address.sun_path, path, strlen(path) + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    /* Nobody but the buffer's owner has anything to say about it. */
    if (connect(fd, (struct sockaddr *)&address, sizeof address) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || (peer.uid != owner && peer.uid != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

static bool connected(shb_reader_t *reader) {
    if (reader->link >= 0)
        return true;
    uint64_t now = shb_now_ns();
    if (reader->linked_ns != 0 && now - reader->linked_ns < SHB_CONNECT_NS)
        return false;
    reader->linked_ns = now;
    reader->called = reader->watched = false;
    char path[SHB_PATH_MAX];
    shb_socket_path(reader->map->base->token, path);
    reader->link = connect_to(path, reader->map->owner);
    return reader->link >= 0;
}

void shb_call_end(shb_reader_t *reader) {
    if (reader->link >= 0)
        close(reader->link);
    reader->link = -1;
    reader->called = false;
}

bool shb_call_out(shb_reader_t *reader) {
    if (!connected(reader))
        return false;
    if (reader->called)
        return true;
    const shb_call_t call = {.track = reader->view.number, .seen = reader->next};
    if (send(reader->link, &call, sizeof call, MSG_DONTWAIT | MSG_NOSIGNAL) == (ssize_t)sizeof call) {
        reader->called = true;
        return true;
    }
    if (errno != EAGAIN && errno != EINTR) {
        shb_call_end(reader);
        reader->suspect = true;
    }
    return false;
}

void shb_call_drain(shb_reader_t *reader) {
    char bytes[16];
    while (reader->link >= 0) {
        ssize_t got = recv(reader->link, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got > 0) {
            reader->called = false;
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            /* The creator has gone, or has no room for us. */
            shb_call_end(reader);
            reader->suspect = true;
        } else if (errno == EAGAIN) {
            return;
        }
    }
}

static struct timespec timespec_of(uint64_t ns) {
    const struct timespec result = {.tv_sec = (time_t)(ns / 1000000000), .tv_nsec = (long)(ns % 1000000000)};
    return result;
}

void shb_call_wait(shb_reader_t *reader, uint64_t ns) {
    if (shb_call_out(reader)) {
        const struct timespec timeout = timespec_of(ns);
        struct pollfd socket = {.fd = reader->link, .events = POLLIN};
        if (ppoll(&socket, 1, &timeout, NULL) > 0)
            shb_call_drain(reader);
    } else {
        const struct timespec pause = timespec_of(ns < SHB_UNWOKEN_LOOK_NS ? ns : SHB_UNWOKEN_LOOK_NS);
        nanosleep(&pause, NULL);
    }
}
