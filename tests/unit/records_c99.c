#include "records_c99.h"

#include "gst_source_api.h"

#include <string.h>

#define FIELD(record, name) \
    { #name, offsetof(record, name), sizeof(((record *)0)->name) }

const struct record_offset *c99_media_code_info(void) {
    static const struct record_offset fields[] = {
        FIELD(media_code_info_t, type),
        FIELD(media_code_info_t, code),
        FIELD(media_code_info_t, params.video.width),
        FIELD(media_code_info_t, params.video.height),
        FIELD(media_code_info_t, params.video.fps),
        FIELD(media_code_info_t, params.video.ref_frames),
        FIELD(media_code_info_t, params.video.scan_type),
        FIELD(media_code_info_t, params.audio.sample_rate),
        FIELD(media_code_info_t, params.audio.channels),
        FIELD(media_code_info_t, params.audio.no_samples),
        FIELD(media_code_info_t, params.audio.extra),
        {NULL, 0, sizeof(media_code_info_t)},
    };
    return fields;
}

const struct record_offset *c99_source_status(void) {
    static const struct record_offset fields[] = {
        FIELD(source_status_t, source_mode),    FIELD(source_status_t, state),
        FIELD(source_status_t, video_code),     FIELD(source_status_t, reserved_video),
        FIELD(source_status_t, video_bitrate),  FIELD(source_status_t, width),
        FIELD(source_status_t, height),         FIELD(source_status_t, fps),
        FIELD(source_status_t, video_real_fps), FIELD(source_status_t, audio_code),
        FIELD(source_status_t, reserved_audio), FIELD(source_status_t, audio_bitrate),
        FIELD(source_status_t, sample_rate),    FIELD(source_status_t, channels),
        FIELD(source_status_t, audio_real_fps), {NULL, 0, sizeof(source_status_t)},
    };
    return fields;
}

int c99_functions(void) {
    void *(*create)(int, void *, int, int) = gst_source_create;
    int (*rtsp)(void *, const char *, unsigned int, unsigned int, unsigned int, unsigned int, const char *, const char *) =
        gst_rtsp_source_open_live_stream;
    int (*srt)(void *, const char *, unsigned int, const char *, const char *, const char *, unsigned int, unsigned int,
               unsigned int, const char *) = gst_srt_source_open_live_stream;
    int (*rtmp)(void *, const char *, unsigned int, unsigned int, unsigned int, const char *, const char *, const char *) =
        gst_rtmp_source_open_live_stream;
    int (*udp)(void *, const char *, unsigned int, unsigned int, unsigned int) = gst_udp_source_open_live_stream;
    int (*hls)(void *, const char *, unsigned int, unsigned int, unsigned int, int, const char *, const char *, const char *,
               const char *, const char *, const char *) = gst_hls_source_open_live_stream;
    int (*close)(void *) = gst_source_close_live_stream;
    int (*status)(void *, source_status_t *) = gst_source_get_status;
    int (*media)(void *, media_code_info_t *, media_code_info_t *) = gst_source_get_media_info;
    void (*callback)(void *, void (*)(void *, media_code_info_t *), void *) = gst_source_set_media_change_callback;
    void (*destroy)(void *) = gst_source_destroy;
    return (create != NULL) + (rtsp != NULL) + (srt != NULL) + (rtmp != NULL) + (udp != NULL) + (hls != NULL) +
           (close != NULL) + (status != NULL) + (media != NULL) + (callback != NULL) + (destroy != NULL);
}

void c99_fill_video(void *media_code_info) {
    media_code_info_t *info = media_code_info;
    memset(info, 0, sizeof *info);
    info->type = 0;
    memcpy(info->code, "H264", 5);
    info->params.video.width = 0x01020304;
    info->params.video.height = 0x11121314;
    info->params.video.fps = 25.0f;
    info->params.video.ref_frames = 0x21;
    info->params.video.scan_type = 0x31;
}
