/*
 * One track of whatever buffer has a name: waiting for it to appear, and going on with the next one when its
 * host was started anew.
 */
#define _GNU_SOURCE /* ppoll */

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "shb_reader.h"

/* Without word from the folder, and to see whether a buffer that is silent still has the name. */
#define LOOK_NS UINT64_C(200000000)

struct shb_follow {
    char name[SHB_NAME_MAX + 2];
    shb_follow_options_t options;
    shb_map_t *map;
    shb_reader_t *reader;
    int folder; /* tells of new names; -1 while that is not asked for, or cannot be */
    bool again; /* a buffer was there before */
    uint32_t events;
    uint64_t epoch; /* of the last frame of this buffer, 0: none yet */
    /* What the last frame with a description belonged to. */
    uint64_t media_epoch;
    uint32_t media_serial;
    shb_description_t description; /* without its serial, which begins anew in each epoch */
    size_t codec_data_bytes;
    unsigned char codec_data[SHB_CODEC_DATA_MAX];
};

int shb_follow_open(const char *name, const shb_follow_options_t *options, shb_follow_t **out) {
    char full[SHB_NAME_MAX + 2];
    shb_follow_options_t wanted = SHB_INIT(shb_follow_options_t);
    if (out == NULL || !shb_full_name(name, full) || (options != NULL && !shb_take_struct(options, &wanted, sizeof wanted)) ||
        (wanted.kind != SHB_VIDEO && wanted.kind != SHB_AUDIO) || (int)wanted.start < SHB_START_OLDEST ||
        wanted.start > SHB_START_KEY || wanted.owner_given > 1)
        return SHB_ERR_ARG;
    shb_follow_t *follow = calloc(1, sizeof *follow);
    if (follow == NULL)
        return SHB_ERR_SYSTEM;
    memcpy(follow->name, full, sizeof full);
    follow->options = wanted;
    follow->folder = -1;
    *out = follow;
    return SHB_OK;
}

static void let_go(shb_follow_t *follow) {
    shb_reader_close(follow->reader);
    shb_detach(follow->map);
    follow->reader = NULL;
    follow->map = NULL;
}

void shb_follow_close(shb_follow_t *follow) {
    if (follow == NULL)
        return;
    let_go(follow);
    if (follow->folder >= 0)
        close(follow->folder);
    free(follow);
}

shb_map_t *shb_follow_map(shb_follow_t *follow) {
    return follow == NULL ? NULL : follow->map;
}

shb_reader_t *shb_follow_reader(shb_follow_t *follow) {
    return follow == NULL ? NULL : follow->reader;
}

/* Attaches if there is a buffer to be had: a live one, or for the first time whatever has been left. */
static int try_attach(shb_follow_t *follow) {
    const shb_attach_options_t owner = {
        .struct_size = sizeof owner, .owner_given = follow->options.owner_given, .owner = follow->options.owner};
    shb_map_t *map;
    if (shb_attach_with(follow->name, &owner, &map) != SHB_OK)
        return SHB_ERR_TIMEOUT;
    int result = SHB_ERR_TIMEOUT;
    if (!follow->again || shb_map_alive(map) != 0)
        result = shb_reader_open(map, follow->options.channel, follow->options.stream, follow->options.kind,
                                 follow->options.start, &follow->reader);
    if (result != SHB_OK) {
        shb_detach(map);
        /* One that is damaged will be replaced one day. */
        return result == SHB_ERR_CORRUPT ? SHB_ERR_TIMEOUT : result;
    }
    follow->map = map;
    follow->events |= SHB_FOLLOW_ATTACHED | (follow->again ? (uint32_t)SHB_FOLLOW_RESTARTED : 0);
    follow->again = true;
    follow->epoch = follow->media_epoch = 0;
    if (follow->folder >= 0)
        close(follow->folder);
    follow->folder = -1;
    return SHB_OK;
}

/* Sleeps until a file appears in the folder, at most `ns`. */
static void await_name(shb_follow_t *follow, uint64_t ns) {
    char events[sizeof(struct inotify_event) + NAME_MAX + 1];
    const struct timespec timeout = {.tv_sec = (time_t)(ns / 1000000000), .tv_nsec = (long)(ns % 1000000000)};
    struct pollfd folder = {.fd = follow->folder, .events = POLLIN};
    if (ppoll(&folder, 1, &timeout, NULL) > 0)
        while (read(follow->folder, events, sizeof events) > 0)
            continue;
}

