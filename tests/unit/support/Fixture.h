// A source under test, with faults, captured output and the check that nothing it made outlives it.
#pragma once

#include "Faults.h"
#include "LogCapture.h"
#include "RecordingSink.h"
#include "SourceClasses.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace unit {

struct SourceDeleter {
    void operator()(CBaseSource *source) const { delete source; }
};
using SourcePtr = std::unique_ptr<CBaseSource, SourceDeleter>;

constexpr int kChannel = 7;
constexpr int kStream = 3;

// Waits until nothing that the library made lives any more.
void ExpectNothingLives();
// The worker may act on the message, and drop its bus, before the call is back.
void PostOn(CBaseSource &source, GstMessage *message);

class SourceTest : public testing::Test {
  protected:
    SourceTest() { m_faults.PollFast(); }
    void TearDown() override {
        m_source.reset();
        ExpectNothingLives();
        ForgetLiveObjects();
    }

    // A source that writes to a buffer of the test. Only one at a time.
    CBaseSource &Make(const SourceClass &row) {
        m_source.reset(row.create(&m_buffer, kChannel, kStream));
        return *m_source;
    }

    // The same with its front built, and the lines of that taken.
    void MakeBuilt(const SourceClass &row) {
        Make(row);
        Build(row);
        m_log.Take();
    }
    void Build(const SourceClass &row) {
        SourceProbe::SetUrl(*m_source, row.url);
        ASSERT_TRUE(row.build(*m_source));
    }

    // Plays by pretence: only the test puts messages on the bus.
    void OpenPretended(const SourceClass &row) {
        m_faults.SetPlay(Play::Pretend);
        ASSERT_TRUE(row.open(*m_source, row.url.c_str()));
        ASSERT_TRUE(Eventually([&] { return SourceProbe::StateText(*m_source) == row.stateAfterPlay; }));
    }

    void Post(GstMessage *message) { PostOn(*m_source, message); }

    Faults m_faults;
    LogCapture m_log;
    int m_buffer = 0;
    SourcePtr m_source;
};

class ClassTest : public SourceTest, public testing::WithParamInterface<SourceClass> {
  protected:
    void SetUp() override { Make(GetParam()); }
    const SourceClass &Row() const { return GetParam(); }
    CBaseSource &Source() { return *m_source; }
    const std::string &Url() const { return GetParam().url; }
    void Build() { SourceTest::Build(Row()); }
    void Open() { OpenPretended(Row()); }
    bool IsHls() const { return Row().type == SOURCE_TYPE_HLS; }
};

// For the handlers, which ask only whether there is a sink.
GstElement *AnySink();
// A sink's report, as its signal brings it to the handler.
void ReportVideo(CBaseSource &source, const VideoReport &report);
void ReportAudio(CBaseSource &source, const AudioReport &report);

template <typename Value>
Value Property(gpointer object, const char *name) {
    Value value{};
    g_object_get(object, name, &value, nullptr);
    return value;
}

// The element of that name in the source's pipeline, borrowed; null when there is none.
GstElement *Element(CBaseSource &source, const std::string &name);
std::string FactoryOf(GstElement *element);

// A source pad as a demultiplexer exposes it, active and with these caps ("" for none). The owner drops it.
struct PadUnref {
    void operator()(GstPad *pad) const {
        gst_pad_set_active(pad, FALSE);
        gst_object_unref(pad);
    }
};
using TestPad = std::unique_ptr<GstPad, PadUnref>;
TestPad MakePad(const std::string &name, const std::string &caps, GstPadDirection direction = GST_PAD_SRC);
// The same with caps that no element would send ("EMPTY", "ANY").
TestPad MakeOddPad(const std::string &name, const std::string &caps);

// Links `other` to the sink pad of the element of that name as soon as it is added to the
// pipeline. (A bin unlinks what is added to it.)
void OccupyWhenAdded(CBaseSource &source, const std::string &element, const TestPad &other);

// Factories and names from the pad's peer to the end of the chain: "queue vqueue".
std::vector<std::string> ChainBehind(GstPad *pad);

}  // namespace unit
