#include "Damage.h"

#include <algorithm>

namespace peers {
namespace {

constexpr uint64_t kTimeMask = (uint64_t{1} << 33) - 1;

uint8_t *Bytes(std::string &data, size_t at) {
    return static_cast<uint8_t *>(static_cast<void *>(data.data() + at));
}

char Char(unsigned value) {
    return static_cast<char>(static_cast<uint8_t>(value));
}

std::string Big16(unsigned value) {
    return {Char(value >> 8), Char(value)};
}

uint32_t Crc(const std::string &data) {
    uint32_t crc = 0xFFFFFFFF;
    for (const char c : data) {
        crc ^= static_cast<uint32_t>(static_cast<uint8_t>(c)) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000U) != 0 ? (crc << 1) ^ 0x04C11DB7U : crc << 1;
        }
    }
    return crc;
}

// Where the payload of a packet begins; the packet's end when it has none.
size_t PayloadAt(const uint8_t *packet) {
    const unsigned control = (packet[3] >> 4) & 3U;
    if ((control & 1U) == 0) {
        return kTsPacket;
    }
    return control == 3 ? std::min<size_t>(5U + packet[4], kTsPacket) : 4;
}

// One packet with as much of the data as fits behind `at`, stuffed by an adaptation field.
std::string Packet(uint16_t pid, bool start, unsigned counter, const std::string &data, size_t &at) {
    const size_t space = kTsPacket - 4;
    const size_t take = std::min(space, data.size() - at);
    const size_t stuffing = space - take;
    std::string packet = {'\x47', Char((start ? 0x40U : 0U) | (pid >> 8)), Char(pid),
                          Char((stuffing > 0 ? 0x30U : 0x10U) | (counter & 15U))};
    if (stuffing > 0) {
        packet += Char(static_cast<unsigned>(stuffing - 1));
    }
    if (stuffing > 1) {
        packet += '\0' + std::string(stuffing - 2, '\xFF');
    }
    packet += data.substr(at, take);
    at += take;
    return packet;
}

std::string Packets(uint16_t pid, const std::string &data) {
    std::string packets;
    size_t at = 0;
    for (unsigned counter = 0; at < data.size(); ++counter) {
        packets += Packet(pid, at == 0, counter, data, at);
    }
    return packets;
}

// The five bytes of a PTS or DTS.
void ChangeTimestamp(uint8_t *t, const std::function<uint64_t(uint64_t)> &change) {
    const uint64_t old = ((static_cast<uint64_t>(t[0]) >> 1) & 7U) << 30 | static_cast<uint64_t>(t[1]) << 22 |
                         (static_cast<uint64_t>(t[2]) >> 1) << 15 | static_cast<uint64_t>(t[3]) << 7 |
                         static_cast<uint64_t>(t[4]) >> 1;
    const uint64_t time = change(old) & kTimeMask;
    t[0] = static_cast<uint8_t>((t[0] & 0xF1U) | ((time >> 30) << 1));
    t[1] = static_cast<uint8_t>(time >> 22);
    t[2] = static_cast<uint8_t>(((time >> 15) << 1) | 1U);
    t[3] = static_cast<uint8_t>(time >> 7);
    t[4] = static_cast<uint8_t>((time << 1) | 1U);
}

void ChangePcr(uint8_t *p, const std::function<uint64_t(uint64_t)> &change) {
    const uint64_t old = static_cast<uint64_t>(p[0]) << 25 | static_cast<uint64_t>(p[1]) << 17 |
                         static_cast<uint64_t>(p[2]) << 9 | static_cast<uint64_t>(p[3]) << 1 | static_cast<uint64_t>(p[4]) >> 7;
    const uint64_t time = change(old) & kTimeMask;
    p[0] = static_cast<uint8_t>(time >> 25);
    p[1] = static_cast<uint8_t>(time >> 17);
    p[2] = static_cast<uint8_t>(time >> 9);
    p[3] = static_cast<uint8_t>(time >> 1);
    p[4] = static_cast<uint8_t>((p[4] & 0x7FU) | ((time & 1U) << 7));
}

}  // namespace

unsigned Pick(Random &random, unsigned last) {
    return last == 0xFFFFFFFF ? static_cast<unsigned>(random()) : static_cast<unsigned>(random() % (last + 1));
}

bool Once(Random &random, unsigned n) {
    return Pick(random, n - 1) == 0;
}

std::string FlipBits(std::string data, unsigned n, unsigned seed) {
    Random random(seed);
    for (char &c : data) {
        if (Once(random, n)) {
            c = Char(static_cast<uint8_t>(c) ^ (1U << Pick(random, 7)));
        }
    }
    return data;
}

