#include "param_sets.h"

#include <gst/base/gstbitreader.h>
#include <string.h>

#define START_CODE_SIZE 4
static const guint8 start_code[START_CODE_SIZE] = {0, 0, 0, 1};

/* Enough to reach the number of a set: in H.265 it follows profiles and levels of up to seven layers. */
#define LONGEST_FRONT 128
/* No fields of a set take as much. Longer ones are damaged. */
#define LONGEST_SET 8192

static void free_set(gpointer data) {
    ShbParamSet *set = data;
    g_byte_array_unref(set->unit);
    g_free(set);
}

void shb_param_sets_init(ShbParamSets *sets) {
    sets->sets = g_ptr_array_new_with_free_func(free_set);
    sets->changed = sets->unparsed = FALSE;
}

void shb_param_sets_clear(ShbParamSets *sets) {
    g_clear_pointer(&sets->sets, g_ptr_array_unref);
}

/* ---- Reading a number --------------------------------------------------------------------------------------------- */

/* The front of a NAL unit without its emulation prevention bytes. */
static gsize unescape(const guint8 *unit, gsize size, guint8 out[LONGEST_FRONT]) {
    gsize length = 0;
    guint zeros = 0;
    for (gsize i = 0; i < size && length < LONGEST_FRONT; i++) {
        if (zeros >= 2 && unit[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = unit[i] == 0 ? zeros + 1 : 0;
        out[length++] = unit[i];
    }
    return length;
}

static gboolean read_exp_golomb(GstBitReader *bits, guint largest, guint *value) {
    guint zeros = 0;
    guint8 bit;
    for (;;) {
        if (!gst_bit_reader_get_bits_uint8(bits, &bit, 1) || zeros > 15)
            return FALSE;
        if (bit == 1)
            break;
        zeros++;
    }
    guint16 rest = 0;
    if (zeros > 0 && !gst_bit_reader_get_bits_uint16(bits, &rest, zeros))
        return FALSE;
    *value = (1u << zeros) - 1 + rest;
    return *value <= largest;
}

static gboolean read_h264_number(GstBitReader *bits, ShbSetKind kind, guint *number) {
    /* A sequence set begins with profile, constraints and level. */
    if (!gst_bit_reader_skip(bits, kind == SHB_SET_SEQUENCE ? 8 + 24 : 8))
        return FALSE;
    return read_exp_golomb(bits, kind == SHB_SET_SEQUENCE ? 31 : 255, number);
}

static gboolean skip_profile_tier_level(GstBitReader *bits, guint sub_layers) {
    const guint profile_bits = 88, level_bits = 8;
    enum { MOST_SUB_LAYERS = 8 };
    guint8 profile[MOST_SUB_LAYERS] = {0}, level[MOST_SUB_LAYERS] = {0};
    if (!gst_bit_reader_skip(bits, profile_bits + level_bits))
        return FALSE;
    if (sub_layers == 0)
        return TRUE;
    for (guint i = 0; i < MOST_SUB_LAYERS; i++)
        if (!gst_bit_reader_get_bits_uint8(bits, &profile[i], 1) || !gst_bit_reader_get_bits_uint8(bits, &level[i], 1))
            return FALSE;
    for (guint i = 0; i < sub_layers; i++)
        if (!gst_bit_reader_skip(bits, profile[i] * profile_bits + level[i] * level_bits))
            return FALSE;
    return TRUE;
}

static gboolean read_h265_number(GstBitReader *bits, ShbSetKind kind, guint *number) {
    guint8 value = 0;
    if (!gst_bit_reader_skip(bits, 16))
        return FALSE;
    if (kind == SHB_SET_PICTURE)
        return read_exp_golomb(bits, 63, number);
    if (kind == SHB_SET_VIDEO) {
        if (!gst_bit_reader_get_bits_uint8(bits, &value, 4))
            return FALSE;
        *number = value;
        return TRUE;
    }
    return gst_bit_reader_skip(bits, 4) && gst_bit_reader_get_bits_uint8(bits, &value, 3) && gst_bit_reader_skip(bits, 1) &&
           skip_profile_tier_level(bits, value) && read_exp_golomb(bits, 15, number);
}

/* ---- Sets --------------------------------------------------------------------------------------------------------- */

/* The set of this kind and number, new and empty where there was none. */
static ShbParamSet *find_set(ShbParamSets *sets, ShbSetKind kind, guint number) {
    guint at = 0;
    for (; at < sets->sets->len; at++) {
        ShbParamSet *set = g_ptr_array_index(sets->sets, at);
        if (set->kind == kind && set->number == number)
            return set;
        if (set->kind > kind || (set->kind == kind && set->number > number))
            break;
    }
    ShbParamSet *set = g_new0(ShbParamSet, 1);
    set->kind = kind;
    set->number = number;
    set->unit = g_byte_array_new();
    g_ptr_array_insert(sets->sets, (gint)at, set);
    return set;
}

static void put(ShbParamSets *sets, ShbSetKind kind, guint number, const guint8 *unit, gsize size) {
    ShbParamSet *set = find_set(sets, kind, number);
    if (set->unit->len == START_CODE_SIZE + size && memcmp(set->unit->data + START_CODE_SIZE, unit, size) == 0)
        return;
    g_byte_array_set_size(set->unit, 0);
    g_byte_array_append(set->unit, start_code, START_CODE_SIZE);
    g_byte_array_append(set->unit, unit, (guint)size);
    set->parsed = FALSE;
    sets->changed = sets->unparsed = TRUE;
    if (kind != SHB_SET_SEQUENCE)
        return;
    /* A picture set is parsed with its sequence set, which may come later. */
    for (guint i = 0; i < sets->sets->len; i++) {
        ShbParamSet *other = g_ptr_array_index(sets->sets, i);
        other->parsed &= other->kind != SHB_SET_PICTURE;
    }
}

static void take(ShbParamSets *sets, ShbSetKind kind, const guint8 *unit, gsize size,
                 gboolean (*read)(GstBitReader *bits, ShbSetKind kind, guint *number)) {
    /* Zeros at the end belong to the next start code. */
    while (size > 0 && unit[size - 1] == 0)
        size--;
    if (size > LONGEST_SET)
        return;
    guint8 front[LONGEST_FRONT];
    GstBitReader bits;
    guint number;
    gst_bit_reader_init(&bits, front, (guint)unescape(unit, size, front));
    if (read(&bits, kind, &number))
        put(sets, kind, number, unit, size);
}

void shb_param_sets_put_h264(ShbParamSets *sets, ShbSetKind kind, const guint8 *unit, gsize size) {
    take(sets, kind, unit, size, read_h264_number);
}

void shb_param_sets_put_h265(ShbParamSets *sets, ShbSetKind kind, const guint8 *unit, gsize size) {
    take(sets, kind, unit, size, read_h265_number);
}

GBytes *shb_param_sets_to_bytes(const ShbParamSets *sets) {
    GByteArray *bytes = g_byte_array_new();
    for (guint i = 0; i < sets->sets->len; i++) {
        const ShbParamSet *set = g_ptr_array_index(sets->sets, i);
        g_byte_array_append(bytes, set->unit->data, set->unit->len);
    }
    return g_byte_array_free_to_bytes(bytes);
}
