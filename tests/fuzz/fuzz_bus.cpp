// Arbitrary messages on the bus of a source: what its threads note of them while they
// are posted, and what the worker takes them for.
#include "../unit/support/Fixture.h"
#include "support.h"

#include <cstddef>
#include <cstdint>

namespace {

using unit::SourceProbe;

// One source for the whole process: a message leaves nothing behind in it.
unit::CBaseSource &Source() {
    static int buffer = 0;
    static unit::CBaseSource *const source = [] {
        const unit::SourceClass &row = unit::ClassOf(SOURCE_TYPE_UDP);
        unit::CBaseSource *made = row.create(&buffer, unit::kChannel, unit::kStream);
        fuzz::Require(row.build(*made), "the source builds");
        return made;
    }();
    return *source;
}

GstMessageType AnyType(fuzz::Input &in) {
    if (in.ConsumeIntegralInRange(0, 3) == 0) {
        return in.PickValueInArray({GST_MESSAGE_EOS, GST_MESSAGE_ERROR, GST_MESSAGE_ELEMENT, GST_MESSAGE_LATENCY,
                                    GST_MESSAGE_STREAM_STATUS, GST_MESSAGE_DEVICE_ADDED, GST_MESSAGE_ANY});
    }
    return static_cast<GstMessageType>(1U << in.ConsumeIntegralInRange(0U, 30U));
}

GstObject *AnyOrigin(fuzz::Input &in) {
    return in.ConsumeBool() ? GST_OBJECT(SourceProbe::Pipeline(Source())) : nullptr;
}

// A message as an application or an element may make it by hand: any type with any structure.
GstMessage *ByHand(fuzz::Input &in) {
    const GstMessageType type = AnyType(in);
    GstObject *origin = AnyOrigin(in);
    GstStructure *structure =
        in.ConsumeIntegralInRange(0, 7) == 0
            ? nullptr
            : fuzz::Structure(in, {"GstUDPSrcTimeout", "GstRTSPSrcTimeout", "GstMessageStreamStatus", "http-headers", "pat"});
    return gst_message_new_custom(type, origin, structure);
}

GstMessage *AnyMessage(fuzz::Input &in) {
    GstObject *origin = AnyOrigin(in);
    switch (in.ConsumeIntegralInRange(0, 5)) {
        case 0: {
            GError *error = g_error_new_literal(GST_STREAM_ERROR, in.ConsumeIntegral<gint>(), fuzz::ValidText(in, {}).c_str());
            GstMessage *message = gst_message_new_error(origin, error, fuzz::ValidText(in, {""}).c_str());
            g_error_free(error);
            return message;
        }
        case 1: {
            const auto status = static_cast<GstStreamStatusType>(
                in.ConsumeIntegralInRange<int>(GST_STREAM_STATUS_TYPE_CREATE, GST_STREAM_STATUS_TYPE_STOP));
            return gst_message_new_stream_status(origin, status, SourceProbe::Pipeline(Source()));
        }
        case 2:
            return gst_message_new_latency(origin);
        default:
            return ByHand(in);
    }
}

int Expected(GstMessage *message) {
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_EOS:
            return Tessaro::BUS_MSG_EOS;
        case GST_MESSAGE_ERROR:
            return Tessaro::BUS_MSG_ERROR;
        case GST_MESSAGE_ELEMENT: {
            const GstStructure *structure = gst_message_get_structure(message);
            const std::string name = structure != nullptr ? gst_structure_get_name(structure) : "";
            return name == "GstUDPSrcTimeout" || name == "GstRTSPSrcTimeout" ? Tessaro::BUS_MSG_TIMEOUT : Tessaro::BUS_MSG_NONE;
        }
        default:
            return Tessaro::BUS_MSG_NONE;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Prepare();
    fuzz::Input in(data, size);
    GstBus *bus = SourceProbe::Bus(Source());
    for (int number = 0; number < 8 && in.remaining_bytes() > 0; ++number) {
        GstMessage *message = AnyMessage(in);
        const int expected = Expected(message);
        fuzz::Require(gst_bus_post(bus, gst_message_ref(message)) != FALSE, "the bus takes it");
        GstMessage *taken = gst_bus_pop(bus);
        fuzz::Require(taken == message, "the handler leaves it to the worker");
        fuzz::Require(Source().DoBusMessage(taken) == expected, "the class of the message");
        gst_message_unref(taken);
        fuzz::Require(GST_MINI_OBJECT_REFCOUNT_VALUE(message) == 1, "the message stays the caller's");
        gst_message_unref(message);
    }
    return 0;
}