std::string FlipPayloadBits(std::string ts, unsigned n, unsigned seed) {
    Random random(seed);
    return ChangePackets(std::move(ts), [&](uint8_t *packet) {
        // The tables of ffmpeg's multiplexer have the low numbers.
        const unsigned pid = (packet[1] & 0x1FU) << 8 | packet[2];
        for (size_t at = PayloadAt(packet) + 20; pid >= 0x100 && pid < 0x1000 && at < kTsPacket; ++at) {
            if (Once(random, n)) {
                packet[at] = static_cast<uint8_t>(packet[at] ^ (1U << Pick(random, 7)));
            }
        }
    });
}

std::string CutPieces(const std::string &ts, unsigned n, unsigned seed) {
    Random random(seed);
    std::string cut;
    for (size_t at = 0; at < ts.size(); at += kTsPacket) {
        const std::string packet = ts.substr(at, kTsPacket);
        cut += Once(random, n) ? packet.substr(0, Pick(random, kTsPacket - 1)) : packet;
    }
    return cut;
}

std::string ShufflePackets(const std::string &ts, unsigned n, unsigned seed) {
    Random random(seed);
    std::vector<std::string> packets;
    for (size_t at = 0; at < ts.size(); at += kTsPacket) {
        if (Once(random, n)) {
            continue;
        }
        packets.push_back(ts.substr(at, kTsPacket));
        if (Once(random, n)) {
            packets.push_back(packets.back());
        }
        if (Once(random, n)) {
            std::swap(
                packets.back(),
                packets[packets.size() - 1 - Pick(random, static_cast<unsigned>(std::min<size_t>(packets.size() - 1, 20)))]);
        }
    }
    std::string shuffled;
    for (const auto &packet : packets) {
        shuffled += packet;
    }
    return shuffled;
}

std::string ChangePackets(std::string ts, const std::function<void(uint8_t *packet)> &change) {
    for (size_t at = 0; at + kTsPacket <= ts.size(); at += kTsPacket) {
        change(Bytes(ts, at));
    }
    return ts;
}

std::string ChangeTimes(const std::string &ts, const std::function<uint64_t(uint64_t time)> &change) {
    return ChangePackets(ts, [&](uint8_t *packet) {
        if ((packet[3] & 0x20U) != 0 && packet[4] >= 7 && (packet[5] & 0x10U) != 0) {
            ChangePcr(packet + 6, change);
        }
        const size_t at = PayloadAt(packet);
        uint8_t *pes = packet + at;
        const bool header = (packet[1] & 0x40U) != 0 && at + 19 <= kTsPacket && pes[0] == 0 && pes[1] == 0 && pes[2] == 1;
        if (header && pes[3] >= 0xBD && (pes[7] & 0x80U) != 0) {
            ChangeTimestamp(pes + 9, change);
            if ((pes[7] & 0x40U) != 0) {
                ChangeTimestamp(pes + 14, change);
            }
        }
    });
}

std::string Section(uint16_t pid, uint8_t table, uint16_t extension, unsigned version, const std::string &body, unsigned number,
                    unsigned last) {
    const auto length = static_cast<unsigned>(body.size() + 9);
    std::string section = Char(table) + Big16(0xB000U | length) + Big16(extension) + Char(0xC1U | ((version & 31U) << 1)) +
                          Char(number) + Char(last) + body;
    const uint32_t crc = Crc(section);
    section += Big16(crc >> 16) + Big16(crc & 0xFFFFU);
    return Packets(pid, '\0' + section);
}

std::string Pat(const std::vector<uint16_t> &pmtPids, unsigned version) {
    std::string body;
    unsigned program = 0;
    for (const uint16_t pid : pmtPids) {
        body += Big16(++program) + Big16(0xE000U | pid);
    }
    return Section(0, 0, 1, version, body);
}

std::string Pmt(uint16_t pid, uint16_t program, uint16_t pcrPid, const std::vector<TsStream> &streams, unsigned version) {
    std::string body = Big16(0xE000U | pcrPid) + Big16(0xF000U);
    for (const TsStream &stream : streams) {
        body += Char(stream.type) + Big16(0xE000U | stream.pid) +
                Big16(0xF000U | static_cast<unsigned>(stream.descriptors.size())) + stream.descriptors;
    }
    return Section(pid, 2, program, version, body);
}

std::string Pes(uint16_t pid, uint8_t streamId, uint16_t length, const std::string &payload) {
    const std::string header = {'\0', '\0', '\1', Char(streamId)};
    // A presentation time of one second.
    const std::string time = {'\x21', '\0', '\5', '\xBF', '\x21'};
    return Packets(pid, header + Big16(length) + "\x80\x80\x05" + time + payload);
}

std::string Noise(size_t size, unsigned seed) {
    Random random(seed);
    std::string noise(size, '\0');
    for (char &c : noise) {
        c = Char(Pick(random, 255));
    }
    return noise;
}

}  // namespace peers
