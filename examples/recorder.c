/*
 * Records what happens around an event. The seconds before it come from the shared buffer.
 *
 *     cc -std=c11 recorder.c -o recorder $(pkg-config --cflags --libs shb libavformat libavcodec libavutil)
 *     ./recorder camera door.mkv 10 20
 *
 * An event is a line on standard input, or the signal SIGUSR1. It makes a file such as
 * door-20250131T142530.250Z.mkv with video and audio from 10 s before the event to 20 s after it. A further
 * event meanwhile prolongs the recording. When the codec or the format changes, a new file begins (...Z-2.mkv).
 * The ending of the name decides the container: .mkv is playable even after a crash, .mp4 only once it is
 * complete. Ctrl-C completes the file and ends.
 */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <libavformat/avformat.h>
#include <poll.h>
#include <shb.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#define SECOND INT64_C(1000000000)
#define PATIENCE (2 * SECOND) /* for a track that has nothing while the other one has */

typedef struct track {
    shb_reader_t *reader;
    shb_frame_t frame;
    AVPacket *packet;        /* the data of `frame`; empty once that has been written */
    int64_t pts, dts;        /* of `frame`, ns of CLOCK_MONOTONIC; 0: there was none yet */
    shb_description_t media; /* what `frame` belongs to, with its codec data */
    uint8_t codec_data[SHB_CODEC_DATA_MAX];
    size_t codec_bytes;
    bool changed; /* `media` is not what the file began with */
    /* Of the file: */
    AVStream *stream; /* null: none */
    int64_t first;    /* PTS of the first frame */
    uint64_t frames, lost;
} track_t;

typedef struct recording {
    track_t video, audio;
    AVFormatContext *file;
    char stem[4096], name[4200];
    const char *ending;
    int parts;
    int64_t until;       /* end of the recording, ns of CLOCK_MONOTONIC, as all times here */
    int64_t origin, end; /* of the file; `origin` is 0 in it */
} recording_t;

static int signals, lines = STDIN_FILENO;
typedef enum input { NOTHING, EVENT, STOP } input_t;

/* What has come within the time. Lines that come together are one event. */
static input_t next_input(int timeout_ms) {
    struct pollfd fds[] = {{.fd = signals, .events = POLLIN}, {.fd = lines, .events = POLLIN}};
    if (poll(fds, 2, timeout_ms) <= 0)
        return NOTHING;
    if (fds[0].revents != 0) {
        struct signalfd_siginfo info;
        bool event = read(signals, &info, sizeof info) == sizeof info && info.ssi_signo == SIGUSR1;
        return event ? EVENT : STOP;
    }
    char text[4096];
    ssize_t size = read(lines, text, sizeof text);
    if (size <= 0)
        lines = -1; /* from now on there are signals only */
    return size > 0 && memchr(text, '\n', (size_t)size) != NULL ? EVENT : NOTHING;
}

static int64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

static void take_description(track_t *track) {
    shb_description_t media = SHB_INIT(shb_description_t), *old = &track->media;
    uint8_t data[SHB_CODEC_DATA_MAX];
    size_t bytes = 0;
    if (shb_reader_description(track->reader, &media) != SHB_OK ||
        shb_reader_codec_data(track->reader, data, sizeof data, &bytes) != SHB_OK)
        return; /* written before its writer knew what it carries */
    if (strcmp(media.code, old->code) != 0 || strcmp(media.format, old->format) != 0 || media.sample_rate != old->sample_rate ||
        media.channels != old->channels || bytes != track->codec_bytes || memcmp(data, track->codec_data, bytes) != 0)
        track->changed = true;
    *old = media;
    track->codec_bytes = bytes;
    memcpy(track->codec_data, data, bytes);
}

/* The clock is one axis for video, audio and every epoch of the source. */
static void take_times(track_t *track) {
    const shb_frame_t *frame = &track->frame;
    bool first = track->dts == 0, clock = frame->clock_offset != SHB_OFFSET_NONE;
    int64_t next = first || !clock ? (int64_t)frame->arrival_ns : track->dts + SECOND / 1000;
    track->pts = clock && frame->pts != SHB_TIME_NONE ? (int64_t)frame->pts + frame->clock_offset : next;
    track->dts = track->pts;
    if (clock && frame->dts != SHB_TIME_NONE)
        track->dts = (int64_t)frame->dts + frame->clock_offset;
    else if (track->media.reorder_frames != 0 && !first)
        track->dts -= SECOND; /* decoded some time before it is shown */
    /* Containers want a DTS that rises. A source that connects again may begin before the end of its last frames. */
    track->dts = first ? track->dts : FFMAX(track->dts, next);
    track->pts = FFMAX(track->pts, track->dts);
}

