#include "shb_layout.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "shb_internal.h"

_Static_assert(ATOMIC_LLONG_LOCK_FREE == 2 && ATOMIC_INT_LOCK_FREE == 2, "a lock of one process does not hold for another");

const char *shb_strerror(int result) {
    switch (result) {
        case SHB_OK:
            return "ok";
        case SHB_ERR_ARG:
            return "argument out of range";
        case SHB_ERR_EXISTS:
            return "a buffer of this name is in use";
        case SHB_ERR_NOT_FOUND:
            return "not found";
        case SHB_ERR_SYSTEM:
            return "system call failed";
        case SHB_ERR_NO_SPACE:
            return "not enough shared memory";
        case SHB_ERR_VERSION:
            return "not a shared buffer of this version";
        case SHB_ERR_CORRUPT:
            return "shared buffer is damaged";
        case SHB_ERR_BUSY:
            return "track has a writer already";
        case SHB_ERR_TOO_BIG:
            return "frame too big";
        case SHB_ERR_TIMEOUT:
            return "timed out";
        case SHB_ERR_CLOSED:
            return "buffer closed by its creator";
        case SHB_ERR_OVERRUN:
            return "frame overwritten while in use";
        case SHB_ERR_OWNER:
            return "buffer belongs to another user";
        default:
            return "unknown result";
    }
}

uint32_t shb_version(void) {
    return SHB_VERSION_NUMBER;
}

/* ---- Structs with a size ------------------------------------------------------------------------------------------ */

/* No struct will ever be larger: one that says so was not filled in. */
#define STRUCT_MAX 4096

bool shb_can_give(const void *given, size_t size) {
    uint32_t given_size;
    memcpy(&given_size, given, sizeof given_size);
    return given_size >= size && given_size <= STRUCT_MAX;
}

bool shb_take_struct(const void *given, void *out, size_t size) {
    uint32_t given_size;
    if (!shb_can_give(given, size))
        return false;
    memcpy(&given_size, given, sizeof given_size);
    /* What a later version of the caller's header has added must not be passed over in silence. */
    for (size_t at = size; at < given_size; at++)
        /* NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): the caller's struct is the longer one */
        if (((const unsigned char *)given)[at] != 0)
            return false;
    memcpy(out, given, size);
    return true;
}

void shb_give_struct(void *given, const void *from, size_t size) {
    uint32_t given_size;
    memcpy(&given_size, given, sizeof given_size);
    memcpy((unsigned char *)given + sizeof given_size, (const unsigned char *)from + sizeof given_size,
           size - sizeof given_size);
    memset((unsigned char *)given + size, 0, given_size - size);
}

/* ---- Places ------------------------------------------------------------------------------------------------------- */

static bool power_of_two_within(uint64_t value, uint64_t low, uint64_t high) {
    return value >= low && value <= high && (value & (value - 1)) == 0;
}

static uint64_t round_to_pages(uint64_t bytes) {
    return (bytes + SHB_PAGE_BYTES - 1) & ~(uint64_t)(SHB_PAGE_BYTES - 1);
}

bool shb_places_from_geometry(const shb_geometry_t *geometry, shb_places_t *out) {
    shb_geometry_t g = SHB_INIT(shb_geometry_t);
    if (geometry != NULL && !shb_take_struct(geometry, &g, sizeof g))
        return false;
    g.struct_size = sizeof g;
    if (g.channels == 0)
        g.channels = 1;
    if (g.streams == 0)
        g.streams = 1;
    if (g.video_bytes == 0)
        g.video_bytes = UINT64_C(8) << 20;
    if (g.audio_bytes == 0)
        g.audio_bytes = UINT64_C(512) << 10;
    if (g.video_frames == 0)
        g.video_frames = 1024;
    if (g.audio_frames == 0)
        g.audio_frames = 1024;
    if (g.channels > 1024 || g.streams > 64 || !power_of_two_within(g.video_bytes, 65536, UINT64_C(1) << 30) ||
        !power_of_two_within(g.audio_bytes, 65536, UINT64_C(1) << 30) || !power_of_two_within(g.video_frames, 16, 65536) ||
        !power_of_two_within(g.audio_frames, 16, 65536))
        return false;
    out->geometry = g;
    out->track_bytes[SHB_VIDEO] =
        round_to_pages(sizeof(shb_track_t) + g.video_frames * sizeof(shb_descriptor_t) + g.video_bytes);
    out->track_bytes[SHB_AUDIO] =
        round_to_pages(sizeof(shb_track_t) + g.audio_frames * sizeof(shb_descriptor_t) + g.audio_bytes);
    /* At most 2^16 pairs of tracks of little more than 2^31 bytes: this cannot overflow. */
    uint64_t pairs = (uint64_t)g.channels * g.streams;
    out->total_bytes = SHB_PAGE_BYTES + pairs * (out->track_bytes[SHB_VIDEO] + out->track_bytes[SHB_AUDIO]);
    out->tracks = pairs * 2;
    out->words_bytes = sizeof(shb_waiters_header_t) + out->tracks * sizeof(shb_waiters_t);
    out->waiters_bytes = out->words_bytes + sizeof(shb_reader_table_t);
    return out->total_bytes <= (uint64_t)PTRDIFF_MAX;
}

