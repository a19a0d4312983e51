/* Values that C lets a caller pass where C++ has none of them. */
#include "shb.h"

int shbtest_open_writer(shb_buffer_t *buffer, int kind, shb_writer_t **out);
int shbtest_open_reader(shb_map_t *map, int kind, int start, shb_reader_t **out);
int shbtest_follow(const char *name, int kind, int start, shb_follow_t **out);
int shbtest_seek(shb_reader_t *reader, int where);
int shbtest_open_av(shb_map_t *map, int where, shb_reader_t **video, shb_reader_t **audio);
int shbtest_set_presence(shb_buffer_t *buffer, int presence);

int shbtest_open_writer(shb_buffer_t *buffer, int kind, shb_writer_t **out) {
    return shb_writer_open(buffer, 0, 0, (shb_kind_t)kind, out);
}

int shbtest_open_reader(shb_map_t *map, int kind, int start, shb_reader_t **out) {
    return shb_reader_open(map, 0, 0, (shb_kind_t)kind, (shb_start_t)start, out);
}

int shbtest_follow(const char *name, int kind, int start, shb_follow_t **out) {
    shb_follow_options_t options = SHB_INIT(shb_follow_options_t);
    options.kind = (shb_kind_t)kind;
    options.start = (shb_start_t)start;
    return shb_follow_open(name, &options, out);
}

int shbtest_seek(shb_reader_t *reader, int where) {
    return shb_reader_seek(reader, (shb_seek_t)where, 0);
}

int shbtest_open_av(shb_map_t *map, int where, shb_reader_t **video, shb_reader_t **audio) {
    return shb_open_av(map, 0, 0, (shb_seek_t)where, 0, video, audio);
}

int shbtest_set_presence(shb_buffer_t *buffer, int presence) {
    return shb_set_presence(buffer, 0, 0, SHB_VIDEO, (shb_presence_t)presence);
}
