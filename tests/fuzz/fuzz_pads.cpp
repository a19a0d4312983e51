// New pads with arbitrary caps, handed to the pad handlers of every source class, and branches with arbitrary
// encoding names; any call into the framework may fail meanwhile.
#include "../unit/support/Fixture.h"
#include "support.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using unit::SourceProbe;

// Caps that no element would send are stored as they come.
unit::TestPad AnyPad(fuzz::Input &in) {
    const unit::Uncounted uncounted;
    unit::TestPad pad = unit::MakePad(in.ConsumeBool() ? "src_1" : "stream_2", "",
                                      in.ConsumeIntegralInRange(0, 15) == 0 ? GST_PAD_SINK : GST_PAD_SRC);
    if (in.ConsumeIntegralInRange(0, 15) == 0) {
        return pad;
    }
    GstCaps *caps = fuzz::Caps(in);
    GstEvent *event =
        gst_event_new_custom(GST_EVENT_CAPS, gst_structure_new("GstEventCaps", "caps", GST_TYPE_CAPS, caps, nullptr));
    gst_caps_unref(caps);
    gst_pad_store_sticky_event(pad.get(), event);
    gst_event_unref(event);
    return pad;
}

void HandlePad(fuzz::Input &in, const unit::SourceClass &row, unit::CBaseSource &source, GstPad *pad) {
    GstElement *demux = SourceProbe::Pipeline(source);
    // The builders get source pads only, and names that the handlers have taken from caps.
    const bool source_pad = gst_pad_get_direction(pad) == GST_PAD_SRC;
    switch (source_pad ? in.ConsumeIntegralInRange(0, 7) : 7) {
        case 0:
            row.video(source, pad, in.ConsumeBool() ? "H264" : "H265");
            break;
        case 1:
            row.audio(source, pad,
                      fuzz::Text(in, {"AAC", "MP3", "PCMA", "OPUS", "VORBIS", "MULTIOPUS", "MP4A-LATM", "AC3", "MP2"}).c_str());
            break;
        case 2:
        case 3:
            if (row.type == SOURCE_TYPE_HLS) {
                SourceProbe::HlsPadAdded(demux, pad, &source);
                break;
            }
            [[fallthrough]];
        default:
            row.padAdded(demux, pad, &source);
            break;
    }
}

void Run(fuzz::Input &in) {
    const std::vector<unit::SourceClass> &classes = unit::SourceClasses();
    const unit::SourceClass &row = classes[in.ConsumeIntegralInRange<std::size_t>(0, classes.size() - 1)];
    unit::Faults faults;
    int buffer = 0;
    const unit::SourcePtr source(row.create(&buffer, unit::kChannel, unit::kStream));
    SourceProbe::SetUrl(*source, row.url);
    if (in.ConsumeIntegralInRange(0, 3) == 0) {
        faults.FailCall(in.ConsumeIntegralInRange(1, 120), in.ConsumeBool());
    }
    if (!row.build(*source)) {
        return;
    }
    SourceProbe::State(*source) = GST_STATE_PLAYING;
    std::vector<unit::TestPad> pads;
    for (int number = 0; number < 8 && in.remaining_bytes() > 0; ++number) {
        pads.push_back(AnyPad(in));
        HandlePad(in, row, *source, pads.back().get());
    }
    // A new run finds nothing of this one.
    row.stop(*source);
    row.destroy(*source);
    for (const GstElement *field : row.fields(*source)) {
        fuzz::Require(field == nullptr, "no field outlives the teardown");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Prepare();
    fuzz::Input in(data, size);
    Run(in);
    fuzz::RequireNothingLeft();
    return 0;
}
