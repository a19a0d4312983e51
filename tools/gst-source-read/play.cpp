#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "buffers.h"
#include "commands.h"
#include "elements.h"
#include "interrupts.h"
#include "output.h"
#include "outputs.h"
#include "packages.h"
#include "text.h"

namespace reader {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kMediaChanged = "media-changed";

// Whether a decoder that has begun with these caps can go on with those.
bool IsSameMedia(const GstCaps *before, const GstCaps *now) {
    const GstStructure *was = gst_caps_get_structure(before, 0);
    const GstStructure *is = gst_caps_get_structure(now, 0);
    if (!gst_structure_has_name(is, gst_structure_get_name(was))) {
        return false;
    }
    for (const char *field : {"mpegversion", "layer", "stream-format"}) {
        const GValue *old_value = gst_structure_get_value(was, field);
        const GValue *new_value = gst_structure_get_value(is, field);
        const bool both = old_value != nullptr && new_value != nullptr;
        if (both ? gst_value_compare(old_value, new_value) != GST_VALUE_EQUAL : old_value != new_value) {
            return false;
        }
    }
    return true;
}

// One medium on its way: shbsrc ! [queue ! decodebin ! output].
struct Branch {
    GstElement *pipeline = nullptr;
    PipelinePtr output;                // null: not wanted, or there is none
    ElementPtr queue;                  // made anew for each run, as is the decoder
    ElementPtr decoder;                //
    ElementPtr rest;                   // takes what is not shown
    std::atomic<bool> present{false};  // the source has it
    std::atomic<uint64_t> decoded{0};  // buffers in this run
    CapsPtr caps;                      // these two belong to the source's thread while the pipeline runs
    bool changed = false;

    bool Contains(GstObject *object) const {
        for (GstElement *part : {output.get(), queue.get(), decoder.get()}) {
            if (part != nullptr &&
                (GST_OBJECT(part) == object || gst_object_has_as_ancestor(object, GST_OBJECT(part)) != FALSE)) {
                return true;
            }
        }
        return false;
    }
};

GstPadProbeReturn CountBuffer(GstPad * /*pad*/, GstPadProbeInfo * /*info*/, gpointer user) {
    ++static_cast<Branch *>(user)->decoded;
    return GST_PAD_PROBE_OK;
}

// What follows a change that no decoder can follow waits for another one.
GstPadProbeReturn WatchMedia(GstPad *pad, GstPadProbeInfo *info, gpointer user) {
    Branch &branch = *static_cast<Branch *>(user);
    if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0 &&
        GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_CAPS) {
        GstCaps *caps = nullptr;
        gst_event_parse_caps(GST_PAD_PROBE_INFO_EVENT(info), &caps);
        if (branch.caps && !branch.changed && !IsSameMedia(branch.caps.get(), caps)) {
            branch.changed = true;
            gst_element_post_message(branch.pipeline,
                                     gst_message_new_application(GST_OBJECT(pad), gst_structure_new_empty(kMediaChanged)));
        }
        branch.caps.reset(gst_caps_ref(caps));
    }
    return branch.changed ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

void Link(GstPad *from, GstElement *to) {
    const PadPtr entrance(gst_element_get_static_pad(to, "sink"));
    gst_pad_link(from, entrance.get());
}

void OnDecodedPad(GstElement * /*decoder*/, GstPad *pad, gpointer user) {
    const Branch &branch = *static_cast<Branch *>(user);
    gst_bin_add(GST_BIN(branch.pipeline), branch.output.get());
    Link(pad, branch.output.get());
    gst_element_sync_state_with_parent(branch.output.get());
}

class Player {
  public:
    Player(const Options &options, std::string name, bool window, bool sound_only);
    ~Player() { gst_element_set_state(m_pipeline.get(), GST_STATE_NULL); }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    int Go();

  private:
    enum class Next { kGoOn, kRebuild, kEnd };

    static void OnSourcePad(GstElement *source, GstPad *pad, gpointer user);

    void Start();
    void Stop();
    Next Watch();
    Next Handle(GstMessage *message);
    Next HandleError(GstMessage *message);
    Next HandleElement(GstMessage *message);
    Next GiveUpSound(const std::string &reason);
    void SayLoss(const GstStructure &said) const;
    void SayHost(const GstStructure &said, bool gone);
    void SayProgress();
    std::string Media() const;

