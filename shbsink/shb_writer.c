/*
 * The writer's side of a track. Nothing here waits for anybody.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "shb_buffer.h"

static uint64_t align_frame(uint64_t bytes) {
    return (bytes + SHB_FRAME_ALIGN - 1) & ~(uint64_t)(SHB_FRAME_ALIGN - 1);
}

static shb_descriptor_t *descriptor_of(const shb_track_view_t *view, uint64_t index) {
    return &view->descriptors[index & (view->frames - 1)];
}

/*
 * Two writers on one track would tear its frames, so the claim is one atomic step; a claim whose process has
 * died is void.
 */
static bool claim(shb_track_t *track, uint64_t identity) {
    uint64_t owner = atomic_load_explicit(&track->owner, memory_order_acquire);
    for (;;) {
        if (owner != 0 && (owner == identity || shb_identity_alive(owner)))
            return false;
        if (atomic_compare_exchange_strong_explicit(&track->owner, &owner, identity, memory_order_acq_rel,
                                                    memory_order_acquire))
            return true;
    }
}

/*
 * A writer that died with a key frame half written has told of it already: what is told then is the newest one
 * that is held.
 */
static void recall_newest_key(const shb_writer_t *writer) {
    uint64_t key = writer->head;
    if (atomic_load_explicit(&writer->view.head->newest_key, memory_order_relaxed) <= key)
        return;
    while (key > writer->tail &&
           (atomic_load_explicit(&descriptor_of(&writer->view, key - 1)->flags, memory_order_relaxed) & SHB_FRAME_KEY) == 0)
        key--;
    atomic_store_explicit(&writer->view.head->newest_key, key > writer->tail ? key : 0, memory_order_relaxed);
}

int shb_writer_open(shb_buffer_t *buffer, uint32_t channel, uint32_t stream, shb_kind_t kind, shb_writer_t **out) {
    if (out == NULL || shb_buffer_hold(buffer) == NULL)
        return SHB_ERR_ARG;
    int result = SHB_ERR_SYSTEM;
    shb_writer_t *writer = calloc(1, sizeof *writer);
    if (writer == NULL)
        goto fail;
    writer->buffer = buffer;
    result = SHB_ERR_ARG;
    if (!shb_track_at(&buffer->places, buffer->base, channel, stream, kind, &writer->view))
        goto fail;
    shb_track_t *track = writer->view.head;
    writer->waiters = shb_waiters_at(buffer->waiters, writer->view.number);
    writer->identity = shb_identity_self();
    result = SHB_ERR_BUSY;
    if (!claim(track, writer->identity))
        goto fail;

    /*
     * What was written before stays readable: numbering and payload go on where the last complete frame ended.
     */
    writer->head = atomic_load_explicit(&track->head, memory_order_relaxed);
    writer->tail = atomic_load_explicit(&track->tail, memory_order_relaxed);
    writer->epoch_head = writer->head;
    writer->total_bytes = atomic_load_explicit(&track->total_bytes, memory_order_relaxed);
    writer->left_out = atomic_load_explicit(&track->left_out, memory_order_relaxed);
    writer->clock_offset = SHB_OFFSET_NONE;
    if (writer->head > 0) {
        shb_descriptor_t *last = descriptor_of(&writer->view, writer->head - 1);
        writer->position = align_frame(atomic_load_explicit(&last->position, memory_order_relaxed) +
                                       atomic_load_explicit(&last->size, memory_order_relaxed));
    }
    recall_newest_key(writer);
    writer->epoch = atomic_load_explicit(&track->epoch, memory_order_relaxed) + 1;

    uint64_t lock = atomic_load_explicit(&track->epoch_lock, memory_order_relaxed) | 1;
    atomic_store_explicit(&track->epoch_lock, lock, memory_order_relaxed);
    shb_fence_release();
    atomic_store_explicit(&track->epoch, writer->epoch, memory_order_relaxed);
    atomic_store_explicit(&track->epoch_head, writer->head, memory_order_relaxed);
    atomic_store_explicit(&track->epoch_bytes, writer->total_bytes, memory_order_relaxed);
    atomic_store_explicit(&track->key_frames, 0, memory_order_relaxed);
    atomic_store_explicit(&track->last_ns, 0, memory_order_relaxed);
    atomic_store_explicit(&track->bitrate, 0, memory_order_relaxed);
    atomic_store_explicit(&track->fps_milli, 0, memory_order_relaxed);
    atomic_store_explicit(&track->epoch_left_out, writer->left_out, memory_order_relaxed);
    atomic_store_explicit(&track->clock_offset, SHB_OFFSET_NONE, memory_order_relaxed);
    atomic_store_explicit(&track->presence, SHB_PRESENCE_EXPECTED, memory_order_relaxed);
    atomic_store_explicit(&track->epoch_lock, lock + 1, memory_order_release);
    shb_pulse_add_writer(writer);
    *out = writer;
    return SHB_OK;

fail:
    free(writer);
    shb_buffer_drop(buffer);
    return result;
}

