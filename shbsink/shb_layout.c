#include "shb_layout.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "shb_internal.h"

_Static_assert(ATOMIC_LLONG_LOCK_FREE == 2 && ATOMIC_INT_LOCK_FREE == 2, "a lock of one process does not hold for another");

#define IDENTITY_PID_BITS 22
#define NS_PER_S UINT64_C(1000000000)

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
        default:
            return "unknown result";
    }
}

/* ---- Places ------------------------------------------------------------------------------------------------------- */

static bool power_of_two_within(uint64_t value, uint64_t low, uint64_t high) {
    return value >= low && value <= high && (value & (value - 1)) == 0;
}

static uint64_t round_to_pages(uint64_t bytes) {
    return (bytes + SHB_PAGE_BYTES - 1) & ~(uint64_t)(SHB_PAGE_BYTES - 1);
}

bool shb_places_from_geometry(const shb_geometry_t *geometry, shb_places_t *out) {
    shb_geometry_t g = {0};
    if (geometry != NULL)
        g = *geometry;
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
    out->waiters_bytes = sizeof(shb_waiters_header_t) + pairs * 2 * sizeof(shb_waiters_t);
    return out->total_bytes <= (uint64_t)PTRDIFF_MAX;
}

bool shb_track_at(const shb_places_t *places, void *base, uint32_t channel, uint32_t stream, shb_kind_t kind,
                  shb_track_view_t *out) {
    const shb_geometry_t *g = &places->geometry;
    if (channel >= g->channels || stream >= g->streams || (kind != SHB_VIDEO && kind != SHB_AUDIO))
        return false;
    uint64_t pair = (uint64_t)channel * g->streams + stream;
    uint64_t offset = SHB_PAGE_BYTES + pair * (places->track_bytes[SHB_VIDEO] + places->track_bytes[SHB_AUDIO]);
    if (kind == SHB_AUDIO)
        offset += places->track_bytes[SHB_VIDEO];
    void *track = (char *)base + offset;
    out->number = pair * 2 + (uint64_t)kind;
    out->head = track;
    out->frames = kind == SHB_VIDEO ? g->video_frames : g->audio_frames;
    out->bytes = kind == SHB_VIDEO ? g->video_bytes : g->audio_bytes;
    void *descriptors = (char *)track + sizeof(shb_track_t);
    out->descriptors = descriptors;
    out->payload = (unsigned char *)descriptors + out->frames * sizeof(shb_descriptor_t);
    return true;
}