    const Options &m_options;
    const std::string m_name;
    const ElementPtr m_pipeline = NewElement("pipeline");
    const ElementPtr m_source = NewElement("shbsrc");
    Branch m_video;
    Branch m_audio;
    const Clock::time_point m_start = Clock::now();
    bool m_playing = false;  // something has come out
    bool m_waitingSaid = false;
    bool m_hostGone = false;
};

Player::Player(const Options &options, std::string name, bool window, bool sound_only)
    : m_options(options), m_name(std::move(name)) {
    // The title of the window.
    g_set_application_name(m_name.c_str());
    if (window) {
        m_video.output = OpenWindow();
    }
    if (options.view.sound) {
        m_audio.output = OpenSound();
        if (!m_audio.output && !sound_only) {
            Complain("no sound: no sound device can be opened");
        }
    }
    if (!m_audio.output && sound_only) {
        throw std::runtime_error(m_name + " has no video" + (options.view.sound ? ", and no sound device can be opened" : ""));
    }
    for (Branch *branch : {&m_video, &m_audio}) {
        branch->pipeline = m_pipeline.get();
        if (branch->output) {
            const PadPtr entrance(gst_element_get_static_pad(branch->output.get(), "sink"));
            gst_pad_add_probe(entrance.get(), GST_PAD_PROBE_TYPE_BUFFER, CountBuffer, branch, nullptr);
        }
    }
    g_object_set(m_source.get(), "buffer", m_name.c_str(), "channel", static_cast<gint>(options.channel), "stream",
                 static_cast<gint>(options.stream), "follow", static_cast<gboolean>(options.follow), "catch-up", TRUE, nullptr);
    g_signal_connect(m_source.get(), "pad-added", G_CALLBACK(OnSourcePad), this);
    gst_bin_add(GST_BIN(m_pipeline.get()), m_source.get());
    // The time stamps are those of this clock. A sound card's own would drift away from them.
    const ClockPtr clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(m_pipeline.get()), clock.get());
}

void Player::OnSourcePad(GstElement * /*source*/, GstPad *pad, gpointer user) {
    Player &self = *static_cast<Player *>(user);
    Branch &branch = std::strcmp(GST_PAD_NAME(pad), KindName(SHB_VIDEO)) == 0 ? self.m_video : self.m_audio;
    branch.present = true;
    if (!branch.output) {
        // The element takes a pad without a peer for a failure.
        branch.rest = NewElement("fakesink");
        g_object_set(branch.rest.get(), "sync", FALSE, "async", FALSE, nullptr);
        gst_bin_add(GST_BIN(branch.pipeline), branch.rest.get());
        gst_element_sync_state_with_parent(branch.rest.get());
        Link(pad, branch.rest.get());
        return;
    }
    branch.caps.reset(gst_pad_get_current_caps(pad));
    gst_pad_add_probe(pad,
                      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_BUFFER |
                                                   GST_PAD_PROBE_TYPE_BUFFER_LIST),
                      WatchMedia, &branch, nullptr);
    gst_bin_add_many(GST_BIN(branch.pipeline), branch.queue.get(), branch.decoder.get(), nullptr);
    gst_element_link(branch.queue.get(), branch.decoder.get());
    gst_element_sync_state_with_parent(branch.decoder.get());
    gst_element_sync_state_with_parent(branch.queue.get());
    Link(pad, branch.queue.get());
}

void Player::Start() {
    for (Branch *branch : {&m_video, &m_audio}) {
        branch->queue = NewElement("queue");
        branch->decoder = NewElement("decodebin");
        g_signal_connect(branch->decoder.get(), "pad-added", G_CALLBACK(OnDecodedPad), branch);
        branch->present = false;
        branch->decoded = 0;
        branch->caps.reset();
        branch->changed = false;
    }
    gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
}