void shb_track_by_number(const shb_places_t *places, void *base, uint64_t number, shb_track_view_t *out) {
    const shb_geometry_t *g = &places->geometry;
    bool audio = number % 2 != 0;
    uint64_t offset = SHB_PAGE_BYTES + number / 2 * (places->track_bytes[SHB_VIDEO] + places->track_bytes[SHB_AUDIO]);
    if (audio)
        offset += places->track_bytes[SHB_VIDEO];
    void *track = (char *)base + offset;
    out->number = number;
    out->head = track;
    out->frames = audio ? g->audio_frames : g->video_frames;
    out->bytes = audio ? g->audio_bytes : g->video_bytes;
    void *descriptors = (char *)track + sizeof(shb_track_t);
    out->descriptors = descriptors;
    out->payload = (unsigned char *)descriptors + out->frames * sizeof(shb_descriptor_t);
}

bool shb_track_at(const shb_places_t *places, void *base, uint32_t channel, uint32_t stream, shb_kind_t kind,
                  shb_track_view_t *out) {
    const shb_geometry_t *g = &places->geometry;
    if (channel >= g->channels || stream >= g->streams || (kind != SHB_VIDEO && kind != SHB_AUDIO))
        return false;
    shb_track_by_number(places, base, ((uint64_t)channel * g->streams + stream) * 2 + (uint64_t)kind, out);
    return true;
}

int shb_check_header(const shb_header_t *header, uint64_t mapped, shb_places_t *out) {
    if (mapped < SHB_PAGE_BYTES || header->magic != SHB_LAYOUT_MAGIC || header->version != SHB_LAYOUT_VERSION)
        return SHB_ERR_VERSION;
    const shb_geometry_t geometry = {
        .struct_size = sizeof geometry,
        .channels = header->channels,
        .streams = header->streams,
        .video_bytes = header->video_bytes,
        .audio_bytes = header->audio_bytes,
        .video_frames = header->video_frames,
        .audio_frames = header->audio_frames,
    };
    /* Zero means "default" to the creator only; in a mapping it is damage. */
    if (geometry.channels == 0 || geometry.streams == 0 || geometry.video_bytes == 0 || geometry.audio_bytes == 0 ||
        geometry.video_frames == 0 || geometry.audio_frames == 0 || header->header_bytes != SHB_PAGE_BYTES)
        return SHB_ERR_CORRUPT;
    if (!shb_places_from_geometry(&geometry, out) || out->total_bytes != header->total_bytes || out->total_bytes > mapped)
        return SHB_ERR_CORRUPT;
    return SHB_OK;
}

shb_waiters_t *shb_waiters_at(void *base, uint64_t track) {
    void *first = (char *)base + sizeof(shb_waiters_header_t);
    return (shb_waiters_t *)first + track;
}

bool shb_full_name(const char *name, char *out) {
    if (name == NULL)
        return false;
    if (*name == '/')
        name++;
    size_t length = strnlen(name, SHB_NAME_MAX + 1);
    if (length == 0 || length > SHB_NAME_MAX)
        return false;
    for (size_t i = 0; i < length; i++) {
        unsigned char c = (unsigned char)name[i];
        if (c > 127 || !(isalnum(c) || c == '.' || c == '_' || c == '-'))
            return false;
    }
    /* The two directory entries are made of allowed characters and are no names. */
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return false;
    out[0] = '/';
    memcpy(out + 1, name, length + 1);
    return true;
}

void shb_path(const char *full, char *out) {
    snprintf(out, SHB_PATH_MAX, "%s%s", SHB_PATH_PREFIX, full);
}

/*
 * "+" stands in no name of a buffer. The path of a socket may be no longer than 107 characters, so the name is
 * not in it.
 */
