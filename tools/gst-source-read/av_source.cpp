#include "av_source.h"

#include <gst/app/gstappsink.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "codec.h"
#include "elements.h"

namespace reader {
namespace {

constexpr const char *kBase = "gstreamer1.0-plugins-base";
constexpr const char *kCore = "libgstreamer1.0-0";
// Waiting for whoever takes them.
constexpr size_t kMostBytes = size_t{32} << 20;
// More than a parser ever holds back.
constexpr size_t kMostKeys = 16;

shb_kind_t KindOf(std::string_view name) {
    return name == "audio" ? SHB_AUDIO : SHB_VIDEO;
}

uint64_t Number(const GstStructure *structure, const char *field) {
    guint64 value = 0;
    gst_structure_get_uint64(structure, field, &value);
    return value;
}

int64_t Signed(GstClockTime time) {
    return GST_CLOCK_TIME_IS_VALID(time) ? static_cast<int64_t>(time) : 0;
}

}  // namespace

AvSource::AvSource(Settings settings, const Container &container)
    : m_settings(std::move(settings)), m_container(container), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        m_branches[kind].self = this;
        m_branches[kind].kind = kind;
    }
    m_pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    m_bin = GST_BIN(m_pipeline.get());
    GstElement *source = MakeElement("shbsrc", "gst-source");
    g_object_set(source, "buffer", m_settings.buffer.c_str(), "channel", static_cast<gint>(m_settings.channel), "stream",
                 static_cast<gint>(m_settings.stream), "start", m_settings.start.c_str(), "follow",
                 m_settings.follow ? TRUE : FALSE, "interval", static_cast<guint>(m_settings.interval_ms), nullptr);
    g_signal_connect(source, "pad-added", G_CALLBACK(OnPadAdded), this);
    gst_bin_add(m_bin, source);
    // What goes wrong stands on the bus.
    gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
}

AvSource::~AvSource() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_taken.notify_all();
    m_pipeline.reset();
}

void AvSource::Wake() const {
    eventfd_write(m_wake.Get(), 1);
}

void AvSource::Acknowledge() const {
    eventfd_t count = 0;
    eventfd_read(m_wake.Get(), &count);
}

void AvSource::Tell(Event event) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_failed = m_failed || event.what == Event::What::kFailed;
        m_events.push_back(std::move(event));
    }
    Wake();
}

// ---- Threads of the element ----------------------------------------------------------------------------------------

void AvSource::OnPadAdded(GstElement * /*element*/, GstPad *pad, gpointer self) {
    auto &source = *static_cast<AvSource *>(self);
    const TextPtr name(gst_pad_get_name(pad));
    Branch &branch = source.m_branches[KindOf(name.get())];
    branch.pad = pad;
    if (!source.m_settings.wanted[branch.kind]) {
        source.Discard(branch);
        return;
    }
    gst_pad_add_probe(pad,
                      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_BUFFER |
                                                   GST_PAD_PROBE_TYPE_BUFFER_LIST),
                      OnPadData, &branch, nullptr);
    if (const CapsPtr caps{gst_pad_get_current_caps(pad)}) {
        source.TakeCaps(branch, caps.get());
    }
}

GstPadProbeReturn AvSource::OnPadData(GstPad * /*pad*/, GstPadProbeInfo *info, gpointer data) {
    auto &branch = *static_cast<Branch *>(data);
    const auto note = [&branch](GstBuffer *buffer) {
        if (branch.kind == SHB_VIDEO && GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) == FALSE) {
            branch.keys.push_back(GST_BUFFER_PTS(buffer));
        }
    };
    if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0) {
        GstEvent *event = gst_pad_probe_info_get_event(info);
        if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
            GstCaps *caps = nullptr;
            gst_event_parse_caps(event, &caps);
            branch.self->TakeCaps(branch, caps);
        }
    } else if ((info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST) != 0) {
        GstBufferList *list = gst_pad_probe_info_get_buffer_list(info);
        for (guint i = 0; i < gst_buffer_list_length(list); ++i) {
            note(gst_buffer_list_get(list, i));
        }
    } else {
        note(gst_pad_probe_info_get_buffer(info));
    }
    return GST_PAD_PROBE_OK;
}