void shb_writer_close(shb_writer_t *writer) {
    if (writer == NULL)
        return;
    shb_pulse_remove_writer(writer);
    /* A forked child that ends tidily must not take its parent's track away. */
    if (writer->identity == shb_identity_self()) {
        shb_writer_set_rates(writer, 0, 0);
        atomic_store_explicit(&writer->view.head->owner, 0, memory_order_release);
    }
    shb_buffer_drop(writer->buffer);
    free(writer);
}

/* But for the serial, which the caller does not know. */
static bool is_as_before(const shb_writer_t *writer, const shb_description_t *next, const void *codec_data) {
    const size_t from = offsetof(shb_description_t, media);
    return writer->description.serial != 0 &&
           memcmp((const char *)next + from, (const char *)&writer->description + from, sizeof *next - from) == 0 &&
           (next->codec_data_bytes == 0 || memcmp(codec_data, writer->codec_data, next->codec_data_bytes) == 0);
}

/* What stands behind the NUL of a text is not part of it and must not count as a change. */
static void take_text(char *to, const char *from, size_t size) {
    size_t length = strnlen(from, size - 1);
    memset(to, 0, size);
    memcpy(to, from, length);
}

/* Announces that the frames before `tail` are about to go. */
static void raise_tail(shb_writer_t *writer, uint64_t tail) {
    if (tail <= writer->tail)
        return;
    writer->tail = tail;
    /* With release: whoever sees this tail sees a head that is not behind it. */
    atomic_store_explicit(&writer->view.head->tail, tail, memory_order_release);
    shb_fence_full();
}

/* The slot that the next description takes, with nothing in it any more that an intact frame belongs to. */
static shb_description_slot_t *clear_slot(shb_writer_t *writer, uint64_t count) {
    shb_track_t *track = writer->view.head;
    if (count >= SHB_DESCRIPTION_SLOTS) {
        const shb_description_slot_t *later = &track->description[(count + 1) % SHB_DESCRIPTION_SLOTS];
        raise_tail(writer, atomic_load_explicit(&later->first, memory_order_relaxed));
    }
    return &track->description[count % SHB_DESCRIPTION_SLOTS];
}

int shb_writer_describe(shb_writer_t *writer, const shb_description_t *description, const void *codec_data,
                        size_t codec_data_bytes) {
    shb_description_t next;
    if (writer == NULL || description == NULL || (codec_data == NULL && codec_data_bytes > 0) ||
        !shb_take_struct(description, &next, sizeof next))
        return SHB_ERR_ARG;
    if (codec_data_bytes > SHB_CODEC_DATA_MAX)
        return SHB_ERR_TOO_BIG;
    next.struct_size = sizeof next;
    next.codec_data_bytes = (uint32_t)codec_data_bytes;
    take_text(next.code, description->code, sizeof next.code);
    take_text(next.profile, description->profile, sizeof next.profile);
    take_text(next.level, description->level, sizeof next.level);
    take_text(next.format, description->format, sizeof next.format);
    if (is_as_before(writer, &next, codec_data))
        return SHB_OK;
    next.serial = writer->description.serial + 1;
    writer->description = next;
    memset(writer->codec_data, 0, sizeof writer->codec_data);
    if (codec_data_bytes > 0)
        memcpy(writer->codec_data, codec_data, codec_data_bytes);

    uint64_t words[SHB_DESCRIPTION_WORDS] = {0};
    memcpy(words, &next, sizeof next);
    shb_track_t *track = writer->view.head;
    uint64_t count = atomic_load_explicit(&track->descriptions, memory_order_relaxed);
    shb_description_slot_t *slot = clear_slot(writer, count);
    uint64_t lock = atomic_load_explicit(&slot->lock, memory_order_relaxed) | 1;
    atomic_store_explicit(&slot->lock, lock, memory_order_relaxed);
    shb_fence_release();
    atomic_store_explicit(&slot->epoch, writer->epoch, memory_order_relaxed);
    for (size_t i = 0; i < SHB_DESCRIPTION_WORDS; i++)
        atomic_store_explicit(&slot->words[i], words[i], memory_order_relaxed);
    for (size_t i = 0; i < (codec_data_bytes + 7) / 8; i++) {
        uint64_t word;
        memcpy(&word, writer->codec_data + i * sizeof word, sizeof word);
        atomic_store_explicit(&slot->codec_data[i], word, memory_order_relaxed);
    }
    atomic_store_explicit(&slot->data_bytes, codec_data_bytes, memory_order_relaxed);
    atomic_store_explicit(&slot->first, writer->head, memory_order_relaxed);
    atomic_store_explicit(&slot->lock, lock + 1, memory_order_release);
    atomic_store_explicit(&track->descriptions, count + 1, memory_order_release);
    return SHB_OK;
}

