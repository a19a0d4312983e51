/*
 * Readers that may not touch the file of waiters, and those in the event loop of a host, are woken by a socket
 * each. They say which frame they have seen last; once there is another one they get a byte. A writer does no
 * more for all of them than to ring a bell, one system call; the rest is done by the pulse.
 */
#define _GNU_SOURCE /* accept4, struct ucred */

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "shb_buffer.h"

#define BACKLOG 64
/* Nobody can take all descriptors of a host. */
#define MAX_CONNECTIONS 1024
#define MAX_CONNECTIONS_OF_OTHERS 64 /* of each other user */

static int open_listener(const char *path, mode_t mode, const gid_t *group) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    memcpy(address.sun_path, path, strlen(path) + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, (struct sockaddr *)&address, sizeof address) != 0) {
        close(fd);
        return -1;
    }
    /* Connecting takes the right to write, which bind() leaves to nobody else under a usual umask. */
    mode_t connect_mode = mode | (mode & 0444) >> 1;
    if ((group != NULL && chown(path, (uid_t)-1, *group) != 0) || chmod(path, connect_mode) != 0 || listen(fd, BACKLOG) != 0) {
        close(fd);
        unlink(path);
        return -1;
    }
    return fd;
}

void shb_bell_open(shb_buffer_t *buffer, mode_t mode, const gid_t *group) {
    buffer->listener = buffer->bell = -1;
    buffer->called = calloc(buffer->places.tracks, sizeof *buffer->called);
    if (buffer->called == NULL)
        return;
    buffer->bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (buffer->bell >= 0)
        buffer->listener = open_listener(buffer->socket_path, mode, group);
}

void shb_bell_close(shb_buffer_t *buffer) {
    shb_bell_forget(buffer);
    free(buffer->called);
    buffer->called = NULL;
}

void shb_bell_forget(shb_buffer_t *buffer) {
    while (buffer->connections != NULL) {
        shb_connection_t *connection = buffer->connections;
        buffer->connections = connection->next;
        close(connection->fd);
        free(connection);
    }
    buffer->count = 0;
    if (buffer->listener >= 0)
        close(buffer->listener);
    if (buffer->bell >= 0)
        close(buffer->bell);
    buffer->listener = buffer->bell = -1;
}

void shb_bell_ring(shb_buffer_t *buffer, uint64_t track) {
    /*
     * The writer has added to `wake` before, and the pulse adds 0 to it between setting this and looking at the
     * frames: in whatever order they come, one of them sees what the other did.
     */
    if (buffer->called == NULL || !atomic_load_explicit(&buffer->called[track], memory_order_relaxed) ||
        !atomic_exchange_explicit(&buffer->called[track], false, memory_order_relaxed))
        return;
    const uint64_t one = 1;
    /* It fails only when the bell is ringing as loud as it can. */
    ssize_t ignored = write(buffer->bell, &one, sizeof one);
    (void)ignored;
}

/* ---- On the pulse ---------------------------------------------------------------------------------------------------- */

