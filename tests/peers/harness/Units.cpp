#include "Units.h"

#include <array>
#include <stdexcept>

namespace peers {
namespace {

unsigned Byte(std::string_view data, size_t at) {
    return static_cast<unsigned char>(data[at]);
}

enum class NalKind { Other, Delimiter, Vps, Sps, Pps, Slice, RandomAccess };

NalKind Kind(Codec codec, std::string_view nal) {
    if (nal.empty()) {
        return NalKind::Other;
    }
    if (codec == Codec::H264) {
        switch (Byte(nal, 0) & 0x1f) {
            case 1:
            case 2:
            case 3:
            case 4:
                return NalKind::Slice;
            case 5:
                return NalKind::RandomAccess;
            case 7:
                return NalKind::Sps;
            case 8:
                return NalKind::Pps;
            case 9:
                return NalKind::Delimiter;
            default:
                return NalKind::Other;
        }
    }
    const unsigned type = (Byte(nal, 0) >> 1) & 0x3f;
    if (type >= 16 && type <= 23) {
        return NalKind::RandomAccess;
    }
    if (type < 32) {
        return NalKind::Slice;
    }
    switch (type) {
        case 32:
            return NalKind::Vps;
        case 33:
            return NalKind::Sps;
        case 34:
            return NalKind::Pps;
        case 35:
            return NalKind::Delimiter;
        default:
            return NalKind::Other;
    }
}

}  // namespace

bool IsPcm(Codec codec) {
    return codec == Codec::Pcma || codec == Codec::Pcmu;
}

std::vector<std::string_view> SplitByteStream(std::string_view data) {
    static constexpr std::string_view startCode("\0\0\1", 3);
    std::vector<std::string_view> nals;
    size_t start = data.find(startCode);
    while (start != std::string_view::npos) {
        start += startCode.size();
        const size_t next = data.find(startCode, start);
        std::string_view nal = data.substr(start, next == std::string_view::npos ? next : next - start);
        // Zero bytes at the end belong to the next start code: no NAL unit ends in one.
        const size_t last = nal.find_last_not_of('\0');
        nal = nal.substr(0, last == std::string_view::npos ? 0 : last + 1);
        nals.push_back(nal);
        start = next;
    }
    return nals;
}

std::vector<std::string_view> SplitLengthPrefixed(std::string_view data) {
    std::vector<std::string_view> nals;
    while (!data.empty()) {
        if (data.size() < 4) {
            throw std::runtime_error("sample ends inside a NAL unit length");
        }
        const size_t size =
            (size_t{Byte(data, 0)} << 24) | (size_t{Byte(data, 1)} << 16) | (size_t{Byte(data, 2)} << 8) | Byte(data, 3);
        if (size > data.size() - 4) {
            throw std::runtime_error("NAL unit is longer than its sample");
        }
        nals.push_back(data.substr(4, size));
        data.remove_prefix(4 + size);
    }
    return nals;
}

std::string VideoUnit(Codec codec, const std::vector<std::string_view> &nals) {
    std::string unit;
    for (const auto &nal : nals) {
        const NalKind kind = Kind(codec, nal);
        if (kind == NalKind::Slice || kind == NalKind::RandomAccess || kind == NalKind::Other) {
            unit.append("\0\0\0\1", 4).append(nal);
        }
    }
    return unit;
}

UnitTraits Traits(Codec codec, const std::vector<std::string_view> &nals) {
    UnitTraits traits;
    bool vps = codec == Codec::H264;
    bool sps = false;
    bool pps = false;
    for (const auto &nal : nals) {
        const NalKind kind = Kind(codec, nal);
        vps = vps || kind == NalKind::Vps;
        sps = sps || kind == NalKind::Sps;
        pps = pps || kind == NalKind::Pps;
        if (kind == NalKind::Slice || kind == NalKind::RandomAccess) {
            traits.idr = kind == NalKind::RandomAccess;
            traits.parameterSets = vps && sps && pps;
            break;
        }
    }
    return traits;
}

std::optional<Adts> ParseAdts(std::string_view frame) {
    static constexpr std::array<int, 13> rates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                  22050, 16000, 12000, 11025, 8000,  7350};
    if (frame.size() < 7 || Byte(frame, 0) != 0xff || (Byte(frame, 1) & 0xf6) != 0xf0) {
        return std::nullopt;
    }
    const size_t header = (Byte(frame, 1) & 1) != 0 ? 7 : 9;
    const unsigned rate = (Byte(frame, 2) >> 2) & 0xf;
    const unsigned channels = ((Byte(frame, 2) & 1) << 2) | (Byte(frame, 3) >> 6);
    const size_t length = ((Byte(frame, 3) & 3) << 11) | (Byte(frame, 4) << 3) | (Byte(frame, 5) >> 5);
    const unsigned blocks = Byte(frame, 6) & 3;
    if (rate >= rates.size() || length != frame.size() || length <= header || blocks != 0) {
        return std::nullopt;
    }
    return Adts{rates[rate], static_cast<int>(channels), frame.substr(header)};
}

}  // namespace peers