// A parser takes one codec; for another one there is another parser.
void AvSource::TakeCaps(Branch &branch, GstCaps *caps) {
    const bool same = branch.caps != nullptr && SameParser(branch.caps.get(), caps);
    if (same && branch.sink != nullptr) {
        return;
    }
    Disconnect(branch);
    branch.caps.reset(gst_caps_ref(caps));
    const bool carried = Carries(m_container, caps);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        branch.has = branch.has || carried;
    }
    if (!carried) {
        Event event;
        event.what = Event::What::kNotCarried;
        event.kind = branch.kind;
        event.format = FormatOf(caps);
        Tell(std::move(event));
        Discard(branch);
        return;
    }
    try {
        Connect(branch);
    } catch (const std::exception &error) {
        Event event;
        event.what = Event::What::kFailed;
        event.text = error.what();
        Tell(std::move(event));
    }
}

void AvSource::Connect(Branch &branch) {
    const Parser parser = ParserOf(branch.caps.get());
    GstElement *sink = MakeElement("appsink", kBase);
    gst_bin_add(m_bin, sink);
    const CapsPtr form = FormIn(m_container, branch.caps.get());
    g_object_set(sink, "caps", form.get(), "sync", FALSE, "async", FALSE, "enable-last-sample", FALSE, nullptr);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = [](GstAppSink *app_sink, gpointer data) { return OnSample(app_sink, data); };
    callbacks.eos = [](GstAppSink *, gpointer data) {
        auto &ended = *static_cast<Branch *>(data);
        {
            const std::lock_guard<std::mutex> lock(ended.self->m_mutex);
            ended.ended = true;
        }
        ended.self->Wake();
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, &branch, nullptr);
    branch.sink = sink;
    GstElement *first = sink;
    if (parser.factory != nullptr) {
        first = branch.parser = MakeElement(parser.factory, parser.package);
        gst_bin_add(m_bin, branch.parser);
        // Whoever joins a transport stream later finds the parameter sets at each key frame.
        if (branch.kind == SHB_VIDEO && m_container.changes_picture) {
            g_object_set(branch.parser, "config-interval", -1, nullptr);
        }
        gst_element_link(branch.parser, sink);
        gst_element_sync_state_with_parent(branch.parser);
    }
    gst_element_sync_state_with_parent(sink);
    const PadPtr into(gst_element_get_static_pad(first, "sink"));
    if (gst_pad_link(branch.pad, into.get()) != GST_PAD_LINK_OK) {
        throw std::runtime_error(CodecName(branch.caps.get()) + " cannot be read");
    }
}

// The element takes a pad without a peer for a failure.
void AvSource::Discard(Branch &branch) {
    branch.sink = MakeElement("fakesink", kCore);
    g_object_set(branch.sink, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(m_bin, branch.sink);
    gst_element_sync_state_with_parent(branch.sink);
    const PadPtr into(gst_element_get_static_pad(branch.sink, "sink"));
    gst_pad_link(branch.pad, into.get());
}

void AvSource::Disconnect(Branch &branch) {
    if (const PadPtr into{gst_pad_get_peer(branch.pad)}) {
        gst_pad_unlink(branch.pad, into.get());
    }
    for (GstElement **element : {&branch.parser, &branch.sink}) {
        if (*element != nullptr) {
            gst_element_set_state(*element, GST_STATE_NULL);
            gst_bin_remove(m_bin, *element);
            *element = nullptr;
        }
    }
    branch.keys.clear();
}

GstFlowReturn AvSource::OnSample(gpointer sink, gpointer data) {
    auto &branch = *static_cast<Branch *>(data);
    const SamplePtr sample(gst_app_sink_pull_sample(GST_APP_SINK(sink)));
    if (sample != nullptr && gst_sample_get_buffer(sample.get()) != nullptr && gst_sample_get_caps(sample.get()) != nullptr) {
        branch.self->TakeSample(branch, sample.get());
    }
    return GST_FLOW_OK;
}

// As the writer of the track has found it, since parsers know fewer kinds of pictures that can be begun with.
bool AvSource::IsKey(Branch &branch, GstBuffer *buffer) {
    if (branch.kind == SHB_AUDIO) {
        return true;
    }
    const auto found = std::find(branch.keys.begin(), branch.keys.end(), GST_BUFFER_PTS(buffer));
    const bool key = found != branch.keys.end();
    if (key) {
        branch.keys.erase(branch.keys.begin(), found + 1);
    } else if (branch.keys.size() > kMostKeys) {
        branch.keys.pop_front();
    }
    return key || GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) == FALSE;
}

