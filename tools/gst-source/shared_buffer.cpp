#include "shared_buffer.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "emergency.h"
#include "text.h"

namespace tool {
namespace {

shb_geometry_t GeometryOf(const SourceConfig::Memory &memory, unsigned channels) {
    shb_geometry_t geometry{};
    geometry.channels = channels;
    geometry.streams = 1;
    geometry.video_bytes = memory.video_bytes;
    geometry.audio_bytes = memory.audio_bytes;
    return geometry;
}

// To be asked before errno changes.
std::string WhyNotMade(int result, const shb_geometry_t &geometry, const shb_create_options_t &readers) {
    if (result == SHB_ERR_SYSTEM && errno == EPERM && readers.group_given != 0) {
        return "this user is not in the group of --buffer-group";
    }
    if (result != SHB_ERR_SYSTEM && result != SHB_ERR_NO_SPACE) {
        return shb_strerror(result);
    }
    std::string reason = std::strerror(errno);
    uint64_t needed = 0;
    uint64_t available = 0;
    if (result == SHB_ERR_NO_SPACE && shb_room(&geometry, &needed, &available) == SHB_OK) {
        reason += "; it takes " + FormatBytes(needed) + " of shared memory, and " + FormatBytes(available) +
                  " are free. Give smaller --video-bytes and --audio-bytes, or a larger /dev/shm (of a container: --shm-size)";
    }
    return reason;
}

}  // namespace

SharedBuffer::SharedBuffer(const std::string &name, unsigned channels, const SourceConfig::Memory &memory) {
    const shb_geometry_t geometry = GeometryOf(memory, channels);
    shb_create_options_t readers{};
    readers.mode = memory.mode;
    readers.group_given = memory.group ? 1 : 0;
    readers.group = memory.group.value_or(0);
    const int result = shb_create_with(name.c_str(), &geometry, &readers, &m_buffer);
    if (result != SHB_OK) {
        const std::string message = "the shared buffer " + name + " cannot be made: " + WhyNotMade(result, geometry, readers);
        if (result == SHB_ERR_NO_SPACE) {
            throw NoRoom(message);
        }
        throw std::runtime_error(message);
    }
    for (unsigned i = 0; shb_file(m_buffer, i) != nullptr; ++i) {
        emergency::AddFile(shb_file(m_buffer, i));
    }
}

SharedBuffer::~SharedBuffer() {
    std::array<std::string, 3> files;
    for (unsigned i = 0; i < files.size(); ++i) {
        files[i] = shb_file(m_buffer, i);
    }
    shb_destroy(m_buffer);
    for (const std::string &file : files) {
        emergency::ForgetFile(file);
    }
}

void SharedBuffer::SetStallWatch(double seconds) const {
    constexpr double kMsPerSecond = 1000;
    if (shb_set_stall_watch(m_buffer, static_cast<uint32_t>(std::ceil(seconds * kMsPerSecond))) != SHB_OK) {
        throw std::runtime_error("the stall watch of the shared buffer cannot be set");
    }
}

uint64_t BytesOf(const SourceConfig::Memory &memory, unsigned channels) {
    const shb_geometry_t geometry = GeometryOf(memory, channels);
    uint64_t needed = 0;
    uint64_t available = 0;
    return shb_room(&geometry, &needed, &available) == SHB_OK ? needed : 0;
}

}  // namespace tool