/* Copies the next frame that can be recorded from the buffer right into the packet. SHB_OK or an SHB_ERR_. */
static int take_frame(track_t *track) {
    for (;;) {
        const void *data;
        int result = shb_reader_borrow(track->reader, 0, &data, &track->frame);
        if (result != SHB_OK)
            return result;
        bool copied = av_new_packet(track->packet, (int)track->frame.size) == 0;
        if (copied)
            memcpy(track->packet->data, data, track->frame.size);
        result = shb_reader_return(track->reader);
        if (result == SHB_OK && copied) {
            track->lost += track->frame.lost + track->frame.left_out;
            take_description(track);
            /* Headers are in the codec data. Without a description nobody knows what the frame is. */
            if ((track->frame.flags & SHB_FRAME_HEADER) == 0 && track->media.code[0] != '\0') {
                take_times(track);
                return SHB_OK;
            }
        }
        av_packet_unref(track->packet);
        /* Overwritten meanwhile: the next frame counts it as lost. */
        if (result != SHB_OK)
            return result == SHB_ERR_OVERRUN ? SHB_ERR_TIMEOUT : result;
        if (!copied)
            return SHB_ERR_SYSTEM;
    }
}

static enum AVCodecID codec_of(const shb_description_t *media) {
    static const struct {
        const char *code;
        enum AVCodecID id;
    } codecs[] = {{"H264", AV_CODEC_ID_H264},     {"H265", AV_CODEC_ID_HEVC},     {"AAC", AV_CODEC_ID_AAC},
                  {"MP4A-LATM", AV_CODEC_ID_AAC}, {"MP1", AV_CODEC_ID_MP1},       {"MP2", AV_CODEC_ID_MP2},
                  {"MP3", AV_CODEC_ID_MP3},       {"MPA", AV_CODEC_ID_MP3},       {"AC3", AV_CODEC_ID_AC3},
                  {"EAC3", AV_CODEC_ID_EAC3},     {"OPUS", AV_CODEC_ID_OPUS},     {"VORBIS", AV_CODEC_ID_VORBIS},
                  {"PCMA", AV_CODEC_ID_PCM_ALAW}, {"PCMU", AV_CODEC_ID_PCM_MULAW}};
    if (strcmp(media->format, "loas") == 0)
        return AV_CODEC_ID_AAC_LATM;
    for (size_t i = 0; i < sizeof codecs / sizeof *codecs; i++)
        if (strcmp(media->code, codecs[i].code) == 0)
            return codecs[i].id;
    return AV_CODEC_ID_NONE;
}

/* 0 or an AVERROR, as below. libavformat turns byte streams and ADTS into what the container has. */
static int add_stream(AVFormatContext *file, track_t *track) {
    const shb_description_t *media = &track->media;
    track->stream = avformat_new_stream(file, NULL);
    if (track->stream == NULL)
        return AVERROR(ENOMEM);
    AVCodecParameters *codec = track->stream->codecpar;
    codec->codec_id = codec_of(media);
    if (media->width > 0) {
        codec->codec_type = AVMEDIA_TYPE_VIDEO;
        codec->width = media->width;
        codec->height = media->height;
        track->stream->time_base = (AVRational){1, 90000};
        track->stream->avg_frame_rate = (AVRational){media->fps_n, media->fps_d};
    } else {
        codec->codec_type = AVMEDIA_TYPE_AUDIO;
        codec->sample_rate = media->sample_rate;
        codec->frame_size = media->samples_per_frame;
        av_channel_layout_default(&codec->ch_layout, media->channels);
        track->stream->time_base = (AVRational){1, media->sample_rate};
    }
    /* ADTS headers are taken off by the muxer's own filter, which makes the codec data of them. */
    if (track->codec_bytes > 0 && strcmp(media->format, "adts") != 0) {
        codec->extradata = av_mallocz(track->codec_bytes + AV_INPUT_BUFFER_PADDING_SIZE);
        if (codec->extradata == NULL)
            return AVERROR(ENOMEM);
        memcpy(codec->extradata, track->codec_data, track->codec_bytes);
        codec->extradata_size = (int)track->codec_bytes;
    }
    track->first = track->pts;
    track->changed = false;
    return 0;
}

/* Whether the track has a frame that belongs to the recording. */
static bool has_frame(const recording_t *recording, const track_t *track) {
    return track->packet->size > 0 && track->dts < recording->until;
}