void AvSource::TakeSample(Branch &branch, GstSample *sample) {
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    // Headers of sound are in the caps.
    const bool header = branch.kind == SHB_AUDIO && GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_HEADER) != FALSE;
    if (header || GST_BUFFER_PTS_IS_VALID(buffer) == FALSE) {
        return;
    }
    GstCaps *caps = gst_sample_get_caps(sample);
    if (branch.last_caps == nullptr || (caps != branch.last_caps && gst_caps_is_equal(caps, branch.last_caps) == FALSE)) {
        branch.format = FormatOf(caps);
        branch.last_caps = Caps(branch.format);
    }
    Frame frame;
    frame.kind = branch.kind;
    frame.pts = Signed(GST_BUFFER_PTS(buffer));
    frame.dts =
        branch.kind == SHB_AUDIO || GST_BUFFER_DTS_IS_VALID(buffer) == FALSE ? frame.pts : Signed(GST_BUFFER_DTS(buffer));
    frame.dts = std::max(frame.dts, branch.last_dts + 1);
    branch.last_dts = frame.dts;
    frame.duration = Signed(GST_BUFFER_DURATION(buffer));
    frame.key = IsKey(branch, buffer);
    frame.format = branch.format;
    frame.size = gst_buffer_get_size(buffer);
    frame.data.reset(gst_buffer_ref(buffer));

    bool wake = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_taken.wait(lock, [this] { return m_stopping || m_bytes < kMostBytes; });
        wake = m_frames.empty() && m_settings.interval_ms == 0;
        m_bytes += frame.size;
        m_frames.push_back(std::move(frame));
    }
    if (wake) {
        Wake();
    }
}

FormatId AvSource::FormatOf(GstCaps *caps) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto known = std::find_if(m_formats.begin(), m_formats.end(), [caps](const CapsPtr &one) {
        return one.get() == caps || gst_caps_is_equal(one.get(), caps) != FALSE;
    });
    const auto number = static_cast<FormatId>(known - m_formats.begin());
    if (known == m_formats.end()) {
        m_formats.emplace_back(gst_caps_ref(caps));
    }
    return number + 1;
}

// ---- The thread of the owner ---------------------------------------------------------------------------------------

std::vector<Frame> AvSource::TakeFrames() {
    std::vector<Frame> frames;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        frames.swap(m_frames);
        m_bytes = 0;
    }
    m_taken.notify_all();
    return frames;
}

void AvSource::ReadMessages() {
    using What = Event::What;
    static constexpr std::array<std::pair<std::string_view, What>, 4> kNames{{{"shbsrc-lost", What::kLost},
                                                                              {"shbsrc-gone", What::kGone},
                                                                              {"shbsrc-restarted", What::kRestarted},
                                                                              {"shbsrc-epoch", What::kNewWriter}}};
    const BusPtr bus(gst_element_get_bus(m_pipeline.get()));
    while (const MessagePtr message{gst_bus_pop_filtered(
        bus.get(), static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_ELEMENT | GST_MESSAGE_EOS))}) {
        Event event;
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_over = true;
            continue;
        }
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            event.what = What::kFailed;
            event.text = ErrorText(message.get());
            Tell(std::move(event));
            continue;
        }
        const GstStructure *structure = gst_message_get_structure(message.get());
        const auto *name = std::find_if(kNames.begin(), kNames.end(), [structure](const auto &known) {
            return gst_structure_has_name(structure, known.first.data()) != FALSE;
        });
        if (name == kNames.end()) {
            continue;
        }
        const char *kind = gst_structure_get_string(structure, "kind");
        event.what = name->second;
        event.kind = KindOf(kind != nullptr ? kind : "");
        event.lost = Number(structure, "lost");
        event.left_out = Number(structure, "left-out");
        event.epoch = Number(structure, "epoch");
        event.sequence = Number(structure, "sequence");
        if (m_settings.wanted[event.kind]) {
            Tell(std::move(event));
        }
    }
}

std::vector<AvSource::Event> AvSource::TakeEvents() {
    ReadMessages();
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_events, {});
}

bool AvSource::Has(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_branches[kind].has;
}

bool AvSource::Ended(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_branches[kind].ended || m_failed;
}

bool AvSource::Ended() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto over = [](const Branch &branch) { return !branch.has || branch.ended; };
    const bool any = std::any_of(m_branches.begin(), m_branches.end(), [](const Branch &branch) { return branch.has; });
    return m_failed || m_over || (any && std::all_of(m_branches.begin(), m_branches.end(), over));
}

const GstCaps *AvSource::Caps(FormatId format) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_formats.at(format - 1).get();
}

}  // namespace reader
