/* The URI shb://NAME?property=value&... of the element shbsrc. */
#include <string.h>

#include "gstshbsrc_private.h"

static GstURIType uri_type(GType type) {
    (void)type;
    return GST_URI_SRC;
}

static const gchar *const *uri_protocols(GType type) {
    static const gchar *const protocols[] = {"shb", NULL};
    (void)type;
    return protocols;
}

static gchar *get_uri(GstURIHandler *handler) {
    GstShbSrc *self = GST_SHB_SRC(handler);
    GST_OBJECT_LOCK(self);
    gchar *uri = NULL;
    if (self->buffer != NULL) {
        const gchar *start = self->start != NULL ? self->start : SHB_SRC_DEFAULT_START;
        const gchar *name = self->buffer[0] == '/' ? self->buffer + 1 : self->buffer;
        uri = g_strdup_printf("shb://%s?channel=%d&stream=%d&start=%s&follow=%d&catch-up=%d", name, self->channel, self->stream,
                              start, self->follow, self->catch_up);
    }
    GST_OBJECT_UNLOCK(self);
    return uri;
}

/* "key=value": the property of that name. */
static gboolean set_from_query(GstShbSrc *self, const gchar *item, GError **error) {
    static const gchar *const names[] = {"channel",  "stream",   "start",   "follow",
                                         "catch-up", "interval", "latency", "num-buffers"};
    const gchar *equals = strchr(item, '=');
    gchar *key = equals != NULL ? g_strndup(item, (gsize)(equals - item)) : g_strdup(item);
    gchar *text = g_uri_unescape_string(equals != NULL ? equals + 1 : "1", NULL);
    gboolean done = FALSE;
    for (guint i = 0; text != NULL && i < G_N_ELEMENTS(names); i++) {
        if (!g_str_equal(key, names[i]))
            continue;
        GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(self), key);
        GValue value = G_VALUE_INIT;
        g_value_init(&value, spec->value_type);
        ShbStartRule rule;
        if (gst_value_deserialize(&value, text) && !g_param_value_validate(spec, &value) &&
            (!g_str_equal(key, "start") || shb_start_rule_parse(text, &rule))) {
            g_object_set_property(G_OBJECT(self), key, &value);
            done = TRUE;
        }
        g_value_unset(&value);
    }
    if (!done)
        g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_REFERENCE, "\"%s\" means nothing in a URI of a shared buffer",
                    item);
    g_free(text);
    g_free(key);
    return done;
}

/* shb://NAME?channel=0&stream=0&start=key&follow=1 */
static gboolean set_uri(GstURIHandler *handler, const gchar *uri, GError **error) {
    GstShbSrc *self = GST_SHB_SRC(handler);
    GST_OBJECT_LOCK(self);
    gboolean runs = GST_STATE(self) > GST_STATE_READY;
    GST_OBJECT_UNLOCK(self);
    if (runs) {
        g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_STATE, "The URI cannot be changed while the element runs");
        return FALSE;
    }
    gchar *location = gst_uri_get_location(uri);
    gchar *question = location != NULL ? strchr(location, '?') : NULL;
    if (question != NULL)
        *question = '\0';
    const gchar *name = location != NULL ? location : "";
    while (*name == '/')
        name++;
    gsize length = strlen(name);
    while (length > 0 && name[length - 1] == '/')
        length--;
    gboolean done = length > 0;
    if (!done)
        g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_URI, "The URI names no shared buffer; shb://NAME does");
    gchar **items = done && question != NULL ? g_strsplit(question + 1, "&", -1) : NULL;
    for (guint i = 0; done && items != NULL && items[i] != NULL; i++)
        done = items[i][0] == '\0' || set_from_query(self, items[i], error);
    g_strfreev(items);
    if (done) {
        gchar *buffer = g_strndup(name, length);
        g_object_set(self, "buffer", buffer, NULL);
        g_free(buffer);
    }
    g_free(location);
    return done;
}

void shb_src_uri_handler_init(gpointer interface, gpointer data) {
    GstURIHandlerInterface *handler = interface;
    (void)data;
    handler->get_type = uri_type;
    handler->get_protocols = uri_protocols;
    handler->get_uri = get_uri;
    handler->set_uri = set_uri;
}
