/*
 * The table of readers behind the words of the file of waiters. Readers that may write there enter themselves, and
 * renew their counters with plain stores: no lock, no system call. All of it is hints for a host's figures: any
 * process of the creator's user may write anything there, so nothing but those figures depends on it.
 */
#define _GNU_SOURCE /* program_invocation_short_name */

#include <errno.h>
#include <string.h>

#include "shb_reader.h"

/* A reader of another PID namespace cannot be asked for. Each of its reads and waits is a sign of life. */
#define SIGN_OF_LIFE_NS UINT64_C(60000000000)

shb_reader_table_t *shb_reader_table_at(const shb_places_t *places, void *waiters) {
    void *table = (char *)waiters + places->words_bytes;
    return table;
}

void shb_reader_table_init(shb_reader_table_t *table) {
    table->magic = SHB_READER_TABLE_MAGIC;
    table->slots = SHB_READER_SLOTS;
    table->slot_bytes = sizeof(shb_reader_slot_t);
}

bool shb_reader_table_is_sound(const shb_reader_table_t *table) {
    return table->magic == SHB_READER_TABLE_MAGIC && table->slots == SHB_READER_SLOTS &&
           table->slot_bytes == sizeof(shb_reader_slot_t);
}

static uint64_t age_of(uint64_t now, uint64_t then) {
    return now > then ? now - then : 0;
}

static uint64_t take(SHB_ATOMIC(uint64_t) * word) {
    return atomic_load_explicit(word, memory_order_relaxed);
}

static void put(SHB_ATOMIC(uint64_t) * word, uint64_t value) {
    atomic_store_explicit(word, value, memory_order_relaxed);
}

/* Whether the process `claim` that has the slot has ended, as far as can be known. */
static bool has_ended(shb_reader_slot_t *slot, uint64_t claim, uint64_t now) {
    if (claim == shb_identity_self())
        return false;
    const shb_origin_t origin = {.creator = claim, .pid_ns = take(&slot->pid_ns), .time_ns = take(&slot->time_ns)};
    shb_life_t life = shb_origin_life(&origin);
    return life == SHB_LIFE_UNKNOWN ? age_of(now, take(&slot->seen_ns)) > SIGN_OF_LIFE_NS : life == SHB_LIFE_GONE;
}

/* ---- The reader's side ------------------------------------------------------------------------------------------------ */

static bool claim_slot(shb_reader_slot_t *slot, uint64_t before, uint64_t identity) {
    return atomic_compare_exchange_strong_explicit(&slot->claim, &before, identity, memory_order_acq_rel, memory_order_relaxed);
}

/* A free slot, else one whose process has ended, else none. */
static shb_reader_slot_t *find_slot(shb_reader_table_t *table, uint64_t identity, uint64_t now) {
    for (unsigned i = 0; i < SHB_READER_SLOTS; i++)
        if (take(&table->slot[i].claim) == 0 && claim_slot(&table->slot[i], 0, identity))
            return &table->slot[i];
    for (unsigned i = 0; i < SHB_READER_SLOTS; i++) {
        uint64_t claim = take(&table->slot[i].claim);
        if (claim != identity && has_ended(&table->slot[i], claim, now) && claim_slot(&table->slot[i], claim, identity))
            return &table->slot[i];
    }
    return NULL;
}

/* By the creator's clock, as of its last heartbeat: that is a load, and near enough. */
static uint64_t last_beat(const shb_map_t *map) {
    return atomic_load_explicit(&map->base->heartbeat_ns, memory_order_relaxed);
}

void shb_reader_enter(shb_reader_t *reader) {
    const shb_map_t *map = reader->map;
    if (map->table == NULL)
        return;
    uint64_t identity = shb_identity_self();
    shb_reader_slot_t *slot = find_slot(map->table, identity, shb_map_now(map));
    if (slot == NULL)
        return;
    uint64_t program[2] = {0};
    size_t length = strnlen(program_invocation_short_name, sizeof program - 1);
    memcpy(program, program_invocation_short_name, length);
    put(&slot->track, 0);
    put(&slot->pid_ns, map->self.pid_ns);
    put(&slot->time_ns, map->self.time_ns);
    put(&slot->opened_ns, last_beat(map));
    put(&slot->program[0], program[0]);
    put(&slot->program[1], program[1]);
    put(&slot->frames, 0);
    put(&slot->bytes, 0);
    put(&slot->lost, 0);
    put(&slot->left_out, 0);
    put(&slot->due, reader->due);
    put(&slot->read_ns, 0);
    put(&slot->seen_ns, last_beat(map));
    /* Only now it is to be listed. */
    atomic_store_explicit(&slot->track, reader->view.number + 1, memory_order_release);
    reader->slot = slot;
    reader->slot_claim = identity;
}

