// Durations sorted into buckets, in the way that monitoring systems add up.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tool {

class Histogram {
  public:
    // Upper bounds of the buckets, s. What is longer counts in the total alone.
    static constexpr std::array<double, 11> kBounds{0.1, 0.25, 0.5, 1, 2, 4, 8, 15, 30, 60, 300};

    void Observe(double seconds) {
        for (size_t i = 0; i < kBounds.size(); ++i) {
            m_counts[i] += seconds <= kBounds[i] ? 1U : 0U;
        }
        m_sum += seconds;
        ++m_count;
    }

    // Observations up to kBounds[bucket], those of the smaller buckets included.
    uint64_t UpTo(size_t bucket) const { return m_counts[bucket]; }
    double Sum() const { return m_sum; }
    uint64_t Count() const { return m_count; }

  private:
    std::array<uint64_t, kBounds.size()> m_counts{};
    double m_sum = 0;  // s
    uint64_t m_count = 0;
};

}  // namespace tool