int shb_writer_set_clock(shb_writer_t *writer, int64_t offset) {
    if (writer == NULL)
        return SHB_ERR_ARG;
    writer->clock_offset = offset;
    atomic_store_explicit(&writer->view.head->clock_offset, offset, memory_order_relaxed);
    return SHB_OK;
}

/* First index that survives a frame that takes the payload up to `end` and one descriptor more. */
static uint64_t tail_for(const shb_writer_t *writer, uint64_t end) {
    const shb_track_view_t *view = &writer->view;
    uint64_t tail = writer->tail;
    if (writer->head + 1 > view->frames && tail < writer->head + 1 - view->frames)
        tail = writer->head + 1 - view->frames;
    while (tail < writer->head &&
           atomic_load_explicit(&descriptor_of(view, tail)->position, memory_order_relaxed) + view->bytes < end)
        tail++;
    return tail;
}

int shb_writer_write(shb_writer_t *writer, const void *data, size_t size, uint64_t pts, uint64_t dts, uint64_t duration,
                     uint32_t flags) {
    if (writer == NULL || data == NULL || size == 0)
        return SHB_ERR_ARG;
    const shb_track_view_t *view = &writer->view;
    shb_track_t *track = view->head;
    if (size > view->bytes) {
        atomic_store_explicit(&track->left_out, ++writer->left_out, memory_order_relaxed);
        writer->gap = true;
        return SHB_ERR_TOO_BIG;
    }

    /*
     * A frame never wraps, so that it can be used where it lies: the rest of the ring is left out if it is too
     * small.
     */
    uint64_t start = writer->position;
    uint64_t offset = start & (view->bytes - 1);
    if (offset + size > view->bytes)
        start += view->bytes - offset;
    uint64_t end = align_frame(start + size);

    raise_tail(writer, tail_for(writer, end));

    shb_copy_in(view->payload + (start & (view->bytes - 1)), data, size);
    shb_descriptor_t *descriptor = descriptor_of(view, writer->head);
    atomic_store_explicit(&descriptor->sequence, writer->head - writer->epoch_head, memory_order_relaxed);
    atomic_store_explicit(&descriptor->epoch, writer->epoch, memory_order_relaxed);
    atomic_store_explicit(&descriptor->pts, pts, memory_order_relaxed);
    atomic_store_explicit(&descriptor->dts, dts, memory_order_relaxed);
    atomic_store_explicit(&descriptor->duration, duration, memory_order_relaxed);
    atomic_store_explicit(&descriptor->position, start, memory_order_relaxed);
    atomic_store_explicit(&descriptor->size, (uint32_t)size, memory_order_relaxed);
    atomic_store_explicit(&descriptor->flags, writer->gap ? flags | SHB_FRAME_DISCONT : flags, memory_order_relaxed);
    atomic_store_explicit(&descriptor->description, writer->description.serial, memory_order_relaxed);
    uint64_t now = shb_now_ns();
    atomic_store_explicit(&descriptor->arrival_ns, now, memory_order_relaxed);
    atomic_store_explicit(&descriptor->wall_ns, shb_wall_ns(), memory_order_relaxed);
    atomic_store_explicit(&descriptor->clock_offset, writer->clock_offset, memory_order_relaxed);
    atomic_store_explicit(&descriptor->left_out, writer->left_out, memory_order_relaxed);
    writer->gap = false;

    writer->position = end;
    writer->head++;
    writer->total_bytes += size;
    atomic_store_explicit(&track->total_bytes, writer->total_bytes, memory_order_relaxed);
    atomic_store_explicit(&track->last_ns, now, memory_order_relaxed);
    if ((flags & SHB_FRAME_KEY) != 0) {
        atomic_store_explicit(&track->key_frames, ++writer->key_frames, memory_order_relaxed);
        atomic_store_explicit(&track->newest_key, writer->head, memory_order_relaxed);
    }
    atomic_store_explicit(&track->head, writer->head, memory_order_release);
    shb_wake_waiting(writer->waiters);
    shb_bell_ring(writer->buffer, view->number);
    return SHB_OK;
}

void shb_writer_set_rates(shb_writer_t *writer, uint32_t bitrate, uint32_t fps_milli) {
    if (writer == NULL)
        return;
    atomic_store_explicit(&writer->view.head->bitrate, bitrate, memory_order_relaxed);
    atomic_store_explicit(&writer->view.head->fps_milli, fps_milli, memory_order_relaxed);
}
