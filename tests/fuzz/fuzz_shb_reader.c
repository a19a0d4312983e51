/*
 * A reader over a mapping that holds anything, and changes under its hands: whatever stands there, it answers and stays inside.
 *
 * The input is a list of operations. Most of them work on a reader, the others put bytes into the mapping and into the file of waiters,
 * which begin as those of a sound buffer. Both lie on the heap, in blocks of their exact size, where the sanitizer watches their ends.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "shb_reader.h"

#define READERS 4
#define FRAMES 16 /* of each track */

static uint8_t *sound, *sound_waiters; /* as the library made them */
static uint8_t *image, *waiters;       /* what the readers get */
static shb_places_t sound_places;
static char file_name[64], file_path[96];
static shb_origin_t self;

static const uint8_t *input;
static size_t left;

static void take(void *to, size_t size) {
    size_t part = size < left ? size : left;
    memset(to, 0, size);
    memcpy(to, input, part);
    input += part;
    left -= part;
}

static uint64_t take_number(size_t size) {
    uint64_t value = 0;
    take(&value, size);
    return value;
}

static void demand(bool holds, const char *what) {
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}
#define DEMAND(what) demand((what), #what)

static bool is_result(int result) {
    return result <= SHB_OK && result >= SHB_ERR_OWNER;
}

/* Every byte is looked at. */
static void use(const void *data, size_t size) {
    const volatile uint8_t *bytes = data;
    uint8_t sum = 0;
    for (size_t i = 0; i < size; i++)
        sum = (uint8_t)(sum + bytes[i]);
    (void)sum;
}

int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static uint8_t *whole_file(const char *path, size_t size) {
    uint8_t *bytes = malloc(size);
    FILE *file = fopen(path, "rb");
    if (bytes == NULL || file == NULL || fread(bytes, 1, size, file) != size)
        abort();
    fclose(file);
    return bytes;
}

int LLVMFuzzerInitialize(int *argc, char ***argv) {
    (void)argc;
    (void)argv;
    snprintf(file_name, sizeof file_name, "shbfuzz-%ld", (long)getpid());
    snprintf(file_path, sizeof file_path, "/dev/shm/%s", file_name);
    const shb_geometry_t geometry = {.struct_size = sizeof geometry,
                                     .video_bytes = 65536,
                                     .audio_bytes = 65536,
                                     .video_frames = FRAMES,
                                     .audio_frames = FRAMES,
                                     .channels = 1,
                                     .streams = 1};
    shb_buffer_t *buffer;
    self = shb_origin_self();
    if (shb_create(file_name, &geometry, &buffer) != SHB_OK || !shb_places_from_geometry(&geometry, &sound_places))
        abort();
    static const uint8_t frame[5000] = {1, 2, 3};
    for (shb_kind_t kind = SHB_VIDEO; kind <= SHB_AUDIO; kind++) {
        shb_writer_t *writer;
        if (shb_writer_open(buffer, 0, 0, kind, &writer) != SHB_OK || shb_writer_set_clock(writer, 1000) != SHB_OK)
            abort();
        for (unsigned i = 0; i < 23; i++) {
            const shb_description_t description = {
                .struct_size = sizeof description, .media = 48, .code = "H264", .width = (int32_t)(i / 3)};
            shb_writer_describe(writer, &description, frame, 30 * (i / 3));
            shb_writer_write(writer, frame, 100 + i * 200, i, i, 1, i % 5 == 0 ? SHB_FRAME_KEY : 0);
        }
        shb_writer_close(writer);
    }
    sound = whole_file(shb_file(buffer, 0), sound_places.total_bytes);
    sound_waiters = whole_file(shb_file(buffer, 1), sound_places.waiters_bytes);
    image = malloc(sound_places.total_bytes);
    waiters = malloc(sound_places.waiters_bytes);
    shb_destroy(buffer);
    if (image == NULL || waiters == NULL)
        abort();
    memcpy(image, sound, sound_places.total_bytes);
    return 0;
}

