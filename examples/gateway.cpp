// A gateway: sends video and audio of a shared buffer by RTP, and prints the SDP file that receivers open.
//
//     g++ -std=c++17 gateway.cpp -o gateway $(pkg-config --cflags --libs gst-source-cpp gstreamer-app-1.0 gstreamer-sdp-1.0)
//     ./gateway camera 127.0.0.1 5004 > camera.sdp
//     ffplay -protocol_whitelist file,udp,rtp camera.sdp
//
// Video goes to PORT, its RTCP to PORT + 1, audio to PORT + 2 and PORT + 3. Nothing is decoded or encoded.
// What leaves the payloaders is what WebRTC wants: it begins with a key frame, each key frame has its
// parameter sets, and the payload types are the usual ones. For a browser, link pay0 and pay1 to a webrtcbin
// instead of the rtpbin below.
//
// Ends with exit code 0 on Ctrl-C and when the host of the buffer closes it; otherwise with a line that says
// why.
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/sdp/gstsdpmessage.h>
#include <gst_source.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace gs = gst_source;
using namespace std::chrono_literals;

namespace {

volatile std::sig_atomic_t interrupted = 0;

// How a codec of the buffer becomes RTP. The parsers put the parameter sets before each key frame. rtph264pay
// of GStreamer 1.22 must not: with config-interval=-1 it puts them before every slice, and receivers take the
// slices for pictures.
struct Codec {
    const char *code;    // Description::code
    const char *format;  // Description::format that the caps below stand for, "" for any
    const char *caps;
    const char *payloader;
    bool in_browsers;
};
constexpr Codec codecs[] = {
    {"H264", "byte-stream", "video/x-h264,stream-format=byte-stream,alignment=au",
     "h264parse config-interval=-1 ! rtph264pay pt=96 aggregate-mode=zero-latency", true},
    {"H265", "byte-stream", "video/x-h265,stream-format=byte-stream,alignment=au",
     "h265parse config-interval=-1 ! rtph265pay pt=97 aggregate-mode=zero-latency", false},
    {"OPUS", "", "audio/x-opus,channel-mapping-family=0", "rtpopuspay pt=111", true},
    {"PCMU", "", "audio/x-mulaw,rate=8000,channels=1", "rtppcmupay pt=0", true},
    {"PCMA", "", "audio/x-alaw,rate=8000,channels=1", "rtppcmapay pt=8", true},
    {"AAC", "adts", "audio/mpeg,mpegversion=4,stream-format=adts", "aacparse ! rtpmp4gpay pt=98", false},
    {"MP3", "", "audio/mpeg,mpegversion=1", "mpegaudioparse ! rtpmpapay pt=14", false},
};

struct Unref {
    void operator()(void *object) const { gst_object_unref(object); }
    void operator()(GstCaps *caps) const { gst_caps_unref(caps); }
    void operator()(GstMessage *message) const { gst_message_unref(message); }
    void operator()(GstSDPMessage *sdp) const { gst_sdp_message_free(sdp); }
    void operator()(GstSDPMedia *media) const { gst_sdp_media_free(media); }
    void operator()(GError *error) const { g_error_free(error); }
    void operator()(gchar *text) const { g_free(text); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

struct StopAndUnref {
    void operator()(GstElement *pipeline) const {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
using Pipeline = std::unique_ptr<GstElement, StopAndUnref>;

// One track on its way from the buffer to the network.
struct Branch {
    gs::Reader reader;
    gs::Description media;
    const Codec *codec;
    int port;
    Owned<GstElement> appsrc, payloader;
    std::uint64_t epoch = 0;
    std::uint32_t description = 0;
};

const Codec &codec_of(const gs::Description &media) {
    const auto *codec = std::find_if(std::begin(codecs), std::end(codecs), [&](const Codec &candidate) {
        return media.code == candidate.code && (candidate.format[0] == '\0' || media.format == candidate.format);
    });
    if (codec == std::end(codecs)) {
        throw std::runtime_error(media.code + (media.format.empty() ? "" : " " + media.format) +
                                 ": this gateway has no payloader for it");
    }
    if (!codec->in_browsers) {
        std::fprintf(stderr, "gateway: %s plays in RTP receivers, but in few browsers\n", codec->code);
    }
    if (media.reorder_frames.value_or(0) > 0) {
        std::fprintf(stderr, "gateway: %s has B frames, which browsers show out of order\n", codec->code);
    }
    return *codec;
}

// Waits until a track has a frame and says what it is; empty when the source has no such track, or shows none
// in time.
std::optional<gs::Description> media_of(const gs::Map &map, gs::Reader &reader, gs::Kind kind) {
    constexpr auto patience = 3s;
    const auto end = std::chrono::steady_clock::now() + patience;
    const gs::Track track = {0, 0, kind};
    while (interrupted == 0) {
        const auto frame = reader.wait(gs::no_wait);
        auto media = map.description(track);
        if (frame && media) {
            return std::move(*media);
        }
        if (frame.code() == gs::Errc::closed || map.stats(track)->presence == gs::Presence::absent ||
            std::chrono::steady_clock::now() > end) {
            break;
        }
        std::this_thread::sleep_for(20ms);
    }
    return std::nullopt;
}

// A branch for each track that has frames; none when it was interrupted before.
std::vector<Branch> open_branches(const gs::Map &map, int port) {
    auto [video, audio] = gs::open_av(map, 0, 0, gs::Position::key()).value();
    gs::Result<std::size_t> first = 0;
    do {
        first = gs::wait_any({&video, &audio}, 200ms);
        if (interrupted != 0) {
            return {};
        }
    } while (first.code() == gs::Errc::timeout);
    std::vector<Branch> branches;
    for (const gs::Kind kind : {gs::Kind::video, gs::Kind::audio}) {
        gs::Reader &reader = kind == gs::Kind::video ? video : audio;
        if (auto media = media_of(map, reader, kind)) {
            const Codec &codec = codec_of(*media);
            branches.push_back(
                {std::move(reader), std::move(*media), &codec, kind == gs::Kind::video ? port : port + 2, {}, {}});
        }
    }
    return branches;
}

Owned<GstElement> element(GstElement *pipeline, const char *name, std::size_t index) {
    return Owned<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline), (name + std::to_string(index)).c_str()));
}

// appsrc, payloader and two sinks a branch, around one rtpbin, whose RTCP relates the clocks of video and
// audio.
Pipeline make_pipeline(std::vector<Branch> &branches, const char *host) {
    std::ostringstream text;
    text << "rtpbin name=rtp";
    for (std::size_t i = 0; i < branches.size(); ++i) {
        // A full appsrc blocks: then this reader is the one that loses frames, and goes on with a key frame.
        text << " appsrc name=src" << i << " is-live=true format=time block=true caps=\"" << branches[i].codec->caps << "\" ! "
             << branches[i].codec->payloader << " name=pay" << i << " ! rtp.send_rtp_sink_" << i << " rtp.send_rtp_src_" << i
             << " ! udpsink name=rtpsink" << i << " sync=false async=false rtp.send_rtcp_src_" << i
             << " ! udpsink name=rtcpsink" << i << " sync=false async=false";
    }
    GError *failure = nullptr;
    Pipeline pipeline(gst_parse_launch(text.str().c_str(), &failure));
    if (failure != nullptr) {
        const Owned<GError> owned(failure);
        throw std::runtime_error(failure->message);
    }
    for (std::size_t i = 0; i < branches.size(); ++i) {
        branches[i].appsrc = element(pipeline.get(), "src", i);
        branches[i].payloader = element(pipeline.get(), "pay", i);
        g_object_set(element(pipeline.get(), "rtpsink", i).get(), "host", host, "port", branches[i].port, nullptr);
        g_object_set(element(pipeline.get(), "rtcpsink", i).get(), "host", host, "port", branches[i].port + 1, nullptr);
    }
    return pipeline;
}

// The description for receivers; empty until every payloader knows what it sends.
std::string sdp_of(const std::vector<Branch> &branches, const char *host) {
    const char *family = std::string(host).find(':') == std::string::npos ? "IP4" : "IP6";
    GstSDPMessage *made = nullptr;
    gst_sdp_message_new(&made);
    const Owned<GstSDPMessage> sdp(made);
    gst_sdp_message_set_version(made, "0");
    gst_sdp_message_set_origin(made, "-", "1", "1", "IN", family, host);
    gst_sdp_message_set_session_name(made, "gateway");
    gst_sdp_message_set_connection(made, "IN", family, host, 1, 0);
    gst_sdp_message_add_time(made, "0", "0", nullptr);
    for (const Branch &branch : branches) {
        const Owned<GstPad> pad(gst_element_get_static_pad(branch.payloader.get(), "src"));
        const Owned<GstCaps> caps(gst_pad_get_current_caps(pad.get()));
        if (caps == nullptr) {
            return {};
        }
        GstSDPMedia *media = nullptr;
        gst_sdp_media_new(&media);
        const Owned<GstSDPMedia> owned(media);
        gst_sdp_media_set_media_from_caps(caps.get(), media);
        gst_sdp_media_set_port_info(media, static_cast<guint>(branch.port), 1);
        gst_sdp_media_set_proto(media, "RTP/AVP");
        gst_sdp_message_add_media(made, media);
    }
    return Owned<gchar>(gst_sdp_message_as_text(made)).get();
}

GstClockTime clock_time(gs::MonotonicTime time) {
    return static_cast<GstClockTime>(time.time_since_epoch().count());
}

// The source may have connected again, to something else.
void check_media(Branch &branch, const gs::Frame &frame) {
    if (frame.epoch == branch.epoch && frame.description == branch.description) {
        return;
    }
    branch.epoch = frame.epoch;
    branch.description = frame.description;
    const auto media = branch.reader.description();
    if (media && (media->code != branch.media.code || media->format != branch.media.format)) {
        throw std::runtime_error("the stream is " + media->code + " now, not " + branch.media.code +
                                 ": start the gateway again");
    }
}

// Takes one frame out of the buffer, with one copy.
void pass_on(Branch &branch) {
    auto borrowed = branch.reader.borrow(gs::no_wait);
    if (borrowed.code() == gs::Errc::timeout) {
        return;  // overwritten since it was waited for, and no key frame has come yet
    }
    gs::BorrowedFrame frame = std::move(borrowed).value();
    check_media(branch, *frame);
    GstBuffer *buffer = gst_buffer_new_memdup(frame->data.data(), frame->data.size());
    GST_BUFFER_PTS(buffer) = clock_time(frame->pts_time().value_or(frame->arrival));
    GST_BUFFER_DTS(buffer) = frame->dts_time() ? clock_time(*frame->dts_time()) : GST_CLOCK_TIME_NONE;
    if (!frame->key) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    }
    if (frame->lost > 0 || frame->discont) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    // Overwritten while it was copied: the next frame says how many are lost.
    if (!frame.give_back()) {
        gst_buffer_unref(buffer);
        return;
    }
    gst_app_src_push_buffer(GST_APP_SRC(branch.appsrc.get()), buffer);
}

void throw_bus_error(GstElement *pipeline) {
    const Owned<GstBus> bus(gst_element_get_bus(pipeline));
    const Owned<GstMessage> message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    if (message != nullptr) {
        GError *error = nullptr;
        gst_message_parse_error(message.get(), &error, nullptr);
        const Owned<GError> owned(error);
        throw std::runtime_error(error->message);
    }
}

// Until it is interrupted, or the buffer is closed.
void run(const gs::Map &map, const char *host, int port) {
    std::vector<Branch> branches = open_branches(map, port);
    if (branches.empty()) {
        if (interrupted == 0 && map.alive()) {
            throw std::runtime_error("frames have come, but no track says what they are");
        }
        return;
    }
    const Pipeline pipeline = make_pipeline(branches, host);
    // With the system's clock and a base time of 0, the running time of the pipeline is CLOCK_MONOTONIC: the
    // time of the frames. So the RTCP reports give receivers the right relation of video and audio.
    const Owned<GstClock> clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(pipeline.get()), clock.get());
    gst_element_set_start_time(pipeline.get(), GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(pipeline.get(), 0);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    std::vector<gs::Reader *> readers;
    readers.reserve(branches.size());
    for (Branch &branch : branches) {
        readers.push_back(&branch.reader);
    }
    std::string sdp;
    std::size_t last = gs::no_index;
    while (interrupted == 0) {
        throw_bus_error(pipeline.get());
        const auto ready = gs::wait_any(readers, 200ms, last);
        if (ready.code() != gs::Errc::timeout) {
            last = ready.value();
            pass_on(branches[last]);
        }
        if (sdp.empty() && !(sdp = sdp_of(branches, host)).empty()) {
            std::printf("%s", sdp.c_str());
            std::fflush(stdout);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    gst_init(&argc, &argv);
    constexpr long largest_port = 65532;  // and three more
    const long port = argc == 4 ? std::strtol(argv[3], nullptr, 10) : 0;
    if (port < 1 || port > largest_port) {
        std::fprintf(stderr, "usage: gateway NAME HOST PORT    PORT from 1 to %ld, and the next three\n", largest_port);
        return 2;
    }
    std::signal(SIGINT, [](int) { interrupted = 1; });
    std::signal(SIGTERM, [](int) { interrupted = 1; });
    try {
        run(gs::Map::attach(argv[1]).value(), argv[2], static_cast<int>(port));
    } catch (const gs::BadResult &bad) {
        if (bad.error().code() != gs::Errc::closed) {
            std::fprintf(stderr, "gateway: %s\n", bad.what());
            return 1;
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "gateway: %s\n", error.what());
        return 1;
    }
    return 0;
}
