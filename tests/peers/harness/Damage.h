// Transport streams that are wrong on purpose. Everything follows
// from the seed: a case is the same in every run.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace peers {

constexpr size_t kTsPacket = 188;

using Random = std::mt19937;

// A number from 0 to `last`.
unsigned Pick(Random &random, unsigned last);
// True once in `n` times.
bool Once(Random &random, unsigned n);

// ---- Damage to a good stream ----------------------------------------------------------------------------------------

// Any byte data: flips one bit in about one of `n` bytes.
std::string FlipBits(std::string data, unsigned n, unsigned seed);
// The same behind the headers of transport packets only: the
// elementary streams are damaged, the multiplex is not.
std::string FlipPayloadBits(std::string ts, unsigned n, unsigned seed);
// Cuts up to a packet's length out of the data at about one of
// `n` packets: the packets' raster is lost there.
std::string CutPieces(const std::string &ts, unsigned n, unsigned seed);
// Drops, repeats and swaps whole packets, about one of `n` each.
std::string ShufflePackets(const std::string &ts, unsigned n, unsigned seed);
// Applies `change` to every packet.
std::string ChangePackets(std::string ts, const std::function<void(uint8_t *packet)> &change);
// Passes every PCR (its 33 bits at 90 kHz), PTS and DTS through `change`.
std::string ChangeTimes(const std::string &ts, const std::function<uint64_t(uint64_t time)> &change);

// ---- Packets and tables from nothing --------------------------------------------------------------------------------

struct TsStream {
    uint8_t type;
    uint16_t pid;
    std::string descriptors;
};

// The packets of one section: table id, extension, version and body; the checksum is right.
std::string Section(uint16_t pid, uint8_t table, uint16_t extension, unsigned version, const std::string &body,
                    unsigned number = 0, unsigned last = 0);
// Program association: program numbers from 1, each with the PID behind it.
std::string Pat(const std::vector<uint16_t> &pmtPids, unsigned version);
std::string Pmt(uint16_t pid, uint16_t program, uint16_t pcrPid, const std::vector<TsStream> &streams, unsigned version);
// A PES packet cut into transport packets. `length` is what the PES header tells.
std::string Pes(uint16_t pid, uint8_t streamId, uint16_t length, const std::string &payload);
// Bytes without meaning.
std::string Noise(size_t size, unsigned seed);

}  // namespace peers