/* One of the places that are looked at: the header, the head of a track, its descriptors, the waiters. */
static uint8_t *take_place(size_t room) {
    const uint8_t which = (uint8_t)take_number(1);
    const size_t track = SHB_PAGE_BYTES + (which & 0x80 ? sound_places.track_bytes[SHB_VIDEO] : 0);
    size_t start, size;
    switch (which % 4) {
        case 0:
            start = 0, size = sizeof(shb_header_t);
            break;
        case 1:
            start = track, size = offsetof(shb_track_t, description);
            break;
        case 2:
            start = track + offsetof(shb_track_t, description) + (which >> 2 & 7) * sizeof(shb_description_slot_t);
            size = sizeof(shb_description_slot_t);
            break;
        default:
            start = track + sizeof(shb_track_t), size = FRAMES * sizeof(shb_descriptor_t);
            break;
    }
    const size_t at = take_number(2) % (size - room + 1);
    if ((which & 0x40) != 0)
        return waiters + at % (sound_places.waiters_bytes - room + 1);
    return image + start + (which & 0x20 ? at : at / 8 * 8);
}

/* The way that shb_attach takes, without a file. */
static shb_map_t *attach_image(bool with_waiters) {
    shb_map_t *map = calloc(1, sizeof *map);
    if (map == NULL)
        abort();
    strcpy(map->name, "/image");
    map->base = (shb_header_t *)(void *)image;
    map->bytes = sound_places.total_bytes;
    atomic_init(&map->holds, 1);
    map->origin = shb_origin_of(map->base);
    map->near = shb_origin_is_near(&map->origin);
    map->same_time = map->origin.time_ns == self.time_ns;
    map->owner = geteuid();
    map->self = self;
    map->waiters = with_waiters ? waiters : NULL;
    map->table = with_waiters ? shb_reader_table_at(&sound_places, waiters) : NULL;
    const int result = shb_check_header(map->base, map->bytes, &map->places);
    DEMAND(result == SHB_OK || result == SHB_ERR_VERSION || result == SHB_ERR_CORRUPT);
    if (result == SHB_OK)
        return map;
    free(map);
    return NULL;
}

static void check_frame(const shb_frame_t *frame, size_t most) {
    DEMAND(frame->size > 0 && frame->size <= most);
    DEMAND(frame->epoch != 0);
    DEMAND(frame->lost_before <= frame->lost && frame->lost - frame->lost_before <= frame->sequence);
}

static void try_readers(const shb_map_t *map) {
    shb_reader_info_t few[8];
    size_t count = 0;
    few[0].struct_size = sizeof few[0];
    if (shb_map_readers(map, few, 8, &count) != SHB_OK)
        return;
    DEMAND(count <= SHB_READER_SLOTS);
    for (size_t i = 0; i < count && i < 8; i++)
        DEMAND(few[i].channel < map->places.geometry.channels && few[i].stream < map->places.geometry.streams &&
               memchr(few[i].program, 0, sizeof few[i].program) != NULL);
}

static void check_description(int result, const shb_description_t *description) {
    DEMAND(result == SHB_OK || result == SHB_ERR_NOT_FOUND);
    if (result != SHB_OK)
        return;
    DEMAND(memchr(description->code, 0, sizeof description->code) != NULL);
    DEMAND(memchr(description->profile, 0, sizeof description->profile) != NULL);
    DEMAND(memchr(description->level, 0, sizeof description->level) != NULL);
    DEMAND(memchr(description->format, 0, sizeof description->format) != NULL);
    DEMAND(description->codec_data_bytes <= SHB_CODEC_DATA_MAX);
}

/* The same bytes as a file with a name: whoever comes across it. */
static void try_file(void) {
    const size_t pages = take_number(1) % 64;
    int fd = open(file_path, O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, (off_t)(pages < 40 ? sound_places.total_bytes : (pages - 40) * 1000)) != 0 ||
        (pages < 40 && pwrite(fd, image, SHB_PAGE_BYTES, 0) != (ssize_t)SHB_PAGE_BYTES))
        abort();
    close(fd);
    shb_map_t *map;
    shb_info_t info[2] = {SHB_INIT(shb_info_t)};
    size_t count;
    int result = shb_attach(file_name, &map);
    DEMAND(is_result(result));
    if (result == SHB_OK) {
        DEMAND(shb_map_info(map, info) == SHB_OK);
        shb_detach(map);
    }
    /* It looks at everybody's files, which may be many. */
    if (pages % 16 == 0)
        DEMAND(shb_list(info, 2, &count) == SHB_OK);
    result = shb_remove(file_name, pages % 2);
    DEMAND(result == SHB_OK || result == SHB_ERR_EXISTS || result == SHB_ERR_VERSION);
    DEMAND(result == SHB_OK || unlink(file_path) == 0);
    DEMAND(access(file_path, F_OK) != 0);
}