/* Completes the file, unless `result` is a failure already. */
static int close_file(recording_t *recording, int result) {
    if (recording->file == NULL)
        return result;
    if (result >= 0)
        result = av_write_trailer(recording->file);
    int closed = avio_closep(&recording->file->pb);
    avformat_free_context(recording->file);
    recording->file = NULL;
    if (result < 0 || closed < 0)
        return result < 0 ? result : closed;
    printf("%s: %.2f s, %" PRIu64 " video frames, %" PRIu64 " audio frames, %" PRIu64 " lost\n", recording->name,
           (double)(recording->end - recording->origin) / (double)SECOND, recording->video.frames, recording->audio.frames,
           recording->video.lost + recording->audio.lost);
    recording->video.lost = recording->audio.lost = 0;
    return fflush(stdout) == 0 ? 0 : AVERROR(errno);
}

/* Begins a file with the tracks that have a frame. */
static int open_file(recording_t *recording) {
    track_t *tracks[] = {&recording->video, &recording->audio};
    char part[16] = "";
    if (++recording->parts > 1)
        snprintf(part, sizeof part, "-%d", recording->parts);
    snprintf(recording->name, sizeof recording->name, "%s%s%s", recording->stem, part, recording->ending);
    int result = avformat_alloc_output_context2(&recording->file, NULL, NULL, recording->name);
    recording->origin = INT64_MAX;
    for (int i = 0; i < 2 && result >= 0; i++) {
        tracks[i]->stream = NULL;
        tracks[i]->frames = 0;
        if (!has_frame(recording, tracks[i]))
            continue;
        recording->origin = recording->end = FFMIN(recording->origin, tracks[i]->dts);
        result = add_stream(recording->file, tracks[i]);
    }
    if (result >= 0)
        result = avio_open(&recording->file->pb, recording->name, AVIO_FLAG_WRITE);
    if (result >= 0 && (result = avformat_write_header(recording->file, NULL)) < 0)
        remove(recording->name);
    return result < 0 ? close_file(recording, result) : 0;
}

static int write_frame(recording_t *recording, track_t *track) {
    static const AVRational ns = {1, SECOND};
    AVPacket *packet = track->packet;
    /* Pictures that are shown before the first one need what is not in the file. */
    if (track->stream == NULL || track->pts < track->first) {
        av_packet_unref(packet);
        return 0;
    }
    uint64_t duration = track->frame.duration != SHB_TIME_NONE ? track->frame.duration : 0;
    packet->pts = av_rescale_q(track->pts - recording->origin, ns, track->stream->time_base);
    packet->dts = av_rescale_q(track->dts - recording->origin, ns, track->stream->time_base);
    packet->duration = av_rescale_q((int64_t)duration, ns, track->stream->time_base);
    packet->flags = (track->frame.flags & SHB_FRAME_KEY) != 0 ? AV_PKT_FLAG_KEY : 0;
    packet->stream_index = track->stream->index;
    recording->end = FFMAX(recording->end, track->pts + (int64_t)duration);
    track->frames++;
    return av_interleaved_write_frame(recording->file, packet);
}

/* Writes a frame of each track that has one. A file begins with both tracks, or with one after it `waited`. */
static int write_frames(recording_t *recording, bool waited) {
    track_t *tracks[] = {&recording->video, &recording->audio};
    int result = 0, frames = 0;
    /* What the file has no stream for begins another one. */
    for (int i = 0; i < 2; i++)
        if (has_frame(recording, tracks[i]) && (tracks[i]->changed || tracks[i]->stream == NULL))
            result = close_file(recording, result);
    if (recording->file == NULL && (recording->video.frame.flags & SHB_FRAME_KEY) == 0)
        av_packet_unref(recording->video.packet);
    for (int i = 0; i < 2; i++)
        frames += has_frame(recording, tracks[i]) ? 1 : 0;
    if (result >= 0 && recording->file == NULL && (frames == 2 || (frames == 1 && waited)))
        result = open_file(recording);
    for (int i = 0; i < 2; i++)
        if (result >= 0 && recording->file != NULL && has_frame(recording, tracks[i]))
            result = write_frame(recording, tracks[i]);
    return result;
}

