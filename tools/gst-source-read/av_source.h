// The video and audio of one source of a shared buffer, in the form that a container takes.
#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "container.h"
#include "cutter.h"
#include "fd.h"
#include "frame.h"

namespace reader {

class AvSource {
  public:
    struct Settings {
        std::string buffer;
        uint32_t channel = 0;
        uint32_t stream = 0;
        std::string start;         // as the element shbsrc takes it
        bool follow = false;       // wait for a host that has gone
        uint32_t interval_ms = 0;  // frames come together this often, 0: each at once
        std::array<bool, kKinds> wanted{true, true};
    };

    struct Event {
        enum class What { kLost, kGone, kRestarted, kNewWriter, kNotCarried, kFailed } what = What::kLost;
        shb_kind_t kind = SHB_VIDEO;
        uint64_t lost = 0;
        uint64_t left_out = 0;  // larger than the track
        uint64_t epoch = 0;
        uint64_t sequence = 0;
        FormatId format = 0;  // of kNotCarried
        std::string text;     // of kFailed
    };

    // Throws std::runtime_error with a message for people.
    AvSource(Settings settings, const Container &container);
    AvSource(const AvSource &) = delete;
    AvSource &operator=(const AvSource &) = delete;
    ~AvSource();

    // Takes over what has come. While nobody does, the source waits at some megabytes, and what the buffer then
    // overwrites is lost.
    std::vector<Frame> TakeFrames();
    std::vector<Event> TakeEvents();
    // Whether the source has such a track, as far as is known now.
    bool Has(shb_kind_t kind) const;
    // Nothing more comes.
    bool Ended() const;
    bool Ended(shb_kind_t kind) const;
    // Valid as long as the source.
    const GstCaps *Caps(FormatId format) const;
    // Readable when frames have come after a time without any, unless they come together; and at the end.
    int WakeDescriptor() const { return m_wake.Get(); }
    void Acknowledge() const;

  private:
    struct Branch {
        AvSource *self = nullptr;
        shb_kind_t kind = SHB_VIDEO;
        GstPad *pad = nullptr;         // of shbsrc, borrowed
        CapsPtr caps;                  // of shbsrc
        GstElement *parser = nullptr;  // borrowed from the pipeline; null: none
        GstElement *sink = nullptr;
        const GstCaps *last_caps = nullptr;  // of the last sample, as in m_formats
        FormatId format = 0;
        int64_t last_dts = INT64_MIN;
        std::deque<GstClockTime> keys;  // presentation times of key frames on their way through the parser
        bool has = false;               // under the lock, as `ended`
        bool ended = false;
    };

    static void OnPadAdded(GstElement *element, GstPad *pad, gpointer self);
    static GstPadProbeReturn OnPadData(GstPad *pad, GstPadProbeInfo *info, gpointer branch);
    static GstFlowReturn OnSample(gpointer sink, gpointer branch);
    void TakeCaps(Branch &branch, GstCaps *caps);
    void Connect(Branch &branch);
    void Discard(Branch &branch);
    void Disconnect(Branch &branch);
    void TakeSample(Branch &branch, GstSample *sample);
    bool IsKey(Branch &branch, GstBuffer *buffer);
    FormatId FormatOf(GstCaps *caps);
    void Tell(Event event);
    void Wake() const;
    void ReadMessages();

    const Settings m_settings;
    const Container &m_container;
    tool::Fd m_wake;
    std::array<Branch, kKinds> m_branches;

    mutable std::mutex m_mutex;
    std::condition_variable m_taken;
    std::vector<Frame> m_frames;
    size_t m_bytes = 0;
    std::vector<Event> m_events;
    std::vector<CapsPtr> m_formats;
    bool m_stopping = false;
    bool m_failed = false;
    bool m_over = false;  // all that is linked has ended, also what nobody wants

    GstBin *m_bin = nullptr;  // the pipeline, also while it stops
    PipelinePtr m_pipeline;   // goes first
};

}  // namespace reader
