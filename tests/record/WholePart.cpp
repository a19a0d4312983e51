#include "WholePart.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include "../peers/harness/TempDir.h"

namespace peers {
namespace {

uint64_t Byte(const std::string &data, size_t at) {
    return static_cast<unsigned char>(data[at]);
}

uint64_t BigEndian(const std::string &data, size_t at, size_t bytes) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) {
        value = value << 8 | Byte(data, at + i);
    }
    return value;
}

// Length of what is whole, 0 when that has no picture or sound.
size_t WholeMp4(const std::string &data) {
    size_t whole = 0;
    for (size_t at = 0; at + 8 <= data.size();) {
        const uint64_t size = BigEndian(data, at, 4);
        const std::string type = data.substr(at + 4, 4);
        const uint64_t length = size == 1 && at + 16 <= data.size() ? BigEndian(data, at + 8, 8) : size;
        if (length < 8 || length > data.size() - at) {
            break;
        }
        at += length;
        whole = type == "mdat" || type == "mfra" ? at : whole;
    }
    return whole;
}

// A number of EBML; `marker`: with the bit that gives its length, as IDs are written. All ones: not known.
struct Number {
    uint64_t value = 0;
    size_t bytes = 0;  // 0: it is cut off
    bool unknown = false;
};

Number ReadNumber(const std::string &data, size_t at, bool marker) {
    Number number;
    if (at >= data.size() || Byte(data, at) == 0) {
        return number;
    }
    size_t bytes = 1;
    while ((Byte(data, at) & (0x80U >> (bytes - 1))) == 0) {
        ++bytes;
    }
    if (at + bytes > data.size()) {
        return number;
    }
    const uint64_t all = BigEndian(data, at, bytes);
    const uint64_t mask = (uint64_t{1} << (7 * bytes)) - 1;
    return {marker ? all : all & mask, bytes, (all & mask) == mask};
}

size_t WholeMatroska(const std::string &data) {
    constexpr uint64_t kSegment = 0x18538067;
    constexpr uint64_t kCluster = 0x1f43b675;
    size_t whole = 0;
    for (size_t at = 0; at < data.size();) {
        const Number id = ReadNumber(data, at, true);
        const Number size = ReadNumber(data, at + id.bytes, false);
        if (id.bytes == 0 || size.bytes == 0) {
            break;
        }
        const size_t content = at + id.bytes + size.bytes;
        if (id.value == kSegment) {
            at = content;
            continue;
        }
        // A cluster gets its size when it is complete.
        if (size.unknown || size.value > data.size() - content) {
            break;
        }
        at = content + size.value;
        whole = id.value == kCluster || whole > 0 ? at : 0;
    }
    return whole;
}

size_t WholeTransportStream(const std::string &data) {
    constexpr size_t kPacket = 188;
    size_t begins = 0;  // of the last packet of a stream
    size_t count = 0;
    for (size_t at = 0; at + kPacket <= data.size(); at += kPacket) {
        if (Byte(data, at) != 0x47) {
            throw std::runtime_error("no transport stream");
        }
        const uint64_t pid = BigEndian(data, at + 1, 2) & 0x1fff;
        const bool start = (Byte(data, at + 1) & 0x40) != 0;
        const size_t payload = at + 4 + ((Byte(data, at + 3) & 0x20) != 0 ? 1 + Byte(data, at + 4) : 0);
        // Tables have the bit as well; what is no table begins with a start code.
        if (start && pid != 0 && payload + 3 <= at + kPacket && BigEndian(data, payload, 3) == 1) {
            begins = at;
            ++count;
        }
    }
    return count > 1 ? begins : 0;
}

}  // namespace

bool CopyWholePart(const std::string &path, const std::string &copy) {
    const std::string data = ReadFile(path);
    const std::string ending = std::filesystem::path(path).extension();
    const size_t whole = ending == ".mp4"   ? WholeMp4(data)
                         : ending == ".mkv" ? WholeMatroska(data)
                                            : WholeTransportStream(data);
    if (whole > 0) {
        WriteFile(copy, data.substr(0, whole));
    }
    return whole > 0;
}

}  // namespace peers
