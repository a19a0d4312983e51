/*
 * The yardstick of the fleet benchmark: the chain that the library builds for a UDP source, with fakesink in the place of the
 * shared buffer's sink, once for each URL, in one process with nothing around it.
 *
 *     chains URL...
 */
#include <gst/gst.h>
#include <signal.h>

/* Nobody reads the bus: what is left there would be memory that grows. */
static GstBusSyncReply drop_message(GstBus *bus, GstMessage *message, gpointer unused) {
    (void)bus;
    (void)unused;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError *error = NULL;
        gst_message_parse_error(message, &error, NULL);
        g_printerr("%s\n", error->message);
        g_error_free(error);
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

static GstElement *play(const char *url) {
    gchar *text = g_strdup_printf(
        "udpsrc uri=%s buffer-size=1572864 mtu=1492 timeout=5000000000 ! tsdemux name=d latency=700 "
        "d. ! queue max-size-time=1000000000 ! h264parse config-interval=-1 ! "
        "video/x-h264,stream-format=byte-stream,alignment=au "
        "! fakesink sync=true async=false "
        "d. ! queue max-size-time=1000000000 ! aacparse ! audio/mpeg,stream-format=adts ! fakesink sync=false async=false",
        url);
    GError *error = NULL;
    GstElement *pipeline = gst_parse_launch(text, &error);
    g_free(text);
    if (error != NULL) {
        g_printerr("%s\n", error->message);
        g_clear_error(&error);
        return NULL;
    }
    GstBus *bus = gst_element_get_bus(pipeline);
    gst_bus_set_sync_handler(bus, drop_message, NULL, NULL);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    return pipeline;
}

int main(int argc, char **argv) {
    sigset_t ends;
    int number;
    GPtrArray *pipelines = g_ptr_array_new();
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL);
    gst_init(NULL, NULL);
    for (int i = 1; i < argc; i++) {
        GstElement *pipeline = play(argv[i]);
        if (pipeline == NULL) {
            return 1;
        }
        g_ptr_array_add(pipelines, pipeline);
    }
    sigwait(&ends, &number);
    for (guint i = 0; i < pipelines->len; i++) {
        gst_element_set_state(g_ptr_array_index(pipelines, i), GST_STATE_NULL);
        gst_object_unref(g_ptr_array_index(pipelines, i));
    }
    g_ptr_array_free(pipelines, TRUE);
    return 0;
}