// The outputs stay open, and with them the window.
void Player::Stop() {
    gst_element_set_state(m_pipeline.get(), GST_STATE_READY);
    for (Branch *branch : {&m_video, &m_audio}) {
        for (GstElement *part : {branch->output.get(), branch->queue.get(), branch->decoder.get(), branch->rest.get()}) {
            if (part == nullptr || GST_OBJECT_PARENT(part) != GST_OBJECT(m_pipeline.get())) {
                continue;
            }
            gst_bin_remove(GST_BIN(m_pipeline.get()), part);
            if (part != branch->output.get()) {
                gst_element_set_state(part, GST_STATE_NULL);
            }
        }
    }
    // What was said of them is no news any more.
    const BusPtr bus(gst_element_get_bus(m_pipeline.get()));
    for (MessagePtr old(gst_bus_pop(bus.get())); old; old.reset(gst_bus_pop(bus.get()))) {
    }
}

Player::Next Player::GiveUpSound(const std::string &reason) {
    if (!m_video.present) {
        throw std::runtime_error(reason);
    }
    Complain("no sound: " + reason);
    Stop();
    m_audio.output.reset();
    return Next::kRebuild;
}

Player::Next Player::HandleError(GstMessage *message) {
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const ErrorPtr owned(error);
    const bool closed = g_error_matches(error, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND) != FALSE;
    GstObject *origin = GST_MESSAGE_SRC(message);
    if (origin == GST_OBJECT(m_source.get())) {
        throw std::runtime_error(m_name + ": " + error->message);
    }
    if (m_audio.Contains(origin)) {
        return GiveUpSound(ErrorText(message));
    }
    // So the window sinks report that the user has closed it.
    if (closed && m_video.output && gst_object_has_as_ancestor(origin, GST_OBJECT(m_video.output.get())) != FALSE) {
        return Next::kEnd;
    }
    if (m_video.decoded == 0) {
        throw std::runtime_error(m_name + ": " + ErrorText(message));
    }
    Complain(m_name + ": " + ErrorText(message) + "; decoding begins again");
    return Next::kRebuild;
}

void Player::SayLoss(const GstStructure &said) const {
    guint64 lost = 0;
    guint64 left_out = 0;
    guint64 epoch = 0;
    guint64 sequence = 0;
    gst_structure_get(&said, "lost", G_TYPE_UINT64, &lost, "left-out", G_TYPE_UINT64, &left_out, "epoch", G_TYPE_UINT64, &epoch,
                      "sequence", G_TYPE_UINT64, &sequence, nullptr);
    const char *kind = gst_structure_get_string(&said, "kind");
    const std::string track = std::string(kind != nullptr ? kind : "") + " " + std::to_string(m_options.channel) + "." +
                              std::to_string(m_options.stream) + " of " + m_name + ": ";
    const std::string place = " before frame " + std::to_string(sequence) + " of epoch " + std::to_string(epoch);
    if (lost > 0) {
        Complain(track + tool::Count(lost, "frame", "frames") + " lost" + place);
    }
    if (left_out > 0) {
        Complain(track + tool::Count(left_out, "frame", "frames") + " larger than the track left out" + place);
    }
}

// Both tracks say so, one after the other.
void Player::SayHost(const GstStructure &said, bool gone) {
    const char *kind = gst_structure_get_string(&said, "kind");
    if (m_video.present && g_strcmp0(kind, KindName(SHB_VIDEO)) != 0) {
        return;
    }
    if (gone != m_hostGone) {
        Complain(m_name + (gone ? ": its host has gone" : ": its host is back") +
                 (gone && m_options.follow ? "; waiting for it to come back" : ""));
    }
    m_hostGone = gone;
}

Player::Next Player::HandleElement(GstMessage *message) {
    if (const std::string missing = MissingPart(message); !missing.empty()) {
        if (m_audio.Contains(GST_MESSAGE_SRC(message))) {
            return GiveUpSound(missing);
        }
        throw std::runtime_error(missing);
    }
    const GstStructure *said = gst_message_get_structure(message);
    if (gst_structure_has_name(said, "shbsrc-lost")) {
        SayLoss(*said);
    } else if (gst_structure_has_name(said, "shbsrc-gone")) {
        SayHost(*said, true);
    } else if (gst_structure_has_name(said, "shbsrc-restarted")) {
        SayHost(*said, false);
    }
    return Next::kGoOn;
}

