#include "file_writer.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "elements.h"
#include "output.h"

namespace reader {
namespace {

constexpr const char *kBase = "gstreamer1.0-plugins-base";
constexpr const char *kCore = "libgstreamer1.0-0";

// Room for decoding times before the beginning, which are of pictures that are shown later.
constexpr GstClockTime kOrigin = GstClockTime{3'600'000} * GST_SECOND;

GstClockTime Placed(int64_t time, int64_t zero) {
    return static_cast<GstClockTime>(static_cast<int64_t>(kOrigin) + time - zero);
}

bool IsMp4(const Container &container) {
    return std::strcmp(container.muxer, "mp4mux") == 0;
}

// What has been killed is playable only in fragments. GStreamer 1.22 to 1.26: mp4mux that writes the header first
// says neither where a track begins, so every track has to begin at the same decoding time (see Write), nor what
// AC-3 needs, which it writes over the first fragment. With AC-3 the header comes after the first fragment; a
// killed file then plays in everything that uses libavformat, and not in VLC.
bool HasHeaderFirst(const Container &container, const FileWriter::TrackCaps &caps) {
    return IsMp4(container) && !(caps[SHB_AUDIO] != nullptr &&
                                 gst_structure_has_name(gst_caps_get_structure(caps[SHB_AUDIO], 0), "audio/x-ac3") != FALSE);
}

// What the system said, without the framework's words around it.
std::string WriteError(GstMessage *message) {
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const ErrorPtr owned(error);
    if (g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT) != FALSE) {
        return std::strerror(ENOSPC);
    }
    const std::string text = ErrorText(message);
    constexpr std::string_view kBefore = "Error while writing to file descriptor ";
    const size_t found = text.find(kBefore);
    const size_t colon = found != std::string::npos ? text.find(": ", found) : found;
    return colon == std::string::npos ? text : text.substr(colon + 2, text.size() - colon - 3);
}

const char *PadTemplate(const Container &container, shb_kind_t kind) {
    if (std::strcmp(container.muxer, "mpegtsmux") == 0) {
        return "sink_%d";
    }
    return kind == SHB_VIDEO ? "video_%u" : "audio_%u";
}

}  // namespace

FileWriter::FileWriter(const Container &container, const FileStart &start, const TrackCaps &caps, tool::Fd fd, std::string what)
    : m_container(container), m_start(start), m_name(std::move(what)), m_fd(std::move(fd)) {
    GstElement *sink = MakeElement("fdsink", kCore);
    g_object_set(sink, "fd", m_fd.Get(), "sync", FALSE, "async", FALSE, nullptr);
    Build(caps, sink);
}

FileWriter::FileWriter(const Container &container, const FileStart &start, const TrackCaps &caps)
    : m_container(container), m_start(start), m_name("standard output") {
    Build(caps, MakePipeSink());
}

FileWriter::~FileWriter() {
    m_pipeline.reset();
    for (Track &track : m_tracks) {
        gst_clear_buffer_list(&track.batch);
    }
}

void FileWriter::Build(const TrackCaps &caps, GstElement *sink) {
    const ElementPtr owned_sink(GST_ELEMENT(gst_object_ref_sink(sink)));
    const ElementPtr muxer(GST_ELEMENT(gst_object_ref_sink(MakeElement(m_container.muxer, m_container.package))));
    m_header_first = HasHeaderFirst(m_container, caps);
    if (IsMp4(m_container)) {
        constexpr guint kFragmentMs = 500;
        constexpr int kFirstFragmentThenHeader = 1;
        g_object_set(muxer.get(), "fragment-duration", kFragmentMs, "fragment-mode",
                     m_header_first ? 0 : kFirstFragmentThenHeader, nullptr);
    }
    if (!m_fd && std::strcmp(m_container.muxer, "matroskamux") == 0) {
        g_object_set(muxer.get(), "streamable", TRUE, nullptr);
    }
    m_pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    gst_bin_add_many(GST_BIN(m_pipeline.get()), muxer.get(), sink, nullptr);
    if (gst_element_link(muxer.get(), sink) == FALSE) {
        throw std::runtime_error(m_name + ": the muxer has no output");
    }
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        if (caps[kind] != nullptr) {
            AddTrack(kind, caps[kind], muxer.get());
        }
    }
    if (gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        Look();
        throw std::runtime_error(m_name + ": " + (m_reason.empty() ? "the muxer does not start" : m_reason));
    }
}

