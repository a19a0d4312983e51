// H.264 whose pictures are coded field by field, which no encoder at hand makes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Pictures of 64x64, each in two access units: the top field, which decoding can start with, and the bottom
// field. Every sample is coded as it is (I_PCM), so a decoder gives exactly FieldSample() back. The colours
// are neutral.
class FieldStream {
  public:
    static constexpr unsigned kSize = 64;

    static uint8_t FieldSample(unsigned picture, unsigned x, unsigned line) {
        return static_cast<uint8_t>(40 + x + (line % 2 == 1 ? 90 : 0) + picture % 8 * 4);
    }
    static std::vector<std::string> Units(unsigned pictures) {
        std::vector<std::string> units;
        for (unsigned picture = 0; picture < pictures; ++picture) {
            units.push_back(SequenceSet() + PictureSet() + Field(picture, false));
            units.push_back(Field(picture, true));
        }
        return units;
    }

  private:
    // Bits in the order of the stream.
    class Bits {
      public:
        Bits &Put(unsigned count, unsigned value) {
            for (unsigned i = count; i-- > 0;) {
                m_bits.push_back((value >> i & 1U) != 0);
            }
            return *this;
        }
        // Exp-Golomb.
        Bits &PutNumber(unsigned value) {
            unsigned length = 0;
            while ((value + 1) >> (length + 1) != 0) {
                ++length;
            }
            return Put(length, 0).Put(length + 1, value + 1);
        }
        Bits &Align() {
            while (m_bits.size() % 8 != 0) {
                m_bits.push_back(false);
            }
            return *this;
        }
        // With start code, and bytes in between that keep a start code from coming up inside.
        std::string Unit(uint8_t header) {
            Put(1, 1).Align();
            std::string unit{'\0', '\0', '\0', '\1', static_cast<char>(header)};
            unsigned zeros = 0;
            for (size_t at = 0; at < m_bits.size(); at += 8) {
                unsigned byte = 0;
                for (size_t bit = 0; bit < 8; ++bit) {
                    byte = byte << 1U | (m_bits[at + bit] ? 1U : 0U);
                }
                if (zeros >= 2 && byte <= 3) {
                    unit += '\3';
                    zeros = 0;
                }
                unit += static_cast<char>(byte);
                zeros = byte == 0 ? zeros + 1 : 0;
            }
            return unit;
        }

      private:
        std::vector<bool> m_bits;
    };

    static std::string SequenceSet() {
        Bits bits;
        bits.Put(8, 77).Put(8, 0).Put(8, 30);                      // Main profile, level 3
        bits.PutNumber(0).PutNumber(0).PutNumber(0).PutNumber(0);  // set 0; 4 bits each for frame number and order
        bits.PutNumber(1).Put(1, 0);                               // one reference frame, no gaps
        bits.PutNumber(kSize / 16 - 1).PutNumber(kSize / 32 - 1);  // macroblocks of a line; pairs of macroblocks
        bits.Put(1, 0).Put(1, 0).Put(1, 1).Put(1, 0).Put(1, 0);    // fields, not adaptive; direct 8x8; no crop, no VUI
        return bits.Unit(0x67);
    }

    static std::string PictureSet() {
        Bits bits;
        bits.PutNumber(0).PutNumber(0).Put(2, 0).PutNumber(0).PutNumber(0).PutNumber(0);
        bits.Put(3, 0).PutNumber(0).PutNumber(0).PutNumber(0).Put(1, 1).Put(2, 0);  // with control of the deblocking
        return bits.Unit(0x68);
    }

    static std::string Field(unsigned picture, bool bottom) {
        Bits bits;
        bits.PutNumber(0).PutNumber(7).PutNumber(0);        // first macroblock, intra slices only, set 0
        bits.Put(4, 0).Put(1, 1).Put(1, bottom ? 1U : 0U);  // frame number 0: each picture starts the stream anew
        if (!bottom) {
            bits.PutNumber(picture % 2);  // two such pictures in a row differ in this
        }
        bits.Put(4, bottom ? 1U : 0U);   // order of output
        bits.Put(bottom ? 1 : 2, 0);     // marking of references
        bits.PutNumber(0).PutNumber(1);  // quantiser as it is, no deblocking
        for (unsigned row = 0; row < kSize / 32; ++row) {
            for (unsigned column = 0; column < kSize / 16; ++column) {
                bits.PutNumber(25).Align();
                for (unsigned sample = 0; sample < 256; ++sample) {
                    bits.Put(8,
                             FieldSample(picture, column * 16 + sample % 16, 2 * (row * 16 + sample / 16) + (bottom ? 1 : 0)));
                }
                for (unsigned sample = 0; sample < 128; ++sample) {
                    bits.Put(8, 128);
                }
            }
        }
        return bits.Unit(bottom ? 0x61 : 0x65);
    }
};