void shb_reader_leave(shb_reader_t *reader) {
    shb_reader_slot_t *slot = reader->slot;
    /* In a forked child the slot is its parent's. */
    if (slot == NULL || reader->slot_claim != shb_identity_self() || take(&slot->claim) != reader->slot_claim)
        return;
    put(&slot->track, 0);
    put(&slot->pid_ns, 0);
    atomic_store_explicit(&slot->claim, 0, memory_order_release);
}

static bool has_slot(shb_reader_t *reader) {
    if (reader->slot != NULL && take(&reader->slot->claim) != reader->slot_claim)
        reader->slot = NULL;
    return reader->slot != NULL;
}

void shb_reader_show_frame(shb_reader_t *reader) {
    if (!has_slot(reader))
        return;
    shb_reader_slot_t *slot = reader->slot;
    uint64_t beat = last_beat(reader->map);
    put(&slot->frames, reader->stats.frames);
    put(&slot->bytes, reader->stats.bytes);
    put(&slot->lost, reader->stats.lost);
    put(&slot->left_out, reader->stats.left_out);
    put(&slot->due, reader->due);
    put(&slot->read_ns, beat);
    put(&slot->seen_ns, beat);
}

void shb_reader_show_life(shb_reader_t *reader, uint64_t beat) {
    if (has_slot(reader))
        put(&reader->slot->seen_ns, beat);
}

/* ---- The list ---------------------------------------------------------------------------------------------------------- */

/* Whatever stands there, it is a text, and safe to print. */
static void take_program(shb_reader_slot_t *slot, char *out, size_t size) {
    const uint64_t words[2] = {take(&slot->program[0]), take(&slot->program[1])};
    memcpy(out, words, size);
    out[size - 1] = '\0';
    for (char *at = out; *at != '\0'; at++)
        if (*at < ' ' || *at > '~')
            *at = '?';
}

static shb_reader_info_t describe_reader(const shb_reader_list_t *list, shb_reader_slot_t *slot, uint64_t track, uint64_t claim,
                                         uint64_t pid_ns) {
    shb_reader_info_t info = SHB_INIT(shb_reader_info_t);
    shb_track_view_t view;
    shb_track_by_number(list->places, list->base, track, &view);
    uint64_t head = atomic_load_explicit(&view.head->head, memory_order_acquire);
    uint64_t due = take(&slot->due);
    uint64_t read = take(&slot->read_ns);
    info.pid = (int32_t)shb_identity_pid(claim);
    info.pid_is_ours = pid_ns != 0 && pid_ns == take(&slot->pid_ns);
    info.kind = track % 2 == 0 ? SHB_VIDEO : SHB_AUDIO;
    info.channel = (uint32_t)(track / 2 / list->places->geometry.streams);
    info.stream = (uint32_t)(track / 2 % list->places->geometry.streams);
    info.frames = take(&slot->frames);
    info.bytes = take(&slot->bytes);
    info.lost = take(&slot->lost);
    info.left_out = take(&slot->left_out);
    info.waiting = head > due ? head - due : 0;
    info.open_ns = age_of(list->now, take(&slot->opened_ns));
    info.last_read_age_ns = read == 0 ? SHB_TIME_NONE : age_of(list->now, read);
    take_program(slot, info.program, sizeof info.program);
    return info;
}

size_t shb_reader_list(const shb_reader_list_t *list, shb_reader_info_t *out, size_t capacity) {
    const uint32_t stride = capacity > 0 ? out->struct_size : 0;
    const uint64_t pid_ns = shb_origin_self().pid_ns;
    size_t count = 0;
    for (unsigned i = 0; i < SHB_READER_SLOTS; i++) {
        shb_reader_slot_t *slot = &list->table->slot[i];
        uint64_t claim = take(&slot->claim);
        uint64_t track = atomic_load_explicit(&slot->track, memory_order_acquire);
        if (claim == 0)
            continue;
        if (has_ended(slot, claim, list->now)) {
            claim_slot(slot, claim, 0);
            continue;
        }
        if (track == 0 || track > list->places->tracks)
            continue;
        if (count < capacity) {
            unsigned char *to = (unsigned char *)out + count * stride;
            const shb_reader_info_t info = describe_reader(list, slot, track - 1, claim, pid_ns);
            memcpy(to, &stride, sizeof stride);
            shb_give_struct(to, &info, sizeof info);
        }
        count++;
    }
    return count;
}
