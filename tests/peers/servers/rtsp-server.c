/*
 * rtsp-server.c - the RTSP server of the peer tests: one mount "/stream" that plays a Matroska file from its start for each client.
 *
 * Prints "port N" once it listens, and one line for each request that it grants ("request DESCRIBE")
 * and for each of its answers ("response 200").
 */
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <stdio.h>
#include <string.h>

static gchar *file = NULL;
static gchar *video = NULL;
static gchar *audio = NULL;
static gchar *transports = NULL;
static gchar *auth = NULL;
static gchar *user = NULL;
static gchar *password = NULL;
static gchar *certificate = NULL;
static gchar *damage = NULL;
static gchar *address = "127.0.0.1";
static gboolean metadata = FALSE;
static gint port = 0;

static const GOptionEntry options[] = {
    {"file", 0, 0, G_OPTION_ARG_FILENAME, &file, "Matroska file to play", "FILE"},
    {"video", 0, 0, G_OPTION_ARG_STRING, &video, "h264 or h265", "CODEC"},
    {"audio", 0, 0, G_OPTION_ARG_STRING, &audio, "aac, opus, pcma or pcmu", "CODEC"},
    {"transports", 0, 0, G_OPTION_ARG_STRING, &transports, "tcp, udp or both (default)", "NAME"},
    {"auth", 0, 0, G_OPTION_ARG_STRING, &auth, "basic or digest", "NAME"},
    {"user", 0, 0, G_OPTION_ARG_STRING, &user, "user who may play", "NAME"},
    {"password", 0, 0, G_OPTION_ARG_STRING, &password, "the user's password", "TEXT"},
    {"certificate", 0, 0, G_OPTION_ARG_FILENAME, &certificate, "PEM file with certificate and key, for rtsps", "FILE"},
    {"damage", 0, 0, G_OPTION_ARG_STRING, &damage, "element, with properties, that the packets go through", "ELEMENT"},
    {"metadata", 0, 0, G_OPTION_ARG_NONE, &metadata, "add a stream of the media \"application\"", NULL},
    {"address", 0, 0, G_OPTION_ARG_STRING, &address, "address to listen at, instead of 127.0.0.1", "ADDRESS"},
    {"port", 0, 0, G_OPTION_ARG_INT, &port, "port, 0 for one of the kernel's choice", "N"},
    {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL}};

static const gchar *video_chain(void) {
    if (g_strcmp0(video, "h264") == 0) {
        return "h264parse ! rtph264pay pt=96 config-interval=0";
    }
    return g_strcmp0(video, "h265") == 0 ? "h265parse ! rtph265pay pt=96 config-interval=0" : NULL;
}

static const gchar *audio_chain(void) {
    if (g_strcmp0(audio, "aac") == 0) {
        return "aacparse ! rtpmp4gpay pt=97";
    }
    if (g_strcmp0(audio, "opus") == 0) {
        return "opusparse ! rtpopuspay pt=97";
    }
    if (g_strcmp0(audio, "pcma") == 0) {
        return "rtppcmapay pt=8";
    }
    return g_strcmp0(audio, "pcmu") == 0 ? "rtppcmupay pt=0" : NULL;
}

static gchar *launch_line(void) {
    GString *line = g_string_new("( ");
    gint number = 0;
    gchar *behind = damage != NULL ? g_strconcat(" ! ", damage, NULL) : g_strdup("");
    g_string_append_printf(line, "filesrc location=\"%s\" ! matroskademux name=d ", file);
    if (video_chain() != NULL) {
        g_string_append_printf(line, "d.video_0 ! queue ! %s%s name=pay%d ", video_chain(), behind, number++);
    }
    if (audio_chain() != NULL) {
        g_string_append_printf(line, "d.audio_0 ! queue ! %s%s name=pay%d ", audio_chain(), behind, number++);
    }
    if (metadata) {
        g_string_append_printf(
            line, "audiotestsrc samplesperbuffer=4410 ! audio/x-raw,rate=44100,channels=1 ! rtpgstpay pt=98 name=pay%d ",
            number);
    }
    g_string_append(line, ")");
    g_free(behind);
    return g_string_free(line, FALSE);
}

