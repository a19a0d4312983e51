// Pictures of compressed video, made by GStreamer.
#pragma once

#include <string_view>

#include "elements.h"
#include "key_frame.h"

namespace reader {

// All throw std::runtime_error with a message for people.

// Ends early with the process's wish to end.
SamplePtr DecodePicture(const KeyFrame &frame);

// As a file of this format, with square pixels; no wider than `width`, unless that is 0.
SamplePtr EncodePicture(GstSample *picture, PictureFormat format, int width);

// The bytes of a sample, for as long as it lives.
class SampleBytes {
  public:
    explicit SampleBytes(GstSample *sample);
    ~SampleBytes();
    SampleBytes(const SampleBytes &) = delete;
    SampleBytes &operator=(const SampleBytes &) = delete;
    std::string_view View() const { return {reinterpret_cast<const char *>(m_map.data), m_map.size}; }

  private:
    GstBuffer *const m_buffer;  // the sample's
    GstMapInfo m_map{};
};

}  // namespace reader
