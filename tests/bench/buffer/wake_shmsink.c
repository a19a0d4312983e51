/*
 * shmsink and shmsrc, or with the variant "unixfd" unixfdsink and unixfdsrc, at their best: the sender's buffers are made on the streaming thread itself (appsrc asks for them there),
 * the receiver gets them on the streaming thread of shmsrc (appsink's callback), and there they lie in the shared memory.
 * Nothing waits for a clock.
 */
#include <glib/gstdio.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <string.h>

#include "bench.h"
#include "wake.h"

typedef struct end {
    wake_t *wake;
    GstElement *pipeline;
    GMutex lock;
    GCond changed;
    gboolean done;
} end_t;

static end_t side;

static GstElement *element(const char *name) {
    GstElement *found = gst_bin_get_by_name(GST_BIN(side.pipeline), name);
    /* The pipeline keeps it. */
    gst_object_unref(found);
    return found;
}

static gchar *socket_path(const wake_t *wake) {
    return g_build_filename(g_get_tmp_dir(), wake_name(wake), NULL);
}

static void build(wake_t *wake, const char *description) {
    side.wake = wake;
    gst_init(NULL, NULL);
    GError *error = NULL;
    side.pipeline = gst_parse_launch(description, &error);
    if (error != NULL)
        bench_fail(error->message);
}

static void done(void) {
    g_mutex_lock(&side.lock);
    side.done = TRUE;
    g_cond_signal(&side.changed);
    g_mutex_unlock(&side.lock);
}

static void play_until_done(void) {
    if (gst_element_set_state(side.pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        bench_fail("the pipeline does not play");
    g_mutex_lock(&side.lock);
    while (!side.done)
        g_cond_wait(&side.changed, &side.lock);
    g_mutex_unlock(&side.lock);
}

static void close_pipeline(void) {
    gst_element_set_state(side.pipeline, GST_STATE_NULL);
    gst_object_unref(side.pipeline);
}

static void need_data(GstAppSrc *source, guint length, gpointer user) {
    (void)length;
    (void)user;
    size_t size;
    void *message = wake_next(side.wake, &size);
    if (message == NULL) {
        done();
        gst_app_src_end_of_stream(source);
        return;
    }
    GstBuffer *buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, message, size, 0, size, NULL, NULL);
    wake_stamp(message);
    gst_app_src_push_buffer(source, buffer);
}

static gboolean by_descriptors(const wake_t *wake) {
    return strcmp(wake_variant(wake), "unixfd") == 0;
}

static void open_sink(wake_t *wake) {
    GstAppSrcCallbacks callbacks = {.need_data = need_data};
    build(wake,
          by_descriptors(wake)
              ? "appsrc name=source format=time caps=application/x-message ! unixfdsink name=sink "
                "wait-for-connection=true sync=false async=false enable-last-sample=false"
              : "appsrc name=source format=time ! shmsink name=sink shm-size=67108864 wait-for-connection=true sync=false "
                "async=false enable-last-sample=false");
    gchar *path = socket_path(wake);
    g_object_set(element("sink"), "socket-path", path, NULL);
    gst_app_src_set_callbacks(GST_APP_SRC(element("source")), &callbacks, NULL, NULL);
    g_free(path);
    /* Makes the socket. */
    if (gst_element_set_state(side.pipeline, by_descriptors(wake) ? GST_STATE_PAUSED : GST_STATE_READY) ==
        GST_STATE_CHANGE_FAILURE)
        bench_fail("the sink does not start");
}

static void send_buffers(wake_t *wake) {
    (void)wake;
    play_until_done();
}

static GstFlowReturn new_sample(GstAppSink *sink, gpointer user) {
    (void)user;
    GstSample *sample = gst_app_sink_pull_sample(sink);
    GstMapInfo map;
    if (sample == NULL || !gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ))
        bench_fail("a buffer cannot be had");
    gboolean more = wake_take(side.wake, map.data, map.size);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
    gst_sample_unref(sample);
    if (!more)
        done();
    return more ? GST_FLOW_OK : GST_FLOW_EOS;
}

static void receive_buffers(wake_t *wake) {
    GstAppSinkCallbacks callbacks = {.new_sample = new_sample};
    build(wake, by_descriptors(wake)
                    ? "unixfdsrc name=source ! appsink name=sink sync=false async=false enable-last-sample=false"
                    : "shmsrc name=source is-live=true do-timestamp=false ! appsink name=sink sync=false "
                      "async=false enable-last-sample=false");
    gchar *path = socket_path(wake);
    g_object_set(element("source"), "socket-path", path, NULL);
    gst_app_sink_set_callbacks(GST_APP_SINK(element("sink")), &callbacks, NULL, NULL);
    /* The sender's sink waits for the connection by itself. */
    wake_ready(wake);
    play_until_done();
    close_pipeline();
    g_unlink(path);
    g_free(path);
}

int main(int argc, char **argv) {
    static const wake_transport_t transport = {open_sink, send_buffers, close_pipeline, receive_buffers};
    return wake_main(argc, argv, &transport);
}
