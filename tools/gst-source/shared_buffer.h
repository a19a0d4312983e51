// One shared buffer of the process, from its creation to its removal.
#pragma once

#include <array>
#include <stdexcept>
#include <string>

#include "shb.h"
#include "source_config.h"

namespace tool {

// The shared memory is full.
struct NoRoom : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class SharedBuffer {
  public:
    // Throws std::runtime_error with a message for people.
    SharedBuffer(const std::string &name, unsigned channels, const SourceConfig::Memory &memory);
    ~SharedBuffer();
    SharedBuffer(const SharedBuffer &) = delete;
    SharedBuffer &operator=(const SharedBuffer &) = delete;

    shb_buffer_t *Get() const { return m_buffer; }
    // With its leading "/".
    std::string Name() const { return shb_name(m_buffer); }
    // s without data after which a track has stalled, 0: never.
    void SetStallWatch(double seconds) const;

  private:
    shb_buffer_t *m_buffer = nullptr;
};

// What a buffer of these sizes takes of the shared memory, bytes.
uint64_t BytesOf(const SourceConfig::Memory &memory, unsigned channels);

}  // namespace tool
