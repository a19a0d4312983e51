/*
 * gst_source_api.h - keeps live network streams coming and hands their compressed elementary streams to a shared buffer.
 *
 * The C interface of libgst_source. It compiles as C99 and as C++.
 *
 * Life of a source:
 *
 *     create -> (set callback) -> open -> status and media reads -> close -> destroy
 *
 * Every function that returns int answers 0 for success and -1 for failure; the reason of a failure is a line on standard
 * output, unless the function says otherwise. Nothing is ever thrown through this interface.
 *
 * Threads: status and media reads may come from any thread at any time. Open, close and destroy of one handle must not run
 * at the same time on two threads; different handles are independent of each other. No function of one handle's life cycle
 * (open, close, destroy) may be called from that handle's own media-change callback, and none of any kind may run beside
 * destroy. A close or destroy on a thread of the source itself would wait for itself: it is refused.
 */
#ifndef GST_SOURCE_API_H
#define GST_SOURCE_API_H

#include <stdint.h>

#ifndef GST_SOURCE_API
#if defined(__GNUC__)
#define GST_SOURCE_API __attribute__((visibility("default")))
#else
#define GST_SOURCE_API
#endif
#endif

/* Version of this header, which is that of the library it comes with. Minor versions add, and never change or take away. */
#define GST_SOURCE_VERSION_MAJOR 1
#define GST_SOURCE_VERSION_MINOR 0
#define GST_SOURCE_VERSION_PATCH 0
#define GST_SOURCE_VERSION_NUMBER (GST_SOURCE_VERSION_MAJOR << 16 | GST_SOURCE_VERSION_MINOR << 8 | GST_SOURCE_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of source, the `type` argument of gst_source_create. Every other value, 4 included, creates nothing. */
typedef enum source_type_t {
    SOURCE_TYPE_RTSP = 0,
    SOURCE_TYPE_RTMP = 1, /* RTMP, and RTMPS by the scheme of the location */
    SOURCE_TYPE_SRT = 2,
    SOURCE_TYPE_UDP = 3, /* MPEG transport stream over UDP, unicast or multicast */
    SOURCE_TYPE_HLS = 5
} source_type_t;

/* Video side of media_code_info_t. */
typedef struct video_params_t {
    int32_t width;      /* pixels */
    int32_t height;     /* pixels */
    float fps;          /* frames per second as the stream announces them, 0 when it does not */
    uint8_t ref_frames; /* number of reference frames, cut to 8 bits */
    uint8_t scan_type;  /* 0 progressive, 1 interlaced, 2 anything else */
    uint8_t unused[2];
} video_params_t;

/* Audio side of media_code_info_t. */
typedef struct audio_params_t {
    int32_t sample_rate; /* Hz */
    int32_t channels;    /* number of channels */
    int32_t no_samples;  /* samples per frame and channel */
    int32_t extra;       /* the sink's fourth value, as received (shbsink: nominal bits per second, 0 when not announced) */
} audio_params_t;

/* Parameters of one elementary stream, 36 bytes. */
typedef struct media_code_info_t {
    int32_t type;  /*  0: 0 video, 1 audio; tells which side of `params` is in use */
    char code[16]; /*  4: encoding name ("H264", "AAC", ...); NUL-terminated only when shorter than 16 characters */
    union {
        video_params_t video;
        audio_params_t audio;
    } params; /* 20 */
} media_code_info_t;

/*
 * What a source is doing, 168 bytes. Texts are NUL-terminated unless they fill their field.
 */