void FileWriter::AddTrack(shb_kind_t kind, const GstCaps *caps, GstElement *muxer) {
    GstElement *source = MakeElement("appsrc", kBase);
    m_tracks[kind].source.reset(GST_ELEMENT(gst_object_ref_sink(source)));
    // Bounded by whoever writes (see Queued).
    g_object_set(source, "format", GST_FORMAT_TIME, "max-bytes", guint64{0}, "handle-segment-change", TRUE, "caps", caps,
                 nullptr);
    gst_bin_add(GST_BIN(m_pipeline.get()), source);
    const PadPtr from(gst_element_get_static_pad(source, "src"));
    const PadPtr into(gst_element_request_pad_simple(muxer, PadTemplate(m_container, kind)));
    if (into == nullptr || gst_pad_link(from.get(), into.get()) != GST_PAD_LINK_OK) {
        throw std::runtime_error(m_name + ": the muxer does not take the " + (kind == SHB_VIDEO ? "picture" : "sound"));
    }
    if (kind == SHB_VIDEO && IsMp4(m_container)) {
        // The default follows the announced frame rate, which real frames do not keep.
        constexpr guint kTimescale = 90000;
        g_object_set(into.get(), "trak-timescale", kTimescale, nullptr);
    }
}

GstElement *FileWriter::MakePipeSink() {
    GstElement *sink = MakeElement("appsink", kBase);
    g_object_set(sink, "sync", FALSE, "async", FALSE, "buffer-list", TRUE, "enable-last-sample", FALSE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = [](GstAppSink *app_sink, gpointer self) { return OnSample(app_sink, self); };
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
    return sink;
}

GstFlowReturn FileWriter::OnSample(gpointer sink, gpointer self) {
    auto &writer = *static_cast<FileWriter *>(self);
    const SamplePtr sample(gst_app_sink_pull_sample(GST_APP_SINK(sink)));
    if (sample == nullptr) {
        return GST_FLOW_EOS;
    }
    GstBufferList *list = gst_sample_get_buffer_list(sample.get());
    const guint count = list != nullptr ? gst_buffer_list_length(list) : 1;
    for (guint i = 0; i < count; ++i) {
        GstBuffer *buffer = list != nullptr ? gst_buffer_list_get(list, i) : gst_sample_get_buffer(sample.get());
        GstMapInfo map;
        if (buffer == nullptr || gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) {
            continue;
        }
        std::exception_ptr failure;
        try {
            WriteOut({reinterpret_cast<const char *>(map.data), map.size});
        } catch (...) {
            failure = std::current_exception();
        }
        writer.m_written += map.size;
        gst_buffer_unmap(buffer, &map);
        if (failure) {
            const std::lock_guard<std::mutex> lock(writer.m_mutex);
            writer.m_failure = failure;
            return GST_FLOW_ERROR;
        }
    }
    return GST_FLOW_OK;
}

void FileWriter::Push(Track &track, GstBuffer *buffer) {
    if (track.batch == nullptr) {
        track.batch = gst_buffer_list_new();
    }
    gst_buffer_list_add(track.batch, buffer);
}

void FileWriter::Write(Frame frame) {
    Track &track = m_tracks[frame.kind];
    if (track.source == nullptr || track.ended || frame.data == nullptr) {
        return;
    }
    GstBuffer *buffer = gst_buffer_make_writable(frame.data.release());
    GST_BUFFER_PTS(buffer) = Placed(frame.pts, m_start.zero);
    GST_BUFFER_DTS(buffer) = Placed(frame.dts, m_start.zero);
    GST_BUFFER_DURATION(buffer) = frame.duration > 0 ? static_cast<GstClockTime>(frame.duration) : GST_CLOCK_TIME_NONE;
    if (track.frames == 0 && m_header_first) {
        GST_BUFFER_DTS(buffer) = Placed(m_start.decoding_zero, m_start.zero);
    }
    ++track.frames;
    m_length = std::max(m_length, frame.pts + frame.duration - m_start.zero);
    Push(track, buffer);
}

void FileWriter::Skip(shb_kind_t kind, int64_t time) {
    Track &track = m_tracks[kind];
    if (track.source == nullptr || track.ended || m_container.silence == Silence::kCannot) {
        return;
    }
    GstBuffer *nothing = gst_buffer_new();
    if (m_container.silence == Silence::kNoPresentation) {
        // matroskamux takes no gap events. It puts frames in the order of their decoding times, and throws those
        // away that have no presentation time.
        GST_BUFFER_DTS(nothing) = Placed(time, m_start.zero);
    } else {
        // What a gap event becomes in a GstAggregator.
        GST_BUFFER_PTS(nothing) = Placed(time, m_start.zero);
        GST_BUFFER_FLAG_SET(nothing, GST_BUFFER_FLAG_GAP | GST_BUFFER_FLAG_DROPPABLE);
    }
    Push(track, nothing);
}

void FileWriter::FlushTrack(Track &track) {
    if (track.batch == nullptr) {
        return;
    }
    GstBufferList *batch = std::exchange(track.batch, nullptr);
    if (track.begun) {
        gst_app_src_push_buffer_list(GST_APP_SRC(track.source.get()), batch);
        return;
    }
    track.begun = true;
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = segment.position = kOrigin;
    GstCaps *caps = gst_app_src_get_caps(GST_APP_SRC(track.source.get()));
    const CapsPtr owned(caps);
    const SamplePtr sample(gst_sample_new(nullptr, caps, &segment, nullptr));
    gst_sample_set_buffer_list(sample.get(), batch);
    gst_buffer_list_unref(batch);
    gst_app_src_push_sample(GST_APP_SRC(track.source.get()), sample.get());
}

void FileWriter::Flush() {
    for (Track &track : m_tracks) {
        FlushTrack(track);
    }
}

void FileWriter::EndTrack(shb_kind_t kind) {
    Track &track = m_tracks[kind];
    if (track.source == nullptr || track.ended) {
        return;
    }
    FlushTrack(track);
    track.ended = true;
    gst_app_src_end_of_stream(GST_APP_SRC(track.source.get()));
}

// A network file system may say only now that there was no room.
bool FileWriter::CloseFile() {
    if (!m_fd) {
        return true;
    }
    m_written = Bytes();
    gst_element_set_state(m_pipeline.get(), GST_STATE_NULL);
    const int error = m_fd.Close();
    if (error != 0) {
        m_reason = std::strerror(error);
    }
    return error == 0;
}

FileWriter::State FileWriter::Look() {
    if (m_end) {
        return *m_end;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_failure) {
            std::rethrow_exception(m_failure);
        }
    }
    const BusPtr bus(gst_element_get_bus(m_pipeline.get()));
    while (true) {
        const MessagePtr message(
            gst_bus_pop_filtered(bus.get(), static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
        if (message == nullptr) {
            return State::kRunning;
        }
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
            m_end = CloseFile() ? State::kDone : State::kFailed;
        } else {
            m_end = State::kFailed;
            m_reason = WriteError(message.get());
        }
        return *m_end;
    }
}

uint64_t FileWriter::Queued() const {
    uint64_t bytes = 0;
    for (const Track &track : m_tracks) {
        bytes += track.source != nullptr ? gst_app_src_get_current_level_bytes(GST_APP_SRC(track.source.get())) : 0;
    }
    return bytes;
}

uint64_t FileWriter::Bytes() const {
    struct stat file {};
    if (m_fd && fstat(m_fd.Get(), &file) == 0) {
        return static_cast<uint64_t>(file.st_size);
    }
    return m_written.load();
}

}  // namespace reader
