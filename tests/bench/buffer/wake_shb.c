/*
 * The shared buffer. Variants: "read" copies the message out, "borrow" takes it where it lies. Then, all where it lies, one of eight
 * tracks in turn: "any" waits for eight readers with shb_wait_any, "set" for the descriptor of a set with epoll. "other" is a reader
 * of another user, who may not write where readers sleep and is woken by a socket.
 */
#define _GNU_SOURCE /* setgroups */

#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "bench.h"
#include "shb.h"
#include "wake.h"

#define TRACKS 8u

static shb_buffer_t *buffer;
static shb_writer_t *writers[TRACKS];
static unsigned tracks = 1;

static void must(int result) {
    if (result != SHB_OK)
        bench_fail(shb_strerror(result));
}

static bool is(const wake_t *wake, const char *variant) {
    return strcmp(wake_variant(wake), variant) == 0;
}

static void open_buffer(wake_t *wake) {
    shb_geometry_t geometry = SHB_INIT(shb_geometry_t);
    shb_create_options_t options = SHB_INIT(shb_create_options_t);
    if (is(wake, "any") || is(wake, "set"))
        tracks = TRACKS;
    geometry.channels = tracks;
    options.mode = is(wake, "other") ? 0644 : 0600;
    must(shb_create_with(wake_name(wake), &geometry, &options, &buffer));
    for (unsigned i = 0; i < tracks; i++)
        must(shb_writer_open(buffer, i, 0, SHB_VIDEO, &writers[i]));
}

static void send_frames(wake_t *wake) {
    size_t size;
    unsigned turn = 0;
    for (void *message; (message = wake_next(wake, &size)) != NULL; turn = (turn + 1) % tracks) {
        wake_stamp(message);
        must(shb_writer_write(writers[turn], message, size, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE, 0));
    }
}

static void close_buffer(void) {
    for (unsigned i = 0; i < tracks; i++)
        shb_writer_close(writers[i]);
    shb_destroy(buffer);
}

static bool take_borrowed(wake_t *wake, shb_reader_t *reader) {
    const void *data;
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    must(shb_reader_borrow(reader, -1, &data, &frame));
    bool more = wake_take(wake, data, frame.size);
    must(shb_reader_return(reader));
    return more;
}

static bool take_copy(wake_t *wake, shb_reader_t *reader, void *memory) {
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    must(shb_reader_read(reader, memory, wake_largest(wake), -1, &frame));
    return wake_take(wake, memory, frame.size);
}

static void take_all(wake_t *wake, shb_reader_t *reader) {
    unsigned char *memory = bench_pattern(wake_largest(wake), 0);
    bool copy = is(wake, "read");
    while (copy ? take_copy(wake, reader, memory) : take_borrowed(wake, reader))
        continue;
    free(memory);
}

static void take_any(wake_t *wake, shb_reader_t *const *readers) {
    size_t index = 0;
    do
        must(shb_wait_any(readers, TRACKS, -1, &index));
    while (take_borrowed(wake, readers[index]));
}

static void take_from_set(wake_t *wake, shb_reader_t *const *readers) {
    shb_set_t *set;
    shb_reader_t *ready;
    struct epoll_event event = {.events = EPOLLIN};
    int epoll = epoll_create1(EPOLL_CLOEXEC), result;
    must(shb_set_open(&set));
    for (unsigned i = 0; i < TRACKS; i++)
        must(shb_set_add(set, readers[i]));
    if (epoll < 0 || epoll_ctl(epoll, EPOLL_CTL_ADD, shb_set_fd(set), &event) != 0)
        bench_fail("epoll");
    for (bool more = true; more;) {
        if (epoll_wait(epoll, &event, 1, -1) < 0)
            bench_fail("epoll_wait");
        while (more && (result = shb_set_next(set, 0, &ready)) == SHB_OK)
            more = take_borrowed(wake, ready);
        if (more && result != SHB_ERR_TIMEOUT)
            bench_fail(shb_strerror(result));
    }
    close(epoll);
    shb_set_close(set);
}

/* Nobody, who ends with the parent as before: changing the user takes that back. */
static void become_somebody_else(void) {
    const unsigned nobody = 65534;
    if (setgroups(0, NULL) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)
        bench_fail("only root can become another user");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

static void receive_frames(wake_t *wake) {
    shb_map_t *map;
    shb_reader_t *readers[TRACKS];
    if (is(wake, "any") || is(wake, "set"))
        tracks = TRACKS;
    if (is(wake, "other"))
        become_somebody_else();
    must(shb_attach(wake_name(wake), &map));
    for (unsigned i = 0; i < tracks; i++)
        must(shb_reader_open(map, i, 0, SHB_VIDEO, SHB_START_OLDEST, &readers[i]));
    wake_ready(wake);
    if (is(wake, "any"))
        take_any(wake, readers);
    else if (is(wake, "set"))
        take_from_set(wake, readers);
    else
        take_all(wake, readers[0]);
    for (unsigned i = 0; i < tracks; i++)
        shb_reader_close(readers[i]);
    shb_detach(map);
}

int main(int argc, char **argv) {
    static const wake_transport_t transport = {open_buffer, send_frames, close_buffer, receive_frames};
    return wake_main(argc, argv, &transport);
}