int shb_check_header(const shb_header_t *header, uint64_t mapped, shb_places_t *out) {
    if (mapped < SHB_PAGE_BYTES || header->magic != SHB_LAYOUT_MAGIC || header->version != SHB_LAYOUT_VERSION)
        return SHB_ERR_VERSION;
    const shb_geometry_t geometry = {
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

/* "+" stands in no name of a buffer. */
void shb_waiters_path(const char *full, uint64_t token, char *out) {
    snprintf(out, SHB_PATH_MAX, "%s%s+%016llx", SHB_PATH_PREFIX, full, (unsigned long long)token);
}

/* ---- Processes ---------------------------------------------------------------------------------------------------- */

enum process_state { PROCESS_GONE, PROCESS_HIDDEN, PROCESS_THERE };

static enum process_state process_start_time(pid_t pid, uint64_t *start) {
    char text[1024];
    snprintf(text, sizeof text, "/proc/%ld/stat", (long)pid);
    int fd = open(text, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return kill(pid, 0) == 0 || errno == EPERM ? PROCESS_HIDDEN : PROCESS_GONE;
    ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    if (got <= 0)
        return PROCESS_GONE;
    text[got] = '\0';
    /* The second field is the program's name in brackets and may itself hold blanks and brackets: count from the last one. */
    const char *at = strrchr(text, ')');
    if (at == NULL || at[1] != ' ')
        return PROCESS_HIDDEN;
    at += 2;
    if (*at == 'Z' || *at == 'X')
        return PROCESS_GONE;
    for (int field = 3; field < 22; field++) {
        at = strchr(at, ' ');
        if (at == NULL)
            return PROCESS_HIDDEN;
        at++;
    }
    *start = strtoull(at, NULL, 10);
    return PROCESS_THERE;
}

static uint64_t identity_of(pid_t pid, uint64_t start) {
    return start << IDENTITY_PID_BITS | ((uint64_t)pid & ((UINT64_C(1) << IDENTITY_PID_BITS) - 1));
}

uint64_t shb_identity_self(void) {
    uint64_t start = 0;
    /* Without /proc the start time stays 0, which shb_identity_alive takes for "by id only". */
    if (process_start_time(getpid(), &start) != PROCESS_THERE)
        start = 0;
    return identity_of(getpid(), start);
}

pid_t shb_identity_pid(uint64_t identity) {
    return (pid_t)(identity & ((UINT64_C(1) << IDENTITY_PID_BITS) - 1));
}

bool shb_identity_alive(uint64_t identity) {
    pid_t pid = shb_identity_pid(identity);
    if (pid <= 0)
        return false;
    uint64_t start = 0;
    switch (process_start_time(pid, &start)) {
        case PROCESS_GONE:
            return false;
        case PROCESS_HIDDEN:
            return true;
        case PROCESS_THERE:
            break;
    }
    return identity >> IDENTITY_PID_BITS == 0 || identity_of(pid, start) == identity;
}

/* ---- Time and waiting --------------------------------------------------------------------------------------------- */

uint64_t shb_now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * NS_PER_S + (uint64_t)now.tv_nsec;
}

/* Readers map read-only: waiting on such a page is allowed as long as the futex is not process-private. */
void shb_wait(SHB_ATOMIC(uint32_t) * word, uint32_t seen, uint64_t timeout_ns) {
    const struct timespec timeout = {.tv_sec = (time_t)(timeout_ns / NS_PER_S), .tv_nsec = (long)(timeout_ns % NS_PER_S)};
    syscall(SYS_futex, word, FUTEX_WAIT, seen, &timeout, NULL, 0);
}

void shb_wake(SHB_ATOMIC(uint32_t) * word) {
    atomic_fetch_add_explicit(word, 1, memory_order_release);
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, NULL, NULL, 0);
}

void shb_announce(shb_waiters_t *waiters) {
    if (atomic_load_explicit(&waiters->waiting, memory_order_seq_cst) == 0)
        atomic_store_explicit(&waiters->waiting, 1, memory_order_seq_cst);
}

/*
 * The word changes before the announcement is looked at, and a waiter announces itself before the kernel compares the word: one of the
 * two sees the other. The announcement is taken back before the word changes once more, so that a waiter whose announcement was
 * taken finds the word changed if it is not yet asleep.
 */
void shb_wake_waiting(SHB_ATOMIC(uint32_t) * word, shb_waiters_t *waiters, bool always) {
    atomic_fetch_add_explicit(word, 1, memory_order_seq_cst);
    bool announced = waiters != NULL && atomic_load_explicit(&waiters->waiting, memory_order_seq_cst) != 0;
    if (announced) {
        atomic_store_explicit(&waiters->waiting, 0, memory_order_seq_cst);
        shb_wake(word);
    } else if (always) {
        syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, NULL, NULL, 0);
    }
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

/* ThreadSanitizer does not model fences. It does not need them here: every word that two threads can meet in is atomic. */
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

void shb_track_stats(const shb_track_view_t *view, shb_stats_t *out) {
    shb_track_t *track = view->head;
    shb_stats_t s;
    /* A new writer resets the counters one by one: take them again if that happened meanwhile. A writer that died in the middle leaves
     * the lock odd for good, so this ends in any case. */
    for (int attempt = 0; attempt < 1000; attempt++) {
        uint64_t lock = atomic_load_explicit(&track->epoch_lock, memory_order_acquire);
        memset(&s, 0, sizeof s);
        s.epoch = atomic_load_explicit(&track->epoch, memory_order_relaxed);
        uint64_t epoch_head = atomic_load_explicit(&track->epoch_head, memory_order_relaxed);
        uint64_t epoch_bytes = atomic_load_explicit(&track->epoch_bytes, memory_order_relaxed);
        s.total_bytes = atomic_load_explicit(&track->total_bytes, memory_order_relaxed);
        s.total_frames = atomic_load_explicit(&track->head, memory_order_relaxed);
        s.frames = s.total_frames - epoch_head;
        s.bytes = s.total_bytes - epoch_bytes;
        s.key_frames = atomic_load_explicit(&track->key_frames, memory_order_relaxed);
        s.left_out = atomic_load_explicit(&track->left_out, memory_order_relaxed);
        uint64_t tail = atomic_load_explicit(&track->tail, memory_order_relaxed);
        s.held = s.total_frames > tail ? s.total_frames - tail : 0;
        s.bitrate = atomic_load_explicit(&track->bitrate, memory_order_relaxed);
        s.fps_milli = atomic_load_explicit(&track->fps_milli, memory_order_relaxed);
        uint64_t last = atomic_load_explicit(&track->last_ns, memory_order_relaxed);
        uint64_t now = shb_now_ns();
        s.age_ns = last == 0 ? SHB_TIME_NONE : now > last ? now - last : 0;
        shb_fence_acquire();
        if (lock % 2 == 0 && atomic_load_explicit(&track->epoch_lock, memory_order_relaxed) == lock)
            break;
    }
    uint64_t owner = atomic_load_explicit(&track->owner, memory_order_acquire);
    if (owner != 0 && shb_identity_alive(owner))
        s.writer_pid = (int32_t)shb_identity_pid(owner);
    *out = s;
}

/* The text fields come from the mapping: whatever they hold, they end. */
static void terminate_texts(shb_description_t *description) {
    description->code[sizeof description->code - 1] = '\0';
    description->profile[sizeof description->profile - 1] = '\0';
    description->level[sizeof description->level - 1] = '\0';
}

/* One slot, as a whole or not at all. */
static bool read_slot(shb_description_slot_t *slot, uint64_t *epoch, shb_description_t *out) {
    uint64_t words[SHB_DESCRIPTION_WORDS];
    /* The lock is held for some fifty stores; a slot that stays locked has lost its writer half-way. */
    for (int attempt = 0; attempt < 1000; attempt++) {
        uint64_t lock = atomic_load_explicit(&slot->lock, memory_order_acquire);
        if (lock % 2 != 0)
            continue;
        *epoch = atomic_load_explicit(&slot->epoch, memory_order_relaxed);
        for (size_t i = 0; i < SHB_DESCRIPTION_WORDS; i++)
            words[i] = atomic_load_explicit(&slot->words[i], memory_order_relaxed);
        shb_fence_acquire();
        if (atomic_load_explicit(&slot->lock, memory_order_relaxed) != lock)
            continue;
        memcpy(out, words, sizeof *out);
        terminate_texts(out);
        return true;
    }
    return false;
}

int shb_track_description(const shb_track_view_t *view, uint64_t epoch, uint32_t serial, shb_description_t *out) {
    if (serial == 0)
        return SHB_ERR_NOT_FOUND;
    for (size_t i = 0; i < SHB_DESCRIPTION_SLOTS; i++) {
        shb_description_t found;
        uint64_t found_epoch;
        if (read_slot(&view->head->description[i], &found_epoch, &found) && found_epoch == epoch && found.serial == serial) {
            *out = found;
            return SHB_OK;
        }
    }
    return SHB_ERR_NOT_FOUND;
}

int shb_track_newest_description(const shb_track_view_t *view, shb_description_t *out) {
    for (int attempt = 0; attempt < 100; attempt++) {
        uint64_t count = atomic_load_explicit(&view->head->descriptions, memory_order_acquire);
        if (count == 0)
            return SHB_ERR_NOT_FOUND;
        uint64_t epoch;
        shb_description_t found;
        if (!read_slot(&view->head->description[(count - 1) % SHB_DESCRIPTION_SLOTS], &epoch, &found))
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
