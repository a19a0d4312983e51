/*
 * Where the element `shbsrc` begins: its property "start".
 */
#ifndef SHB_START_RULE_H
#define SHB_START_RULE_H

#include <glib.h>

#include "shb.h"

G_BEGIN_DECLS

typedef struct {
    shb_seek_t where;
    uint64_t ns; /* of SHB_SEEK_BACK */
} ShbStartRule;

/*
 * "newest", "key", "oldest", or how far back: "-10s", "-1500ms", "-2m", "-1h"; a number alone is seconds.
 * False when it is none of these.
 */
gboolean shb_start_rule_parse(const gchar *text, ShbStartRule *out);

G_END_DECLS

#endif /* SHB_START_RULE_H */