void shb_socket_path(uint64_t token, char *out) {
    snprintf(out, SHB_PATH_MAX, "%s/+%016llx", SHB_PATH_PREFIX, (unsigned long long)token);
}

void shb_waiters_path(const char *full, uint64_t token, char *out) {
    snprintf(out, SHB_PATH_MAX, "%s%s+%016llx", SHB_PATH_PREFIX, full, (unsigned long long)token);
}

/* ---- Copying ------------------------------------------------------------------------------------------------------ */

#if defined(__SANITIZE_THREAD__)
#define SHB_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SHB_THREAD_SANITIZER 1
#endif
#endif

#ifdef SHB_THREAD_SANITIZER
typedef SHB_ATOMIC(uint64_t) shb_word_t;

/* The thread sanitizer cannot know that torn copies are thrown away, so for it every word is atomic. */
void shb_copy_in(void *to, const void *from, size_t size) {
    const unsigned char *source = from;
    shb_word_t *words = to;
    for (size_t at = 0; at < size; at += sizeof *words) {
        uint64_t word = 0;
        memcpy(&word, source + at, size - at < sizeof word ? size - at : sizeof word);
        atomic_store_explicit(words++, word, memory_order_relaxed);
    }
}

void shb_copy_out(void *to, const void *from, size_t size) {
    unsigned char *target = to;
    const shb_word_t *words = from;
    for (size_t at = 0; at < size; at += sizeof *words) {
        uint64_t word = atomic_load_explicit(words++, memory_order_relaxed);
        memcpy(target + at, &word, size - at < sizeof word ? size - at : sizeof word);
    }
}
#else
void shb_copy_in(void *to, const void *from, size_t size) {
    memcpy(to, from, size);
}

void shb_copy_out(void *to, const void *from, size_t size) {
    memcpy(to, from, size);
}
#endif

/*
 * ThreadSanitizer does not model fences. It does not need them here: every word that two threads can meet in is
 * atomic.
 */
#if defined(__GNUC__) && !defined(__clang__) && defined(__SANITIZE_THREAD__)
#pragma GCC diagnostic ignored "-Wtsan"
#endif

/* Large copies may go past the caches, where a release fence alone does not hold them back. */
void shb_fence_full(void) {
    atomic_thread_fence(memory_order_seq_cst);
}

void shb_fence_release(void) {
    atomic_thread_fence(memory_order_release);
}

void shb_fence_acquire(void) {
    atomic_thread_fence(memory_order_acquire);
}

/* ---- Statistics and descriptions ---------------------------------------------------------------------------------- */

void shb_track_stats(const shb_track_view_t *view, uint64_t now, bool creator_lives, uint64_t creator, shb_stats_t *out) {
    shb_track_t *track = view->head;
    shb_stats_t s = SHB_INIT(shb_stats_t);
    /*
     * A new writer resets the counters one by one: take them again if that happened meanwhile. A writer that
     * died in the middle leaves the lock odd for good, so this ends in any case.
     */
    for (int attempt = 0; attempt < 1000; attempt++) {
        uint64_t lock = atomic_load_explicit(&track->epoch_lock, memory_order_acquire);
        s.epoch = atomic_load_explicit(&track->epoch, memory_order_relaxed);
        uint64_t epoch_head = atomic_load_explicit(&track->epoch_head, memory_order_relaxed);
        uint64_t epoch_bytes = atomic_load_explicit(&track->epoch_bytes, memory_order_relaxed);
        uint64_t epoch_left_out = atomic_load_explicit(&track->epoch_left_out, memory_order_relaxed);
        s.total_bytes = atomic_load_explicit(&track->total_bytes, memory_order_relaxed);
        s.total_frames = atomic_load_explicit(&track->head, memory_order_relaxed);
        s.total_left_out = atomic_load_explicit(&track->left_out, memory_order_relaxed);
        s.frames = s.total_frames - epoch_head;
        s.bytes = s.total_bytes - epoch_bytes;
        s.left_out = s.total_left_out - epoch_left_out;
        s.key_frames = atomic_load_explicit(&track->key_frames, memory_order_relaxed);
        uint64_t tail = atomic_load_explicit(&track->tail, memory_order_relaxed);
        s.held = s.total_frames > tail ? s.total_frames - tail : 0;
        s.bitrate = atomic_load_explicit(&track->bitrate, memory_order_relaxed);
        s.fps_milli = atomic_load_explicit(&track->fps_milli, memory_order_relaxed);
        s.clock_offset = atomic_load_explicit(&track->clock_offset, memory_order_relaxed);
        uint64_t last = atomic_load_explicit(&track->last_ns, memory_order_relaxed);
        s.age_ns = last == 0 ? SHB_TIME_NONE : now > last ? now - last : 0;
        shb_fence_acquire();
        if (lock % 2 == 0 && atomic_load_explicit(&track->epoch_lock, memory_order_relaxed) == lock)
            break;
    }
    if (s.epoch == 0)
        s.clock_offset = SHB_OFFSET_NONE;
    uint32_t presence = atomic_load_explicit(&track->presence, memory_order_relaxed);
    s.presence = presence <= SHB_PRESENCE_ABSENT ? presence : SHB_PRESENCE_UNKNOWN;
    /* A writer is part of the creator, but for a process that was forked from it. */
    uint64_t owner = atomic_load_explicit(&track->owner, memory_order_acquire);
    if (owner != 0 && (owner == creator ? creator_lives : shb_identity_alive(owner)))
        s.writer_pid = (int32_t)shb_identity_pid(owner);
    *out = s;
}

