// A defect of the framework and what is done about it. The first five lines of each workaround's header say:
// the symptom, the element and the versions in which it was seen, what is done, what that costs, and the test
// that fails without it. docs/workarounds.md is the same as one table.
//
// A protocol class makes its workarounds with the pipeline that they are for, and calls the hooks at the
// fixed places below. A workaround is destroyed right after its pipeline has been released.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <vector>

namespace GSTREAMER {

class Workaround {
  public:
    Workaround() = default;
    virtual ~Workaround() = default;
    Workaround(const Workaround &) = delete;
    Workaround &operator=(const Workaround &) = delete;

    // The front of the pipeline is made and in it, nothing has been started. Thread of the build.
    virtual void Attach(GstElement * /*pipeline*/) {}
    // Right before the pipeline is told to play. Worker.
    virtual void BeforePlay() {}
    // The pipeline has been told to play, whatever came of it. Worker.
    virtual void AfterPlay() {}
    // After each poll of the bus, with the message or null. What has to end
    // the session posts an error on the bus. Worker.
    virtual void AfterPoll(GstMessage * /*message*/) {}
    // Right before the pipeline is told to stop, whatever state it is in. Thread of the stop,
    // which holds no lock that a streaming thread takes.
    virtual void BeforeStop() {}
    // The pipeline has stopped, or could not; its elements are still there. Thread of the stop.
    virtual void AfterStop() {}
};

// The workarounds of one pipeline, called in the order in which they were added;
// AfterPlay and AfterStop in the opposite order.
class Workarounds {
  public:
    void Add(std::unique_ptr<Workaround> workaround) { m_vecAdded.push_back(std::move(workaround)); }
    void Clear() {
        m_vecAdded.clear();
        m_vecAttached.clear();
    }

    // Without it, because the front could not be made, no other hook is called.
    void Attach(GstElement *pipeline) {
        for (const auto &one : m_vecAdded) {
            one->Attach(pipeline);
        }
        m_vecAttached.swap(m_vecAdded);
    }
    void BeforePlay() {
        for (const auto &one : m_vecAttached) {
            one->BeforePlay();
        }
    }
    void AfterPlay() {
        for (auto one = m_vecAttached.rbegin(); one != m_vecAttached.rend(); ++one) {
            (*one)->AfterPlay();
        }
    }
    void AfterPoll(GstMessage *message) {
        for (const auto &one : m_vecAttached) {
            one->AfterPoll(message);
        }
    }
    void BeforeStop() {
        for (const auto &one : m_vecAttached) {
            one->BeforeStop();
        }
    }
    void AfterStop() {
        for (auto one = m_vecAttached.rbegin(); one != m_vecAttached.rend(); ++one) {
            (*one)->AfterStop();
        }
    }

  private:
    using List = std::vector<std::unique_ptr<Workaround>>;
    List m_vecAdded;     // until they are attached
    List m_vecAttached;  // from then on
};

}  // namespace GSTREAMER