/* Until the end of the recording, or of the host. SHB_OK or an SHB_ERR_; *written: 0 or an AVERROR. */
static int copy_frames(recording_t *recording, int64_t after, input_t *input, int *written) {
    track_t *tracks[] = {&recording->video, &recording->audio};
    int64_t since = now();
    recording->until = now() + after;
    for (;;) {
        shb_reader_t *waiting[2];
        size_t count = 0, which = 0;
        if (*input != STOP && (*input = next_input(0)) != NOTHING)
            recording->until = *input == EVENT ? now() + after : now() - PATIENCE;
        for (int i = 0; i < 2; i++) {
            int result = tracks[i]->packet->size > 0 ? SHB_OK : take_frame(tracks[i]);
            if (result == SHB_ERR_TIMEOUT)
                waiting[count++] = tracks[i]->reader;
            else if (result != SHB_OK && result != SHB_ERR_CLOSED)
                return result;
        }
        bool any = has_frame(recording, tracks[0]) || has_frame(recording, tracks[1]);
        if (!any && (count == 0 || now() >= recording->until + PATIENCE))
            return SHB_OK;
        if (!any || recording->file != NULL)
            since = now();
        *written = write_frames(recording, count == 0 || now() - since > PATIENCE || now() >= recording->until);
        if (*written < 0)
            return SHB_OK;
        if (!any || recording->file == NULL)
            shb_wait_any(waiting, count, 200, &which); /* not longer: events are looked for as well */
    }
}

/* False: it has failed, and has said so. */
static bool record(const char *name, const char *path, int64_t before, int64_t after, input_t *input) {
    recording_t recording = {.ending = strrchr(path, '.')};
    track_t *tracks[] = {&recording.video, &recording.audio};
    shb_map_t *map = NULL;
    struct timespec time;
    struct tm utc;
    char event[32];
    int written = 0;
    clock_gettime(CLOCK_REALTIME, &time);
    strftime(event, sizeof event, "%Y%m%dT%H%M%S", gmtime_r(&time.tv_sec, &utc));
    snprintf(recording.stem, sizeof recording.stem, "%.*s-%s.%03dZ", (int)(recording.ending - path), path, event,
             (int)(time.tv_nsec / 1000000));
    for (int i = 0; i < 2; i++) {
        tracks[i]->frame = SHB_INIT(shb_frame_t);
        tracks[i]->packet = av_packet_alloc();
        written = tracks[i]->packet == NULL ? AVERROR(ENOMEM) : written;
    }
    /* Attached anew at each event: the host may have been started again. */
    int result = shb_attach(name, &map);
    if (result == SHB_OK && shb_map_alive(map) == 0)
        result = SHB_ERR_CLOSED;
    if (result == SHB_OK)
        result = shb_open_av(map, 0, 0, SHB_SEEK_BACK, (uint64_t)before, &recording.video.reader, &recording.audio.reader);
    if (result == SHB_OK && written == 0)
        result = copy_frames(&recording, after, input, &written);
    written = close_file(&recording, written);
    if (written < 0)
        fprintf(stderr, "%s: %s\n", recording.name, av_err2str(written));
    else if (result != SHB_OK || recording.parts == 0)
        fprintf(stderr, "%s: %s\n", name, result != SHB_OK ? shb_strerror(result) : "nothing arrived");
    for (int i = 0; i < 2; i++) {
        shb_reader_close(tracks[i]->reader);
        av_packet_free(&tracks[i]->packet);
    }
    shb_detach(map);
    return written >= 0 && result == SHB_OK && recording.parts > 0;
}

static bool parse_seconds(const char *text, int64_t *ns) {
    char *end;
    double seconds = strtod(text, &end);
    *ns = seconds >= 0 && seconds <= 86400 ? (int64_t)(seconds * (double)SECOND) : -1;
    return end != text && *end == '\0' && *ns >= 0;
}

int main(int argc, char **argv) {
    int64_t before, after;
    if (argc != 5 || !parse_seconds(argv[3], &before) || !parse_seconds(argv[4], &after)) {
        fprintf(stderr, "usage: %s NAME FILE SECONDS_BEFORE SECONDS_AFTER\n", argv[0]);
        return 2;
    }
    if (strrchr(argv[2], '.') == NULL || av_guess_format(NULL, argv[2], NULL) == NULL) {
        fprintf(stderr, "%s: no container has this ending; .mkv and .mp4 are some\n", argv[2]);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, NULL);
    signals = signalfd(-1, &set, SFD_CLOEXEC);
    if (signals < 0) {
        perror("signalfd");
        return 1;
    }
    fprintf(stderr, "waiting for events\n");
    bool good = true;
    for (input_t input = NOTHING; input != STOP;) {
        input = next_input(-1);
        if (input == EVENT)
            good = record(argv[1], argv[2], before, after, &input) && good;
    }
    return good ? 0 : 1;
}
