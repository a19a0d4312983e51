// Makes H.264 bit by bit: parameter sets with a few fields to choose, and slice headers.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace coded {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class Bits {
  public:
    Bits &U(unsigned count, uint64_t value) {
        while (count-- > 0)
            bits_.push_back((value >> count & 1) != 0);
        return *this;
    }
    Bits &Ue(uint32_t value) {
        unsigned length = 0;
        while ((value + 1) >> (length + 1) != 0)
            length++;
        return U(length, 0).U(length + 1, value + 1);
    }
    // With the stop bit and emulation prevention.
    Bytes End() {
        U(1, 1);
        while (bits_.size() % 8 != 0)
            U(1, 0);
        Bytes bytes;
        for (size_t i = 0, zeros = 0; i < bits_.size(); i += 8) {
            uint8_t byte = 0;
            for (size_t j = 0; j < 8; j++)
                byte = static_cast<uint8_t>(byte << 1 | (bits_[i + j] ? 1 : 0));
            if (zeros >= 2 && byte <= 3) {
                bytes.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            bytes.push_back(byte);
        }
        return bytes;
    }

  private:
    std::vector<bool> bits_;
};

struct Sequence {
    unsigned number = 0, profile = 100, constraints = 0, poc_type = 0, width = 20;
    int reorder = -1;  // not stated
};

inline Bytes H264Sequence(const Sequence &s) {
    Bits bits;
    bits.U(8, 0x67).U(8, s.profile).U(8, s.constraints).U(8, 40).Ue(s.number);
    if (s.profile >= 100 || s.profile == 44)
        bits.Ue(1).Ue(0).Ue(0).U(1, 0).U(1, 0);  // 4:2:0, 8 bits
    bits.Ue(0).Ue(s.poc_type);
    if (s.poc_type == 0)
        bits.Ue(0);
    bits.Ue(4).U(1, 0).Ue(s.width - 1).Ue(14).U(1, 1).U(1, 1).U(1, 0).U(1, s.reorder >= 0 ? 1 : 0);
    if (s.reorder >= 0)  // of the VUI, the bitstream restrictions only
        bits.U(8, 0).U(1, 1).U(1, 1).Ue(0).Ue(0).Ue(10).Ue(10).Ue(static_cast<uint32_t>(s.reorder)).Ue(4);
    return bits.End();
}

inline Bytes H264Picture(unsigned number, unsigned sequence = 0, unsigned references = 0) {
    return Bits().U(8, 0x68).Ue(number).Ue(sequence).U(2, 0).Ue(0).Ue(references).Ue(0).U(3, 0).Ue(0).Ue(0).Ue(0).U(3, 4).End();
}

inline Bytes H264Slice(bool key, unsigned picture = 0) {
    Bits bits;
    bits.U(8, key ? 0x65 : 0x41).Ue(0).Ue(key ? 7 : 5).Ue(picture).U(4, key ? 0 : 1);
    if (key)
        bits.Ue(0);
    bits.U(4, 0);
    if (key)
        bits.U(2, 0);
    else
        bits.U(1, 0).U(1, 0).U(1, 0);
    return bits.Ue(0).Ue(0).U(64, 0x123456789abcdef1).End();
}

inline Bytes Unit(std::initializer_list<Bytes> nals) {
    Bytes unit;
    for (const Bytes &nal : nals)
        unit = unit + Bytes{0, 0, 0, 1} + nal;
    return unit;
}

}  // namespace coded
