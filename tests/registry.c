/*
 * registry.c - runs before all other tests: scans the plug-ins into the tests' registry once, and says at once which element is
 * missing where a test could only say that nothing arrived.
 */
#include <gst/gst.h>
#include <stdio.h>

int main(int argc, char *argv[]) {
    static const char *const needed[] = {
        "shbsink",        "udpsrc",        "rtspsrc",    "srtsrc",       "rtmpsrc",      "rtmp2src",     "souphttpsrc",
        "hlsdemux",       "tsdemux",       "flvdemux",   "h264parse",    "h265parse",    "rtph264depay", "rtph265depay",
        "rtpmp4gdepay",   "rtpopusdepay",  "aacparse",   "rtppcmadepay", "rtppcmudepay", "opusparse",    "ac3parse",
        "mpegaudioparse", "matroskademux", "rtph264pay", "mpegtsmux",    "rtpmp4gpay",   "rtpopuspay",   "rtppcmapay",
        "rtppcmupay",     "rtpgstpay",     "rtph265pay", "udpsink"};
    int missing = 0;
    gst_init(&argc, &argv);
    for (gsize i = 0; i < G_N_ELEMENTS(needed); ++i) {
        GstElementFactory *factory = gst_element_factory_find(needed[i]);
        if (factory == NULL) {
            printf("no element \"%s\"\n", needed[i]);
            missing = 1;
        }
        gst_clear_object(&factory);
    }
    return missing;
}
