/*
 * The host of the benchmarks: one source, one shared buffer, nothing else.
 *
 *     bench_host run URL SECONDS                plays and prints what arrived
 *     bench_host close URL WHEN CYCLES DELAY    opens and closes CYCLES times, prints the duration of each close in ms
 *     bench_host fleet VIDEO_BYTES URL...       plays all, each into a buffer of its own, until SIGTERM; prints "ready", and at
 *                                               SIGUSR1 the frames of all and of the least: "video ALL LEAST audio ALL
 *                                               LEAST"
 *
 * WHEN: "playing" closes DELAY ms after the first video frame of each cycle, "wait" DELAY ms after the state has become "reconnect",
 * "after" DELAY ms after the open.
 */
#include "gst_source_api.h"
#include "shb.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static double now_ms(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}

static void sleep_ms(double ms) {
    struct timespec t;
    t.tv_sec = (time_t)(ms / 1e3);
    t.tv_nsec = (long)((ms - (double)t.tv_sec * 1e3) * 1e6);
    nanosleep(&t, NULL);
}

static int starts_with(const char *text, const char *prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

static void *create(const char *url, shb_buffer_t *buffer) {
    int type = SOURCE_TYPE_HLS;
    if (starts_with(url, "udp")) {
        type = SOURCE_TYPE_UDP;
    } else if (starts_with(url, "rtsp")) {
        type = SOURCE_TYPE_RTSP;
    } else if (starts_with(url, "srt")) {
        type = SOURCE_TYPE_SRT;
    } else if (starts_with(url, "rtmp")) {
        type = SOURCE_TYPE_RTMP;
    }
    return gst_source_create(type, buffer, 0, 0);
}

static int open_source(void *source, const char *url) {
    if (starts_with(url, "udp")) {
        return gst_udp_source_open_live_stream(source, url, 200, 700, 1492);
    }
    if (starts_with(url, "rtsp")) {
        return gst_rtsp_source_open_live_stream(source, url, 200, 4, 200, 15, "", "");
    }
    if (starts_with(url, "srt")) {
        return gst_srt_source_open_live_stream(source, url, 200, strstr(url, "//:") != NULL ? "listener" : "caller", "", "", 0,
                                               125, 50, "");
    }
    if (starts_with(url, "rtmp")) {
        return gst_rtmp_source_open_live_stream(source, url, 200, 10, 0, "", "", "");
    }
    return gst_hls_source_open_live_stream(source, url, 200, 0, 15, 3, "", "", "", "", "", "");
}

static uint64_t frames_of(shb_buffer_t *buffer, shb_kind_t kind) {
    shb_stats_t stats = SHB_INIT(shb_stats_t);
    return shb_buffer_stats(buffer, 0, 0, kind, &stats) == SHB_OK ? stats.total_frames : 0;
}

static uint64_t video_frames(shb_buffer_t *buffer) {
    return frames_of(buffer, SHB_VIDEO);
}

static void print_frames(FILE *out, shb_buffer_t **buffers, int count) {
    static const char *const names[] = {"video", "audio"};
    for (int kind = SHB_VIDEO; kind <= SHB_AUDIO; ++kind) {
        uint64_t all = 0;
        uint64_t least = UINT64_MAX;
        for (int i = 0; i < count; ++i) {
            const uint64_t frames = frames_of(buffers[i], (shb_kind_t)kind);
            all += frames;
            least = frames < least ? frames : least;
        }
        fprintf(out, "%s %llu %llu%s", names[kind], (unsigned long long)all, (unsigned long long)least,
                kind == SHB_VIDEO ? " " : "\n");
    }
    fflush(out);
}

static int run_fleet(FILE *out, const char *video_bytes, char **urls, int count) {
    shb_geometry_t geometry = SHB_INIT(shb_geometry_t);
    shb_buffer_t **buffers = calloc((size_t)count, sizeof *buffers);
    void **sources = calloc((size_t)count, sizeof *sources);
    sigset_t signals;
    int number = 0;
    int result = buffers == NULL || sources == NULL ? 1 : 0;
    geometry.video_bytes = strtoull(video_bytes, NULL, 10);
    /* Before there are threads, which inherit it. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);
    for (int i = 0; i < count && result == 0; ++i) {
        char name[64];
        snprintf(name, sizeof name, "gst-source-bench-%d-%d", (int)getpid(), i);
        result = shb_create(name, &geometry, &buffers[i]);
        if (result == SHB_OK) {
            sources[i] = create(urls[i], buffers[i]);
            result = open_source(sources[i], urls[i]);
        }
        if (result != 0) {
            fprintf(stderr, "%s: source %d could not be opened (%d)\n", urls[i], i, result);
        }
    }
    if (result == 0) {
        fprintf(out, "ready\n");
        fflush(out);
    }
    while (result == 0 && sigwait(&signals, &number) == 0 && number == SIGUSR1) {
        print_frames(out, buffers, count);
    }
    for (int i = 0; i < count && sources != NULL; ++i) {
        gst_source_destroy(sources[i]);
    }
    for (int i = 0; i < count && buffers != NULL; ++i) {
        shb_destroy(buffers[i]);
    }
    free(sources);
    free(buffers);
    return result == 0 ? 0 : 1;
}

/* 1 once the condition of `when` holds, 0 after 30 s. */
static int wait_until(const char *when, void *source, shb_buffer_t *buffer, uint64_t frames_before) {
    const double end = now_ms() + 30e3;
    if (strcmp(when, "after") == 0) {
        return 1;
    }
    while (now_ms() < end) {
        source_status_t status;
        gst_source_get_status(source, &status);
        if (strcmp(when, "playing") == 0 ? video_frames(buffer) > frames_before
                                         : strncmp(status.state, "reconnect", sizeof status.state) == 0) {
            return 1;
        }
        sleep_ms(2);
    }
    return 0;
}

int main(int argc, char **argv) {
    const char *mode = argc > 1 ? argv[1] : "";
    const int closes = strcmp(mode, "close") == 0;
    FILE *out;
    char name[64];
    shb_buffer_t *buffer;
    int result = 0;

    if (argc < 4 || (closes && argc < 6)) {
        fprintf(stderr, "usage: %s run URL SECONDS | close URL WHEN CYCLES DELAY_MS | fleet VIDEO_BYTES URL...\n", argv[0]);
        return 2;
    }
    /* The library's log goes to standard output; the figures keep a stream of their own. */
    out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == NULL || freopen("/dev/null", "w", stdout) == NULL) {
        return 2;
    }
    if (strcmp(mode, "fleet") == 0) {
        result = run_fleet(out, argv[2], argv + 3, argc - 3);
        fclose(out);
        return result;
    }
    snprintf(name, sizeof name, "gst-source-bench-%d", (int)getpid());
    result = shb_create(name, NULL, &buffer);
    if (result != SHB_OK) {
        fprintf(stderr, "%s: %s\n", name, shb_strerror(result));
        return 1;
    }
    if (!closes) {
        shb_stats_t stats = SHB_INIT(shb_stats_t);
        void *source = create(argv[2], buffer);
        result = open_source(source, argv[2]);
        sleep_ms(atof(argv[3]) * 1e3);
        shb_buffer_stats(buffer, 0, 0, SHB_VIDEO, &stats);
        gst_source_destroy(source);
        fprintf(out, "%llu %llu\n", (unsigned long long)stats.total_frames, (unsigned long long)stats.total_bytes);
    } else {
        for (int cycle = 0; cycle < atoi(argv[4]) && result == 0; ++cycle) {
            /* A new handle each time: a source that was closed once does not rebuild any more. */
            void *source = create(argv[2], buffer);
            const uint64_t before = video_frames(buffer);
            double start;
            result = open_source(source, argv[2]);
            if (result == 0 && !wait_until(argv[3], source, buffer, before)) {
                fprintf(stderr, "%s: not '%s' within 30 s\n", argv[2], argv[3]);
                result = 1;
            }
            sleep_ms(atof(argv[5]));
            start = now_ms();
            gst_source_close_live_stream(source);
            fprintf(out, "%.1f\n", now_ms() - start);
            fflush(out);
            gst_source_destroy(source);
        }
    }
    shb_destroy(buffer);
    fclose(out);
    return result == 0 ? 0 : 1;
}
