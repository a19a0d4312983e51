/*
 * The parameter sets of an H.264 or H.265 stream that are in force: the last one of each kind and number.
 */
#ifndef SHB_PARAM_SETS_H
#define SHB_PARAM_SETS_H

#include <glib.h>

G_BEGIN_DECLS

/* In the order that a decoder needs. */
typedef enum { SHB_SET_VIDEO = 0, SHB_SET_SEQUENCE = 1, SHB_SET_PICTURE = 2 } ShbSetKind;

typedef struct {
    ShbSetKind kind;
    guint number;
    GByteArray *unit; /* the NAL unit behind a start code of four bytes */
    gboolean parsed;  /* set by the owner; cleared by a change of the set, or of a sequence set */
} ShbParamSet;

typedef struct {
    GPtrArray *sets;   /* ShbParamSet, by kind and number */
    gboolean changed;  /* since the owner cleared it */
    gboolean unparsed; /* some of them may be: cleared by the owner, so that most pictures need not look at each set */
} ShbParamSets;

void shb_param_sets_init(ShbParamSets *sets);
void shb_param_sets_clear(ShbParamSets *sets);
/* Takes the NAL unit of a set, without a start code. A damaged one is ignored. */
void shb_param_sets_put_h264(ShbParamSets *sets, ShbSetKind kind, const guint8 *unit, gsize size);
void shb_param_sets_put_h265(ShbParamSets *sets, ShbSetKind kind, const guint8 *unit, gsize size);
/* All sets, each behind its start code. */
GBytes *shb_param_sets_to_bytes(const ShbParamSets *sets);

G_END_DECLS

#endif /* SHB_PARAM_SETS_H */