/* Codec data goes into memory of exactly its size. */
static void try_codec_data(shb_map_t *map, shb_reader_t *reader, uint8_t what) {
    const size_t capacity = take_number(2) % (2 * SHB_CODEC_DATA_MAX);
    uint8_t *data = malloc(capacity);
    size_t size = 0;
    shb_description_t description = SHB_INIT(shb_description_t);
    int result;
    if (reader != NULL)
        result = shb_reader_codec_data(reader, data, capacity, &size);
    else
        result = shb_map_codec_data(map, 0, 0, (shb_kind_t)(what >> 7), &description, data, capacity, &size);
    DEMAND(result == SHB_OK || result == SHB_ERR_NOT_FOUND || (result == SHB_ERR_TOO_BIG && size > capacity));
    DEMAND(size <= SHB_CODEC_DATA_MAX);
    if (result == SHB_OK)
        use(data, size);
    free(data);
}

/* Slots of the readers, and the set that some of them may be in. */
typedef struct stand {
    shb_reader_t *readers[READERS];
    bool borrowed[READERS];
    shb_set_t *set;
} stand_t;

static void clear_slot(stand_t *stand, size_t slot) {
    shb_reader_close(stand->readers[slot]);
    stand->readers[slot] = NULL;
    stand->borrowed[slot] = false;
}

static void try_av(shb_map_t *map, stand_t *stand, size_t slot, uint8_t what) {
    const size_t other = (slot + 1) % READERS;
    clear_slot(stand, slot);
    clear_slot(stand, other);
    const uint64_t ns = take_number(8);
    const int result = shb_open_av(map, 0, 0, (shb_seek_t)((what >> 4) % 6), ns, &stand->readers[slot], &stand->readers[other]);
    DEMAND(result == SHB_OK || result == SHB_ERR_CORRUPT);
    DEMAND((result == SHB_OK) == (stand->readers[slot] != NULL && stand->readers[other] != NULL));
}

/* All readers that there are, at once: looks, and never waits. */
static void try_many(stand_t *stand, uint8_t what) {
    shb_reader_t *list[READERS];
    shb_reader_t *found = NULL;
    bool borrowed = false;
    size_t count = 0, index = (size_t)(what >> 4);
    for (size_t i = 0; i < READERS; i++) {
        if (stand->readers[i] == NULL)
            continue;
        list[count++] = stand->readers[i];
        borrowed = borrowed || stand->borrowed[i];
    }
    int result = shb_wait_any(list, count, 0, &index);
    DEMAND(result == SHB_ERR_ARG ? count == 0 || borrowed : result == SHB_ERR_TIMEOUT || (result == SHB_OK && index < count));
    if (stand->set == NULL && shb_set_open(&stand->set) != SHB_OK)
        abort();
    for (size_t i = 0; i < count; i++)
        if ((what >> 4 & 1U << i) != 0 && shb_set_add(stand->set, list[i]) != SHB_OK)
            DEMAND(shb_set_remove(stand->set, list[i]) == SHB_OK);
    result = shb_set_next(stand->set, 0, &found);
    DEMAND(result == SHB_ERR_TIMEOUT || (result == SHB_OK && found != NULL && shb_look(found) != SHB_ERR_TIMEOUT));
}

