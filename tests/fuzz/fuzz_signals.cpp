// The handlers of the sinks' signals with arbitrary arguments,
// against a plain model of what a host then reads.
#include "../unit/support/Fixture.h"
#include "support.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace {

using unit::CBaseSource;

struct Calls {
    int count = 0;
    media_code_info_t last{};
};

void OnChange(void *user, media_code_info_t *info) {
    auto *calls = static_cast<Calls *>(user);
    ++calls->count;
    calls->last = *info;
}

// A text argument: any, or none.
class Argument {
  public:
    Argument(fuzz::Input &in, std::initializer_list<const char *> likely) {
        if (in.ConsumeIntegralInRange(0, 15) != 0) {
            m_text = fuzz::Text(in, likely);
        }
    }
    char *Get() { return m_text ? m_text->data() : nullptr; }
    bool IsEmpty() const { return !m_text || m_text->empty(); }
    // As a record holds it.
    bool Fills(const char (&field)[16]) const {
        char expected[16] = {};
        std::memcpy(expected, m_text->data(), std::min(m_text->size(), sizeof expected));
        return std::memcmp(field, expected, sizeof expected) == 0;
    }

  private:
    std::optional<std::string> m_text;
};

struct Session {
    explicit Session(CBaseSource &opened) : source(opened) { source.SetMediaChangeCallback(OnChange, &calls); }

    source_status_t Status() const { return unit::SourceProbe::Status(source); }

    CBaseSource &source;
    Calls calls;
};

// Small values half of the time: what is valid lies among them.
int Number(fuzz::Input &in) {
    return in.ConsumeBool() ? in.ConsumeIntegralInRange(-1, 60) : in.ConsumeIntegral<int>();
}

void Video(fuzz::Input &in, Session &session, GstElement *sink) {
    Argument code(in, {"H264", "H265", "sixteen letters!", "more than sixteen letters"});
    Argument scan(in, {"progressive", "interlaced", "mixed"});
    const int width = Number(in);
    const int height = Number(in);
    const int fps_n = Number(in);
    const int fps_d = Number(in);
    const int ref_frames = Number(in);
    media_code_info_t before{};
    media_code_info_t video{};
    media_code_info_t audio{};
    fuzz::Require(session.source.GetMediaInfo(&before, &audio), "records");
    const int calls = session.calls.count;
    CBaseSource::shbsink_video_changed_handler(sink, code.Get(), nullptr, nullptr, scan.Get(), width, height, fps_n, fps_d,
                                               ref_frames, &session.source);
    fuzz::Require(session.source.GetMediaInfo(&video, &audio), "records");
    const float fps = fps_n != 0 && fps_d != 0 ? static_cast<float>(fps_n) / static_cast<float>(fps_d) : 0.0F;
    const bool valid =
        sink != nullptr && !code.IsEmpty() && !scan.IsEmpty() && width > 0 && height > 0 && ref_frames > 0 && fps >= 0;
    if (session.calls.count == calls) {
        fuzz::Require(std::memcmp(&before, &video, sizeof video) == 0, "no change without a call");
        return;
    }
    fuzz::Require(valid && session.calls.count == calls + 1, "one call for a valid report");
    fuzz::Require(code.Fills(video.code) && video.type == 0 && video.params.video.width == width &&
                      video.params.video.height == height && video.params.video.fps == fps &&
                      video.params.video.scan_type <= 2 &&
                      video.params.video.ref_frames == static_cast<std::uint8_t>(ref_frames),
                  "the video record holds the report");
    fuzz::Require(std::memcmp(&session.calls.last, &video, sizeof video) == 0, "the host is shown the record");
    const source_status_t status = session.Status();
    fuzz::Require(code.Fills(status.video_code) && status.width == width && status.height == height && status.fps == fps,
                  "so does the status");
}

void Audio(fuzz::Input &in, Session &session, GstElement *sink) {
    Argument code(in, {"AAC", "OPUS", "sixteen letters!", "more than sixteen letters"});
    const int rate = Number(in);
    const int channels = Number(in);
    const int samples = Number(in);
    const int extra = Number(in);
    media_code_info_t before{};
    media_code_info_t video{};
    media_code_info_t audio{};
    fuzz::Require(session.source.GetMediaInfo(&video, &before), "records");
    const int calls = session.calls.count;
    CBaseSource::shbsink_audio_changed_handler(sink, code.Get(), rate, channels, samples, extra, Number(in), Number(in),
                                               &session.source);
    fuzz::Require(session.source.GetMediaInfo(&video, &audio), "records");
    const bool valid = sink != nullptr && !code.IsEmpty() && rate > 0 && channels > 0 && samples > 0;
    if (session.calls.count == calls) {
        fuzz::Require(std::memcmp(&before, &audio, sizeof audio) == 0, "no change without a call");
        return;
    }
    fuzz::Require(valid && session.calls.count == calls + 1, "one call for a valid report");
    fuzz::Require(code.Fills(audio.code) && audio.type == 1 && audio.params.audio.sample_rate == rate &&
                      audio.params.audio.channels == channels && audio.params.audio.no_samples == samples &&
                      audio.params.audio.extra == extra,
                  "the audio record holds the report");
    fuzz::Require(std::memcmp(&session.calls.last, &audio, sizeof audio) == 0, "the host is shown the record");
    const source_status_t status = session.Status();
    fuzz::Require(code.Fills(status.audio_code) && status.sample_rate == rate && status.channels == channels,
                  "so does the status");
}

void Rate(fuzz::Input &in, const Session &session, GstElement *sink) {
    using Handler = void (*)(GstElement *, guint, gpointer);
    static constexpr struct {
        Handler handler;
        bool bitrate;
    } kHandlers[] = {{CBaseSource::shbsink_video_bitrate_handler, true},
                     {CBaseSource::shbsink_audio_bitrate_handler, true},
                     {CBaseSource::shbsink_video_fps_handler, false},
                     {CBaseSource::shbsink_audio_fps_handler, false}};
    const std::size_t which = in.ConsumeIntegralInRange<std::size_t>(0, 3);
    const guint value = in.ConsumeIntegral<guint>();
    kHandlers[which].handler(sink, value, &session.source);
    if (sink == nullptr) {
        return;
    }
    const source_status_t status = session.Status();
    const double read[] = {static_cast<double>(status.video_bitrate), static_cast<double>(status.audio_bitrate),
                           static_cast<double>(status.video_real_fps), static_cast<double>(status.audio_real_fps)};
    const double given = kHandlers[which].bitrate ? static_cast<double>(value) : static_cast<double>(static_cast<float>(value));
    fuzz::Require(read[which] <= given && read[which] >= given, "the rate is the one that was told");
    fuzz::Require(!kHandlers[which].bitrate || std::strcmp(status.state, "connected") == 0, "data means connected");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Prepare();
    static GstElement *const sink = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("shbsink", "sink")));
    unit::ForgetLiveObjects();
    fuzz::Input in(data, size);
    int buffer = 0;
    const unit::SourcePtr source(unit::ClassOf(SOURCE_TYPE_RTSP).create(&buffer, unit::kChannel, unit::kStream));
    Session session(*source);
    for (int number = 0; number < 16 && in.remaining_bytes() > 0; ++number) {
        GstElement *origin = in.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : sink;
        switch (in.ConsumeIntegralInRange(0, 7)) {
            case 0:
            case 1:
            case 2:
                Video(in, session, origin);
                break;
            case 3:
            case 4:
            case 5:
                Audio(in, session, origin);
                break;
            case 6:
                Rate(in, session, origin);
                break;
            default:
                source->ClearMediaInfo();
                break;
        }
    }
    return 0;
}
