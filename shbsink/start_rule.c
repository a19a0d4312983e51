#include "start_rule.h"

#include <math.h>
#include <string.h>

/* A day: longer than any buffer reaches back, and far from the end of what the type can hold. */
#define MOST_SECONDS 86400.0

static gboolean parse_back(const gchar *text, uint64_t *ns) {
    static const struct {
        const gchar *name;
        gdouble seconds;
    } units[] = {{"", 1}, {"s", 1}, {"ms", 0.001}, {"m", 60}, {"min", 60}, {"h", 3600}};
    gchar *end;
    gdouble number = g_ascii_strtod(text, &end);
    /* It also takes blanks, signs, exponents and words. */
    if (end == text || end != text + strspn(text, "0123456789."))
        return FALSE;
    for (guint i = 0; i < G_N_ELEMENTS(units); i++) {
        if (g_strcmp0(end, units[i].name) != 0)
            continue;
        gdouble seconds = number * units[i].seconds;
        if (!isfinite(seconds) || seconds < 0)
            return FALSE;
        *ns = (uint64_t)(MIN(seconds, MOST_SECONDS) * 1e9);
        return TRUE;
    }
    return FALSE;
}

gboolean shb_start_rule_parse(const gchar *text, ShbStartRule *out) {
    ShbStartRule rule = {SHB_SEEK_KEY, 0};
    if (text == NULL)
        return FALSE;
    if (g_strcmp0(text, "newest") == 0)
        rule.where = SHB_SEEK_NEWEST;
    else if (g_strcmp0(text, "oldest") == 0)
        rule.where = SHB_SEEK_OLDEST;
    else if (text[0] == '-') {
        rule.where = SHB_SEEK_BACK;
        if (!parse_back(text + 1, &rule.ns))
            return FALSE;
    } else if (g_strcmp0(text, "key") != 0)
        return FALSE;
    *out = rule;
    return TRUE;
}
