/* Values that C lets a caller pass where C++ has none of them. */
#include "shb.h"

int shbtest_open_writer(shb_buffer_t *buffer, int kind, shb_writer_t **out);
int shbtest_open_reader(shb_map_t *map, int kind, int start, shb_reader_t **out);

int shbtest_open_writer(shb_buffer_t *buffer, int kind, shb_writer_t **out) {
    return shb_writer_open(buffer, 0, 0, (shb_kind_t)kind, out);
}

int shbtest_open_reader(shb_map_t *map, int kind, int start, shb_reader_t **out) {
    return shb_reader_open(map, 0, 0, (shb_kind_t)kind, (shb_start_t)start, out);
}