typedef struct source_status_t {
    char source_mode[16];       /*   0: "live" once a worker has run, empty before */
    char state[16];             /*  16: "", "start", "connected", "reconnect" or "stop"; SRT: "reconnect" until data flows */
    char video_code[16];        /*  32: video encoding name; empty after close */
    uint8_t reserved_video[36]; /*  48: zero */
    uint32_t video_bitrate;     /*  84: measured by the video sink, as received (shbsink: bits per second) */
    int32_t width;              /*  88: pixels */
    int32_t height;             /*  92: pixels */
    float fps;                  /*  96: announced frame rate, frames per second */
    float video_real_fps;       /* 100: measured frame rate, frames per second */
    char audio_code[16];        /* 104: audio encoding name; empty after close */
    uint8_t reserved_audio[32]; /* 120: zero */
    uint32_t audio_bitrate;     /* 152: measured by the audio sink, as received (shbsink: bits per second) */
    int32_t sample_rate;        /* 156: Hz */
    int32_t channels;           /* 160: number of channels */
    float audio_real_fps;       /* 164: measured audio frames per second */
} source_status_t;

/*
 * Called when the parameters of the video or of the audio stream have changed.
 *
 * Runs on a streaming thread of the source, with no lock held; the two kinds may call at the same time. `info` is valid during
 * the call only: copy what is needed. The callback must return soon, must not throw, must not open, close or destroy the source
 * that calls it (close and destroy are refused there), and must not wait for another thread that does.
 */
typedef void (*media_change_callback_t)(void *user, media_code_info_t *info);

/*
 * Creates a source of kind `type` (source_type_t). `share_buffer` is handed to every sink element of the source, with `channel`
 * and `stream`; it stays the host's and must outlive the source. The first source of a process initialises GStreamer.
 *
 * Result: the handle, owned by the caller until gst_source_destroy; NULL for an unknown type (silently), for a null
 * `share_buffer` (with a message), or when there is no memory (with a message).
 */
GST_SOURCE_API void *gst_source_create(int type, void *share_buffer, int channel, int stream);

/*
 * Opens an RTSP location (SOURCE_TYPE_RTSP).
 *
 * url         rtsp://, rtsps:// and the other forms that rtspsrc takes; not null
 * caching     stored; without effect on this protocol
 * protocols   allowed lower transports, a bit mask: 1 UDP, 2 UDP multicast, 4 TCP (interleaved), 16 HTTP tunnel, 32 TLS
 * latency     ms of jitter-buffer latency
 * contimeout  s to wait for the server over TCP; converted to microseconds in 32-bit arithmetic, so 4295 s and more wrap
 * user, pwd   credentials, set only when both are non-empty; not null
 *
 * Returns 0 when the pipeline was built and the worker thread started, which says nothing yet of the server; -1 for a null
 * argument, a handle of another kind, a source that is already open, or a pipeline or thread that could not be made. The same
 * holds for the other open functions. Options are stored as given, without validation. Once the handle has been closed, a
 * later open plays the stream but does not rebuild it when it ends.
 *
 * Note that the open functions write their options, credentials included, to standard output.
 */
GST_SOURCE_API int gst_rtsp_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int protocols,
                                                    unsigned int latency, unsigned int contimeout, const char *user,
                                                    const char *pwd);

/*
 * Opens an SRT location (SOURCE_TYPE_SRT). All texts not null; empty means not wanted.
 *
 * caching       0 sets the demultiplexer latency to 0, everything else leaves it at 50 ms
 * mode          "listener", "rendezvous", anything else is "caller"; also in capitals and with a leading capital
 * streamid      non-empty: presented to the peer, and as a listener only callers with exactly this id are admitted
 * passphrase    10 to 79 characters; set only together with a keylen that is not 0
 * keylen        bytes of the encryption key: 16, 24 or 32
 * latency       ms of SRT latency
 * tslatency     logged only
 * localaddress  address to bind
 */
GST_SOURCE_API int gst_srt_source_open_live_stream(void *handle, const char *url, unsigned int caching, const char *mode,
                                                   const char *streamid, const char *passphrase, unsigned int keylen,
                                                   unsigned int latency, unsigned int tslatency, const char *localaddress);