static void operate(shb_map_t *map, stand_t *stand, size_t slot) {
    const size_t largest = UINT32_C(1) << 30;
    shb_reader_t *reader = stand->readers[slot];
    bool *borrowed = &stand->borrowed[slot];
    shb_frame_t frame = SHB_INIT(shb_frame_t);
    shb_description_t description = SHB_INIT(shb_description_t);
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    shb_reader_stats_t own = SHB_INIT(shb_reader_stats_t);
    shb_info_t info = SHB_INIT(shb_info_t);
    const void *place;
    int result;
    const uint8_t what = (uint8_t)take_number(1);
    switch (what % 16) {
        case 0:
            clear_slot(stand, slot);
            result = shb_reader_open(map, 0, 0, (shb_kind_t)(what >> 7), (shb_start_t)((what >> 4) % 3), &stand->readers[slot]);
            DEMAND(result == SHB_OK || result == SHB_ERR_CORRUPT);
            return;
        case 1:
        case 2: {
            const size_t capacity = what & 0x80 ? take_number(2) : 65536;
            uint8_t *data = malloc(capacity);
            result = shb_reader_read(reader, data, capacity, what == 2 ? 1 : 0, &frame);
            DEMAND(is_result(result) && (result != SHB_ERR_ARG || reader == NULL || *borrowed || data == NULL));
            if (result == SHB_OK) {
                check_frame(&frame, capacity);
                use(data, frame.size);
            }
            free(data);
            return;
        }
        case 3:
        case 4:
            result = shb_reader_borrow(reader, 0, &place, &frame);
            DEMAND(is_result(result) && result != SHB_ERR_TOO_BIG && (result != SHB_ERR_ARG || reader == NULL || *borrowed));
            if (result == SHB_OK) {
                *borrowed = true;
                check_frame(&frame, largest);
                use(place, frame.size);
            }
            return;
        case 5:
            result = shb_reader_return(reader);
            DEMAND(result == (*borrowed ? SHB_OK : SHB_ERR_ARG) || (*borrowed && result == SHB_ERR_OVERRUN));
            *borrowed = false;
            return;
        case 6:
            result = shb_reader_wait(reader, what == 6 ? 1 : 0);
            DEMAND(is_result(result) && result != SHB_ERR_TOO_BIG);
            return;
        case 7:
            if (reader == NULL)
                return;
            check_description(shb_reader_description(reader, &description), &description);
            DEMAND(shb_reader_get_stats(reader, &own) == SHB_OK);
            DEMAND(own.losses <= own.frames && own.key_frames <= own.frames && own.epochs <= own.frames);
            DEMAND(own.frames + own.lost + own.waiting == own.offered);
            return;
        case 8:
            DEMAND(shb_map_stats(map, 0, 0, (shb_kind_t)(what >> 7), &stats) == SHB_OK);
            check_description(shb_map_description(map, 0, 0, (shb_kind_t)(what >> 7), &description), &description);
            return;
        case 9:
        case 10:
            result = shb_reader_seek(reader, (shb_seek_t)((what >> 4) % 6), take_number(8));
            DEMAND(result == (reader == NULL || *borrowed ? SHB_ERR_ARG : SHB_OK) || result == SHB_ERR_CORRUPT);
            return;
        case 11:
            try_codec_data(map, reader, what);
            return;
        case 12:
            try_codec_data(map, NULL, what);
            return;
        case 13:
            try_av(map, stand, slot, what);
            return;
        case 14:
            try_many(stand, what);
            return;
        default:
            DEMAND(shb_map_info(map, &info) == SHB_OK);
            (void)shb_map_alive(map);
            try_readers(map);
            return;
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    input = data;
    left = size;
    /* The payload is nobody's to change, and large. */
    const size_t heads = sizeof(shb_track_t) + FRAMES * sizeof(shb_descriptor_t);
    const size_t second = SHB_PAGE_BYTES + sound_places.track_bytes[SHB_VIDEO];
    memcpy(image, sound, SHB_PAGE_BYTES + heads);
    memcpy(image + second, sound + second, heads);
    memcpy(waiters, sound_waiters, sound_places.waiters_bytes);
    shb_map_t *map = NULL;
    stand_t stand = {.set = NULL};
    const uint8_t first = (uint8_t)take_number(1);
    const bool damaged_first = (first & 1) != 0;
    /* A creator with a young heartbeat, or one that the system is asked about, which takes much longer. */
    if ((first & 12) != 0)
        ((shb_header_t *)(void *)image)->heartbeat_ns = shb_now_ns();
    if (!damaged_first)
        map = attach_image((first & 2) != 0);
    while (left > 0) {
        const uint8_t op = (uint8_t)take_number(1);
        switch (op % 8) {
            case 0: {
                const uint64_t value = take_number(8);
                memcpy(take_place(8), &value, 8);
                break;
            }
            case 1: {
                /* A small step is what a writer would make. */
                uint64_t value;
                uint8_t *place = take_place(8);
                memcpy(&value, place, 8);
                value += take_number(1) - 8;
                memcpy(place, &value, 8);
                break;
            }
            case 2: {
                const size_t bytes = 1 + take_number(1) % 64;
                take(take_place(bytes), bytes);
                break;
            }
            default:
                if (map == NULL)
                    map = attach_image((first & 2) != 0);
                if (op == 255)
                    try_file();
                else if (map != NULL)
                    operate(map, &stand, op / 8 % READERS);
                break;
        }
    }
    for (size_t i = 0; i < READERS; i++)
        clear_slot(&stand, i);
    shb_set_close(stand.set);
    free(map);
    return 0;
}
