/* The shared buffer. Variants: "read" copies the message out, "borrow" takes it where it lies. */
#include <stdlib.h>
#include <string.h>

#include "bench.h"
#include "shb.h"
#include "wake.h"

static shb_buffer_t *buffer;
static shb_writer_t *writer;

static void must(int result) {
    if (result != SHB_OK)
        bench_fail(shb_strerror(result));
}

static void open_buffer(wake_t *wake) {
    must(shb_create(wake_name(wake), NULL, &buffer));
    must(shb_writer_open(buffer, 0, 0, SHB_VIDEO, &writer));
}

static void send_frames(wake_t *wake) {
    size_t size;
    for (void *message; (message = wake_next(wake, &size)) != NULL;) {
        wake_stamp(message);
        must(shb_writer_write(writer, message, size, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE, 0));
    }
}

static void close_buffer(void) {
    shb_writer_close(writer);
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

static void receive_frames(wake_t *wake) {
    bool borrow = strcmp(wake_variant(wake), "borrow") == 0;
    unsigned char *memory = bench_pattern(wake_largest(wake), 0);
    shb_map_t *map;
    shb_reader_t *reader;
    must(shb_attach(wake_name(wake), &map));
    must(shb_reader_open(map, 0, 0, SHB_VIDEO, SHB_START_OLDEST, &reader));
    wake_ready(wake);
    while (borrow ? take_borrowed(wake, reader) : take_copy(wake, reader, memory))
        continue;
    shb_reader_close(reader);
    shb_detach(map);
    free(memory);
}

int main(int argc, char **argv) {
    static const wake_transport_t transport = {open_buffer, send_frames, close_buffer, receive_frames};
    return wake_main(argc, argv, &transport);
}