/*
 * Opens an RTMP or RTMPS location (SOURCE_TYPE_RTMP). All texts not null; empty means not wanted.
 *
 * caching       stored; without effect on this protocol
 * contimeout    s to wait for the server
 * idle_timeout  s without data after which an RTMP session ends, 0 never; not used for RTMPS
 * user, pwd     credentials, used only when both are non-empty; put into the location for RTMPS, where librtmp
 *               takes them for the host name and does not connect
 * token         secure token; not used for RTMPS
 */
GST_SOURCE_API int gst_rtmp_source_open_live_stream(void *handle, const char *url, unsigned int caching,
                                                    unsigned int contimeout, unsigned int idle_timeout, const char *user,
                                                    const char *pwd, const char *token);

/*
 * Opens an MPEG transport stream over UDP (SOURCE_TYPE_UDP).
 *
 * url         udp://ADDRESS:PORT, the URI form of udpsrc, handed over as it is; a multicast address joins the group
 * caching     0 sets the demultiplexer latency to 0, everything else leaves it to ts_latency
 * ts_latency  ms of demultiplexer latency
 * mtu         bytes of the largest expected datagram
 *
 * Five seconds without a datagram end the session; it is rebuilt about three seconds later.
 */
GST_SOURCE_API int gst_udp_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int ts_latency,
                                                   unsigned int mtu);

/*
 * Opens an HLS playlist over HTTP (SOURCE_TYPE_HLS) whose segments are MPEG transport streams. All texts not null; empty means
 * not wanted.
 *
 * caching             0 sets the demultiplexer latency to 0, everything else leaves it at 50 ms
 * islive              not 0: the HTTP source behaves as a live source
 * timeout             s until a silent HTTP request is given up, at most 3600
 * retries             attempts of a failed request, -1 for no end
 * proxy               URI of an HTTP proxy, refused (-1) when it would end the process
 * proxy_id, proxy_pwd credentials for the proxy, used only when all three are non-empty
 * user_agent          HTTP user agent
 * user_id, user_pw    credentials for the web server of url and no other, each by itself
 *
 * Of a playlist with several variants the fastest is played (docs/protocols.md).
 */
GST_SOURCE_API int gst_hls_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int islive,
                                                   unsigned int timeout, int retries, const char *proxy, const char *proxy_id,
                                                   const char *proxy_pwd, const char *user_agent, const char *user_id,
                                                   const char *user_pw);

/*
 * Ends the session: stops the worker, brings the pipeline down and sets the state to "stop". Returns 0 also when nothing was
 * open, -1 (silently) for a null handle. Waits for the worker, up to 100 ms and as long as a framework call takes, and for a
 * callback that is running.
 *
 * Called on a thread that it would have to wait for (in the source's own media-change callback, in a handler that the host has
 * connected to its sink, on the worker) it changes nothing, says so on standard output and returns -1.
 */
GST_SOURCE_API int gst_source_close_live_stream(void *handle);

/* Copies the status record. Returns 0, or -1 for a null argument. Any thread. */
GST_SOURCE_API int gst_source_get_status(void *handle, source_status_t *status);

/* Copies the current video and audio parameters. Returns 0, or -1 for a null argument. Any thread. */
GST_SOURCE_API int gst_source_get_media_info(void *handle, media_code_info_t *video_info, media_code_info_t *audio_info);

/*
 * Installs the media-change callback, best before open. It can be replaced, not removed; the previous one may still be running,
 * or be about to run, when this returns, so its user data stays in use until the source is closed. `user` is handed back and
 * never touched; it may be null. A null handle or callback gives a message and changes nothing.
 */
GST_SOURCE_API void gst_source_set_media_change_callback(void *handle, media_change_callback_t callback, void *user);

/*
 * Closes the source if need be and frees it; the handle is gone. A null handle is ignored. Where gst_source_close_live_stream is
 * refused, so is this: nothing is freed and the handle stays valid.
 */
GST_SOURCE_API void gst_source_destroy(void *handle);

#ifdef __cplusplus
}
#endif

#endif /* GST_SOURCE_API_H */