static int attach_in_time(shb_follow_t *follow, uint64_t deadline) {
    for (;;) {
        /* Asked for before the look, so that nothing comes in between. */
        if (follow->folder < 0) {
            follow->folder = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
            if (follow->folder >= 0)
                inotify_add_watch(follow->folder, SHB_PATH_PREFIX, IN_CREATE | IN_MOVED_TO);
        }
        int result = try_attach(follow);
        if (result != SHB_ERR_TIMEOUT)
            return result;
        uint64_t wait = shb_time_left(deadline, LOOK_NS);
        if (wait == 0)
            return SHB_ERR_TIMEOUT;
        await_name(follow, wait);
    }
}

/* Whether another buffer has the name by now, whose host is alive. */
static bool is_superseded(const shb_follow_t *follow) {
    char path[SHB_PATH_MAX];
    struct stat file;
    shb_path(follow->name, path);
    if (stat(path, &file) != 0 || (file.st_ino == follow->map->inode && file.st_dev == follow->map->device))
        return false;
    const shb_attach_options_t owner = {
        .struct_size = sizeof owner, .owner_given = follow->options.owner_given, .owner = follow->options.owner};
    shb_map_t *map;
    if (shb_attach_with(follow->name, &owner, &map) != SHB_OK)
        return false;
    bool alive = shb_map_alive(map) != 0;
    shb_detach(map);
    return alive;
}

static void note_media(shb_follow_t *follow, uint64_t epoch) {
    shb_description_t now = SHB_INIT(shb_description_t);
    unsigned char data[SHB_CODEC_DATA_MAX];
    size_t bytes = 0;
    if (shb_reader_description(follow->reader, &now) != SHB_OK ||
        (now.serial == follow->media_serial && epoch == follow->media_epoch))
        return;
    follow->media_serial = now.serial;
    follow->media_epoch = epoch;
    if (shb_reader_codec_data(follow->reader, data, sizeof data, &bytes) != SHB_OK)
        bytes = 0;
    now.serial = 0;
    if (memcmp(&now, &follow->description, sizeof now) == 0 && bytes == follow->codec_data_bytes &&
        memcmp(data, follow->codec_data, bytes) == 0)
        return;
    follow->events |= SHB_FOLLOW_MEDIA;
    follow->description = now;
    follow->codec_data_bytes = bytes;
    memcpy(follow->codec_data, data, bytes);
}

static void note_frame(shb_follow_t *follow, const shb_frame_t *frame) {
    if (follow->epoch != 0 && frame->epoch != follow->epoch)
        follow->events |= SHB_FOLLOW_EPOCH;
    follow->epoch = frame->epoch;
    note_media(follow, frame->epoch);
}

/* One step: a frame, an end, or nothing for a while. */
static int step(shb_follow_t *follow, void *data, size_t capacity, uint64_t deadline, shb_frame_t *frame) {
    int result = follow->map == NULL ? attach_in_time(follow, deadline) : SHB_OK;
    if (result != SHB_OK)
        return result;
    uint64_t wait_ns = follow->events != 0 ? 0 : shb_time_left(deadline, LOOK_NS);
    /* Rounded up: a wait of less than a millisecond must not become a busy one. */
    result = shb_reader_read(follow->reader, data, capacity, (int)((wait_ns + 999999) / 1000000), frame);
    if (result == SHB_OK)
        note_frame(follow, frame);
    if (result == SHB_ERR_CLOSED || (result == SHB_ERR_TIMEOUT && is_superseded(follow))) {
        let_go(follow);
        follow->events |= SHB_FOLLOW_GONE;
        return SHB_ERR_TIMEOUT;
    }
    if (result == SHB_ERR_CORRUPT)
        let_go(follow);
    return result;
}

int shb_follow_read(shb_follow_t *follow, void *data, size_t capacity, int timeout_ms, shb_frame_t *frame, uint32_t *events) {
    if (follow == NULL || frame == NULL || !shb_can_give(frame, sizeof *frame) || (data == NULL && capacity > 0) ||
        timeout_ms < -1)
        return SHB_ERR_ARG;
    uint64_t deadline = shb_deadline(timeout_ms);
    int result;
    do
        result = step(follow, data, capacity, deadline, frame);
    while (result == SHB_ERR_TIMEOUT && follow->events == 0 && shb_time_left(deadline, 1) > 0);
    if (events != NULL)
        *events = follow->events;
    /* What came with a frame that did not fit comes again with it. */
    if (result != SHB_ERR_TOO_BIG)
        follow->events = 0;
    return result;
}
