/*
 * CPU time of one pipeline that parses a transport stream as fast as it can into a sink.
 *
 *     sink FILE SINK...
 *
 * SINK is a description as for gst-launch-1.0. Output: "FRAMES BYTES CPU-NANOSECONDS WALL-NANOSECONDS"; CPU is user +
 * system time of the process from the start of the pipeline to the end of the stream. BYTES is what a shbsink wrote, 0 for
 * the others.
 */
#include <gst/gst.h>
#include <stdio.h>
#include <sys/resource.h>

#include "bench.h"
#include "shb.h"

static uint64_t cpu_ns(void) {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (uint64_t)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000000 +
           (uint64_t)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1000;
}

static void await_end(GstElement *pipeline) {
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *message =
        gst_bus_timed_pop_filtered(bus, 120 * GST_SECOND, (GstMessageType)(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    if (message == NULL || GST_MESSAGE_TYPE(message) != GST_MESSAGE_EOS)
        bench_fail("the stream does not come to its end");
    gst_message_unref(message);
    gst_object_unref(bus);
}

static guint64 rendered(GstElement *sink) {
    GstStructure *stats = NULL;
    guint64 count = 0;
    g_object_get(sink, "stats", &stats, NULL);
    gst_structure_get_uint64(stats, "rendered", &count);
    gst_structure_free(stats);
    return count;
}

int main(int argc, char **argv) {
    if (argc < 3)
        bench_usage("FILE SINK...");
    gst_init(NULL, NULL);
    gchar *sink_text = g_strjoinv(" ", argv + 2);
    gchar *text = g_strdup_printf(
        "filesrc name=file ! tsdemux ! h264parse config-interval=-1 ! "
        "video/x-h264,stream-format=byte-stream,alignment=au ! %s name=sink sync=false",
        sink_text);
    GError *error = NULL;
    GstElement *pipeline = gst_parse_launch(text, &error);
    if (error != NULL)
        bench_fail(error->message);
    GstElement *file = gst_bin_get_by_name(GST_BIN(pipeline), "file");
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    g_object_set(file, "location", argv[1], NULL);

    shb_buffer_t *buffer = NULL;
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(sink), "share-buffer") != NULL) {
        char name[64];
        bench_name(name);
        int result = shb_create(name, NULL, &buffer);
        if (result != SHB_OK)
            bench_fail(shb_strerror(result));
        g_object_set(sink, "share-buffer", buffer, "media", 48, NULL);
    }
    uint64_t start = bench_now_ns(), cpu = cpu_ns();
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        bench_fail("the pipeline does not play");
    await_end(pipeline);
    cpu = cpu_ns() - cpu;
    uint64_t wall = bench_now_ns() - start;

    guint64 frames = rendered(sink);
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    if (buffer != NULL && (shb_buffer_stats(buffer, 0, 0, SHB_VIDEO, &stats) != SHB_OK || stats.frames != frames))
        bench_fail("the shared buffer did not get every frame");
    gst_element_set_state(pipeline, GST_STATE_NULL);
    shb_destroy(buffer);
    printf("%llu %llu %llu %llu\n", (unsigned long long)frames, (unsigned long long)stats.bytes, (unsigned long long)cpu,
           (unsigned long long)wall);
    gst_object_unref(file);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    g_free(text);
    g_free(sink_text);
    return 0;
}