static void watch(int epoll, int fd, shb_watch_t *data) {
    struct epoll_event event = {.events = EPOLLIN, .data.ptr = data};
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

void shb_bell_watch(shb_buffer_t *buffer, int epoll) {
    if (buffer->listener < 0)
        return;
    buffer->listener_watch.what = SHB_WATCH_LISTENER;
    buffer->listener_watch.buffer = buffer;
    watch(epoll, buffer->listener, &buffer->listener_watch);
    buffer->bell_watch.what = SHB_WATCH_BELL;
    buffer->bell_watch.buffer = buffer;
    watch(epoll, buffer->bell, &buffer->bell_watch);
}

static void close_connection(shb_connection_t *connection, int epoll) {
    shb_connection_t **at = &connection->watch.buffer->connections;
    while (*at != connection)
        at = &(*at)->next;
    *at = connection->next;
    connection->watch.buffer->count--;
    epoll_ctl(epoll, EPOLL_CTL_DEL, connection->fd, NULL);
    close(connection->fd);
    free(connection);
}

/* Who is connected learns of the end by that of its connection. */
void shb_bell_unwatch(shb_buffer_t *buffer, int epoll) {
    while (buffer->connections != NULL)
        close_connection(buffer->connections, epoll);
    if (buffer->listener < 0)
        return;
    epoll_ctl(epoll, EPOLL_CTL_DEL, buffer->listener, NULL);
    epoll_ctl(epoll, EPOLL_CTL_DEL, buffer->bell, NULL);
    close(buffer->listener);
    buffer->listener = -1;
}

static void wake_if_due(shb_connection_t *connection) {
    shb_buffer_t *buffer = connection->watch.buffer;
    shb_track_view_t view;
    if (!connection->asked)
        return;
    shb_track_by_number(&buffer->places, buffer->base, connection->call.track, &view);
    if (atomic_load_explicit(&view.head->head, memory_order_acquire) == connection->call.seen) {
        atomic_store_explicit(&buffer->called[connection->call.track], true, memory_order_relaxed);
        atomic_fetch_add_explicit(&shb_waiters_at(buffer->waiters, view.number)->wake, 0, memory_order_acq_rel);
        if (atomic_load_explicit(&view.head->head, memory_order_acquire) == connection->call.seen)
            return;
    }
    connection->asked = false;
    /* A reader whose socket is full has enough to wake up for. */
    send(connection->fd, "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
}

static bool has_room(const shb_buffer_t *buffer, uid_t user) {
    unsigned of_user = 0;
    for (const shb_connection_t *at = buffer->connections; at != NULL; at = at->next)
        of_user += at->user == user;
    return buffer->count < MAX_CONNECTIONS && (user == geteuid() || user == 0 || of_user < MAX_CONNECTIONS_OF_OTHERS);
}

static void accept_all(shb_buffer_t *buffer, int epoll) {
    for (;;) {
        int fd = accept4(buffer->listener, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == ECONNABORTED || errno == EINTR)
                continue;
            if (errno != EAGAIN) {
                struct epoll_event nothing = {.events = 0, .data.ptr = &buffer->listener_watch};
                buffer->deaf = epoll_ctl(epoll, EPOLL_CTL_MOD, buffer->listener, &nothing) == 0;
            }
            return;
        }
        struct ucred peer;
        socklen_t size = sizeof peer;
        shb_connection_t *connection = NULL;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && has_room(buffer, peer.uid))
            connection = calloc(1, sizeof *connection);
        if (connection == NULL) {
            close(fd);
            continue;
        }
        connection->fd = fd;
        connection->user = peer.uid;
        connection->watch.what = SHB_WATCH_CONNECTION;
        connection->watch.buffer = buffer;
        connection->watch.connection = connection;
        connection->next = buffer->connections;
        buffer->connections = connection;
        buffer->count++;
        watch(epoll, fd, &connection->watch);
    }
}

static void take_call(shb_connection_t *connection, int epoll) {
    shb_call_t call;
    ssize_t got = recv(connection->fd, &call, sizeof call, MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got != (ssize_t)sizeof call || call.track >= connection->watch.buffer->places.tracks) {
        close_connection(connection, epoll);
        return;
    }
    connection->call = call;
    connection->asked = true;
    wake_if_due(connection);
}

void shb_bell_answer(const shb_watch_t *watch, int epoll) {
    uint64_t rings;
    switch (watch->what) {
        case SHB_WATCH_LISTENER:
            accept_all(watch->buffer, epoll);
            break;
        case SHB_WATCH_CONNECTION:
            take_call(watch->connection, epoll);
            break;
        case SHB_WATCH_BELL:
            if (read(watch->buffer->bell, &rings, sizeof rings) < 0 && errno != EAGAIN)
                break;
            for (shb_connection_t *at = watch->buffer->connections; at != NULL; at = at->next)
                wake_if_due(at);
            break;
    }
}

void shb_bell_tend(shb_buffer_t *buffer, int epoll) {
    if (!buffer->deaf)
        return;
    struct epoll_event again = {.events = EPOLLIN, .data.ptr = &buffer->listener_watch};
    epoll_ctl(epoll, EPOLL_CTL_MOD, buffer->listener, &again);
    buffer->deaf = false;
}