static void protect(GstRTSPServer *server, GstRTSPMediaFactory *factory) {
    GstRTSPAuth *guard = gst_rtsp_auth_new();
    if (auth != NULL) {
        const gboolean basic = strcmp(auth, "basic") == 0;
        GstRTSPToken *token = gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, "player", NULL);
        gst_rtsp_media_factory_add_role(factory, "player", GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                        GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, NULL);
        gst_rtsp_auth_set_supported_methods(guard, basic ? GST_RTSP_AUTH_BASIC : GST_RTSP_AUTH_DIGEST);
        if (basic) {
            gchar *login = gst_rtsp_auth_make_basic(user, password);
            gst_rtsp_auth_add_basic(guard, login, token);
            g_free(login);
        } else {
            gst_rtsp_auth_add_digest(guard, user, password, token);
        }
        gst_rtsp_token_unref(token);
    } else {
        /* TLS alone: everybody may play. */
        GstRTSPToken *token = gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, "anonymous", NULL);
        gst_rtsp_media_factory_add_role(factory, "anonymous", GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                        GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, NULL);
        gst_rtsp_auth_set_default_token(guard, token);
        gst_rtsp_token_unref(token);
    }
    if (certificate != NULL) {
        GError *error = NULL;
        GTlsCertificate *identity = g_tls_certificate_new_from_file(certificate, &error);
        if (identity == NULL) {
            g_error("%s", error->message);
        }
        gst_rtsp_auth_set_tls_certificate(guard, identity);
        g_object_unref(identity);
    }
    gst_rtsp_server_set_auth(server, guard);
    g_object_unref(guard);
}

static void on_request(GstRTSPClient *client, GstRTSPContext *context, gpointer unused) {
    (void)client;
    (void)unused;
    if (context != NULL && context->request != NULL) {
        printf("request %s\n", gst_rtsp_method_as_text(context->request->type_data.request.method));
        fflush(stdout);
    }
}

static void on_message(GstRTSPClient *client, GstRTSPContext *context, GstRTSPMessage *message, gpointer unused) {
    (void)client;
    (void)context;
    (void)unused;
    if (message->type == GST_RTSP_MESSAGE_RESPONSE) {
        printf("response %d\n", message->type_data.response.code);
        fflush(stdout);
    }
}

static void on_client(GstRTSPServer *server, GstRTSPClient *client, gpointer unused) {
    (void)server;
    (void)unused;
    static const char *const requests[] = {"options-request", "describe-request", "setup-request",
                                           "play-request",    "pause-request",    "teardown-request"};
    for (gsize i = 0; i < G_N_ELEMENTS(requests); ++i) {
        g_signal_connect(client, requests[i], G_CALLBACK(on_request), NULL);
    }
    g_signal_connect(client, "send-message", G_CALLBACK(on_message), NULL);
}

int main(int argc, char *argv[]) {
    GError *error = NULL;
    GOptionContext *context = g_option_context_new("- RTSP server of the peer tests");
    g_option_context_add_main_entries(context, options, NULL);
    g_option_context_add_group(context, gst_init_get_option_group());
    if (!g_option_context_parse(context, &argc, &argv, &error) || file == NULL) {
        fprintf(stderr, "%s\n", error != NULL ? error->message : "--file is needed");
        return 2;
    }
    g_option_context_free(context);
    if (damage != NULL) {
        /* The server asks the last element for "pt", which is then no payloader and has none. GLib 2.84 calls that critical. */
        g_log_set_always_fatal(G_LOG_FATAL_MASK);
    }

    GstRTSPServer *server = gst_rtsp_server_new();
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    GstRTSPMountPoints *mounts = gst_rtsp_server_get_mount_points(server);
    gchar *line = launch_line();
    gchar *service = g_strdup_printf("%d", port);
    gst_rtsp_media_factory_set_launch(factory, line);
    if (g_strcmp0(transports, "tcp") == 0) {
        gst_rtsp_media_factory_set_protocols(factory, GST_RTSP_LOWER_TRANS_TCP);
    } else if (g_strcmp0(transports, "udp") == 0) {
        gst_rtsp_media_factory_set_protocols(factory, GST_RTSP_LOWER_TRANS_UDP);
    }
    if (auth != NULL || certificate != NULL) {
        protect(server, factory);
    }
    gst_rtsp_mount_points_add_factory(mounts, "/stream", factory);
    g_object_unref(mounts);
    gst_rtsp_server_set_address(server, address);
    gst_rtsp_server_set_service(server, service);
    g_signal_connect(server, "client-connected", G_CALLBACK(on_client), NULL);
    if (gst_rtsp_server_attach(server, NULL) == 0) {
        fprintf(stderr, "cannot listen at port %d\n", port);
        return 1;
    }
    printf("port %d\n", gst_rtsp_server_get_bound_port(server));
    fflush(stdout);
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    g_main_loop_run(loop);
    return 0;
}
