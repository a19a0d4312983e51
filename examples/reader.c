/*
 * Reads one track of a shared buffer: from the newest key frame on, until the host closes the buffer or has died.
 *
 *     cc -std=c99 reader.c -o reader $(pkg-config --cflags --libs shb)
 *     ./reader NAME > stream.h264
 *     ./reader NAME audio > stream.aac
 *
 * The frames go to standard output one behind the other, reports about the stream to standard error.
 */
#include <inttypes.h>
#include <shb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void report_description(shb_reader_t *reader, shb_kind_t kind) {
    shb_description_t media = SHB_INIT(shb_description_t);
    if (shb_reader_description(reader, &media) != SHB_OK)
        return; /* written before its writer knew what it carries */
    if (kind == SHB_VIDEO)
        fprintf(stderr, "%s %s %dx%d\n", media.code, media.profile, (int)media.width, (int)media.height);
    else
        fprintf(stderr, "%s %d Hz, %d channels\n", media.code, (int)media.sample_rate, (int)media.channels);
}

/* Until the buffer is closed: SHB_ERR_CLOSED. Anything else is a failure. */
static int read_track(shb_reader_t *reader, shb_kind_t kind) {
    size_t capacity = (size_t)256 * 1024;
    unsigned char *data = malloc(capacity);
    uint64_t epoch = 0;
    uint32_t description = 0;
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    int result;
    if (data == NULL)
        return SHB_ERR_SYSTEM;
    for (;;) {
        result = shb_reader_read(reader, data, capacity, 1000, &frame);
        if (result == SHB_ERR_TIMEOUT)
            continue; /* nothing for a second: the source may be connecting again */
        if (result == SHB_ERR_TOO_BIG) {
            /* The frame is still there: come back with more memory. */
            free(data);
            capacity = frame.size;
            data = malloc(capacity);
            if (data == NULL)
                return SHB_ERR_SYSTEM;
            continue;
        }
        if (result != SHB_OK)
            break;
        if (frame.lost > 0)
            fprintf(stderr, "%" PRIu64 " frames lost before frame %" PRIu64 "\n", frame.lost, frame.sequence);
        if (frame.left_out > 0)
            fprintf(stderr, "%" PRIu64 " frames were too large for the buffer\n", frame.left_out);
        /* A new epoch is a new writer: the source has connected again. */
        if (frame.epoch != epoch || frame.description != description)
            report_description(reader, kind);
        epoch = frame.epoch;
        description = frame.description;
        if (fwrite(data, 1, frame.size, stdout) != frame.size || fflush(stdout) != 0) {
            perror("standard output");
            result = SHB_ERR_SYSTEM;
            break;
        }
    }
    free(data);
    return result;
}

int main(int argc, char **argv) {
    shb_map_t *map;
    shb_reader_t *reader;
    if (argc < 2) {
        fprintf(stderr, "usage: %s NAME [audio]\n", argv[0]);
        return 2;
    }
    shb_kind_t kind = argc > 2 && strcmp(argv[2], "audio") == 0 ? SHB_AUDIO : SHB_VIDEO;
    int result = shb_attach(argv[1], &map);
    if (result != SHB_OK) {
        fprintf(stderr, "%s: %s\n", argv[1], shb_strerror(result));
        return 1;
    }
    /* Channel 0, stream 0. */
    result = shb_reader_open(map, 0, 0, kind, SHB_START_KEY, &reader);
    if (result == SHB_OK) {
        result = read_track(reader, kind);
        shb_reader_close(reader);
    }
    if (result != SHB_ERR_CLOSED)
        fprintf(stderr, "%s: %s\n", argv[1], shb_strerror(result));
    shb_detach(map);
    return result == SHB_ERR_CLOSED ? 0 : 1;
}