/* The text fields come from the mapping: whatever they hold, they end. */
static void terminate_texts(shb_description_t *description) {
    description->code[sizeof description->code - 1] = '\0';
    description->profile[sizeof description->profile - 1] = '\0';
    description->level[sizeof description->level - 1] = '\0';
    description->format[sizeof description->format - 1] = '\0';
}

/* One slot, as a whole or not at all; `data` may be null, otherwise it holds SHB_CODEC_DATA_MAX bytes. */
static bool read_slot(shb_description_slot_t *slot, uint64_t *epoch, shb_description_t *out, uint64_t *data) {
    enum { WORDS = sizeof *out / sizeof(uint64_t) };
    uint64_t words[WORDS];
    /*
     * The lock is held for some thousand stores at most; a slot that stays locked has lost its writer half-way.
     */
    for (int attempt = 0; attempt < 1000; attempt++) {
        uint64_t lock = atomic_load_explicit(&slot->lock, memory_order_acquire);
        if (lock % 2 != 0)
            continue;
        *epoch = atomic_load_explicit(&slot->epoch, memory_order_relaxed);
        uint64_t bytes = atomic_load_explicit(&slot->data_bytes, memory_order_relaxed);
        if (bytes > SHB_CODEC_DATA_MAX)
            bytes = 0;
        for (size_t i = 0; i < WORDS; i++)
            words[i] = atomic_load_explicit(&slot->words[i], memory_order_relaxed);
        for (size_t i = 0; data != NULL && i < (bytes + 7) / 8; i++)
            data[i] = atomic_load_explicit(&slot->codec_data[i], memory_order_relaxed);
        shb_fence_acquire();
        if (atomic_load_explicit(&slot->lock, memory_order_relaxed) != lock)
            continue;
        memcpy(out, words, sizeof *out);
        out->struct_size = sizeof *out;
        out->codec_data_bytes = (uint32_t)bytes;
        terminate_texts(out);
        return true;
    }
    return false;
}

int shb_track_description(const shb_track_view_t *view, uint64_t epoch, uint32_t serial, shb_description_t *out,
                          uint64_t *data) {
    if (serial == 0)
        return SHB_ERR_NOT_FOUND;
    for (size_t i = 0; i < SHB_DESCRIPTION_SLOTS; i++) {
        shb_description_t found;
        uint64_t found_epoch;
        if (read_slot(&view->head->description[i], &found_epoch, &found, data) && found_epoch == epoch &&
            found.serial == serial) {
            *out = found;
            return SHB_OK;
        }
    }
    return SHB_ERR_NOT_FOUND;
}

int shb_track_newest_description(const shb_track_view_t *view, shb_description_t *out, uint64_t *data) {
    for (int attempt = 0; attempt < 100; attempt++) {
        uint64_t count = atomic_load_explicit(&view->head->descriptions, memory_order_acquire);
        if (count == 0)
            return SHB_ERR_NOT_FOUND;
        uint64_t epoch;
        shb_description_t found;
        if (!read_slot(&view->head->description[(count - 1) % SHB_DESCRIPTION_SLOTS], &epoch, &found, data))
            continue;
        if (atomic_load_explicit(&view->head->descriptions, memory_order_acquire) != count)
            continue;
        /* A writer that has just come knows nothing yet, and what the one before it said is no longer true. */
        if (epoch != atomic_load_explicit(&view->head->epoch, memory_order_acquire))
            return SHB_ERR_NOT_FOUND;
        *out = found;
        return SHB_OK;
    }
    return SHB_ERR_NOT_FOUND;
}
