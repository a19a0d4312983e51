// Real streams in a shared buffer of this process, access unit by access unit.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>
#include <vector>

#include "shb.h"

// The access units of a byte stream, as GStreamer's parser cuts them. The name ends in .h264 or .h265.
std::vector<std::string> AccessUnits(const std::string &file);
std::string Joined(const std::vector<std::string> &units, size_t begin, size_t end);

// A buffer with one channel of one stream.
class LiveBuffer {
  public:
    explicit LiveBuffer(const std::string &name);
    const std::string &Name() const { return m_name; }
    shb_buffer_t *Get() const { return m_buffer.get(); }
    // The source has no such stream.
    void LeaveOut(shb_kind_t kind) const;

  private:
    struct Destroy {
        void operator()(shb_buffer_t *buffer) const { shb_destroy(buffer); }
    };
    const std::string m_name;
    const std::unique_ptr<shb_buffer_t, Destroy> m_buffer;
};

// The video track of such a buffer as the element shbsink writes it.
class LiveVideo {
  public:
    LiveVideo(const LiveBuffer &buffer, bool h265);
    ~LiveVideo();
    LiveVideo(const LiveVideo &) = delete;
    LiveVideo &operator=(const LiveVideo &) = delete;

    // Comes back when the buffer has it.
    void Push(const std::string &unit);
    void Push(const std::vector<std::string> &units, size_t begin, size_t end);

  private:
    const LiveBuffer &m_buffer;
    GstElement *m_pipeline = nullptr;
    GstElement *m_source = nullptr;  // of the pipeline
    uint64_t m_pushed = 0;
};