Player::Next Player::Handle(GstMessage *message) {
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_EOS:
            Complain(m_name + ": the stream has ended");
            return Next::kEnd;
        case GST_MESSAGE_ERROR:
            return HandleError(message);
        case GST_MESSAGE_ELEMENT:
            return HandleElement(message);
        case GST_MESSAGE_LATENCY:
            gst_bin_recalculate_latency(GST_BIN(m_pipeline.get()));
            return Next::kGoOn;
        case GST_MESSAGE_APPLICATION:
            Complain(m_name + ": another codec; decoding begins again");
            return Next::kRebuild;
        default:
            return Next::kGoOn;
    }
}

std::string Player::Media() const {
    std::string text;
    const Map map = TryAttachLive(m_name);
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        shb_description_t media{};
        const Branch &branch = kind == SHB_VIDEO ? m_video : m_audio;
        if (branch.output && branch.present && map &&
            shb_map_description(map.get(), m_options.channel, m_options.stream, kind, &media) == SHB_OK) {
            text += (text.empty() ? "" : ", ") + Describe(kind, media);
        }
    }
    return text.empty() ? "playing" : text;
}

void Player::SayProgress() {
    constexpr std::chrono::seconds kPatience{3};
    const bool begun = m_video.decoded > 0 || m_audio.decoded > 0;
    if (begun && !m_playing) {
        m_playing = true;
        Complain(m_name + ": " + Media());
    } else if (!begun && !m_playing && !m_waitingSaid && Clock::now() - m_start > kPatience) {
        m_waitingSaid = true;
        Complain(m_name +
                 (TryAttachLive(m_name) ? ": nothing to show yet, waiting for frames" : ": not there yet, waiting for it"));
    }
}

Player::Next Player::Watch() {
    constexpr int kTickMs = 100;
    const BusPtr bus(gst_element_get_bus(m_pipeline.get()));
    GPollFD news{};
    gst_bus_get_pollfd(bus.get(), &news);
    for (;;) {
        std::array<pollfd, 2> waits{{{news.fd, POLLIN, 0}, {tool::interrupts::WakeDescriptor(), POLLIN, 0}}};
        poll(waits.data(), waits.size(), kTickMs);
        tool::interrupts::Acknowledge();
        if (tool::interrupts::StopRequested()) {
            return Next::kEnd;
        }
        SayProgress();
        for (MessagePtr message(gst_bus_pop(bus.get())); message; message.reset(gst_bus_pop(bus.get()))) {
            const Next next = Handle(message.get());
            if (next != Next::kGoOn) {
                return next;
            }
        }
    }
}

int Player::Go() {
    Start();
    while (Watch() == Next::kRebuild) {
        Stop();
        Start();
    }
    if (!m_playing && m_video.decoded == 0 && m_audio.decoded == 0) {
        throw std::runtime_error("nothing arrived from " + m_name);
    }
    return tool::kExitOk;
}

// Nothing that needs a window, as far as the source knows.
bool IsSoundOnly(const Map &map, const Options &options) {
    shb_stats_t stats{};
    return map && shb_map_stats(map.get(), options.channel, options.stream, SHB_VIDEO, &stats) == SHB_OK &&
           stats.presence == SHB_PRESENCE_ABSENT;
}

}  // namespace

int RunPlay(const Options &options) {
    const std::string name = ChooseName(options.name);
    const Map map = options.follow ? TryAttachLive(name) : Attach(name);
    if (map) {
        CheckTrack(map.get(), name, options.channel, options.stream);
    }
    const bool window = HasDisplay();
    const bool sound_only = IsSoundOnly(map, options);
    if (!window && !sound_only) {
        throw std::runtime_error(
            "no display: neither DISPLAY nor WAYLAND_DISPLAY is set. A picture: gst-source-read snapshot " + name +
            " OUT.jpg. On another machine: ssh HOST gst-source-read read " + name + " --format mpegts - | ffplay -");
    }
    tool::interrupts::Install(-1);
    StartGStreamer();
    return Player(options, name, window, sound_only).Go();
}

}  // namespace reader
