// A reader and a mapping that lies: whatever stands there, the reader answers and stays inside.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <random>

#include "shb_layout.h"
#include "shb_support.h"

using namespace shbtest;

namespace {

constexpr size_t kTrack = SHB_PAGE_BYTES;  // the first track, video
constexpr size_t kDescriptors = kTrack + sizeof(shb_track_t);

}  // namespace

class ShbDamage : public ::testing::Test {
  protected:
    ShbDamage()
        : name_(UniqueName()),
          buffer_(Create(name_, SmallGeometry())),
          writer_(OpenWriter(buffer_)),
          segment_("/dev/shm/" + name_) {
        const shb_description_t description{};
        shb_writer_describe(writer_.get(), &description, "data", 4);
        for (uint64_t i = 0; i < 10; i++)
            WritePattern(writer_, 1, i, 1000, i % 4 == 0 ? uint32_t{SHB_FRAME_KEY} : 0u);
    }
    int AttachResult() const {
        int result;
        Attach(name_, &result);
        return result;
    }
    const std::string name_;
    Buffer buffer_;
    Writer writer_;
    Segment segment_;
};

TEST_F(ShbDamage, ForeignVersionIsRefused) {
    segment_.Put<uint32_t>(offsetof(shb_header_t, version), SHB_LAYOUT_VERSION + 1);
    EXPECT_EQ(SHB_ERR_VERSION, AttachResult());
    segment_.Put<uint32_t>(offsetof(shb_header_t, version), SHB_LAYOUT_VERSION);
    EXPECT_EQ(SHB_OK, AttachResult());
    segment_.Put<uint64_t>(offsetof(shb_header_t, magic), 0);
    EXPECT_EQ(SHB_ERR_VERSION, AttachResult());
}

TEST_F(ShbDamage, EveryWrongHeaderByteIsNoticed) {
    for (size_t i = 0; i < sizeof(shb_header_t); i++) {
        if ((i >= offsetof(shb_header_t, creator) && i < offsetof(shb_header_t, channels)) ||
            i >= offsetof(shb_header_t, token))
            continue;
        for (int bit = 0; bit < 8; bit++) {
            segment_.bytes[i] ^= static_cast<uint8_t>(1 << bit);
            const int result = AttachResult();
            EXPECT_TRUE(result == SHB_ERR_VERSION || result == SHB_ERR_CORRUPT)
                << "byte " << i << " bit " << bit << ": " << result;
            segment_.bytes[i] ^= static_cast<uint8_t>(1 << bit);
        }
    }
    EXPECT_EQ(SHB_OK, AttachResult());
}

TEST_F(ShbDamage, CutFileIsRefused) {
    // A copy, since a buffer that is cut under its creator's hands ends that with the next heartbeat.
    const std::string name = name_ + "-cut";
    const std::string path = "/dev/shm/" + name;
    std::filesystem::copy_file("/dev/shm/" + name_, path);
    const auto attached_at = [&](size_t size) {
        int result = SHB_OK;
        EXPECT_EQ(0, truncate(path.c_str(), static_cast<off_t>(size)));
        Attach(name, &result);
        return result;
    };
    EXPECT_EQ(SHB_OK, attached_at(segment_.size));
    EXPECT_EQ(SHB_ERR_CORRUPT, attached_at(segment_.size - 1));
    EXPECT_EQ(SHB_ERR_VERSION, attached_at(100));
    EXPECT_EQ(SHB_ERR_VERSION, attached_at(0));
    std::filesystem::remove(path);
}

TEST_F(ShbDamage, WrongTrackHeadIsNoticed) {
    Map map = Attach(name_);
    Reader reader = OpenReader(map, SHB_START_OLDEST);
    segment_.Put<uint64_t>(kTrack + offsetof(shb_track_t, tail), 11);  // behind the head
    EXPECT_EQ(SHB_ERR_CORRUPT, Read(reader).result);
    EXPECT_FALSE(OpenReader(map, SHB_START_OLDEST));
    segment_.Put<uint64_t>(kTrack + offsetof(shb_track_t, tail), 0);
    EXPECT_EQ(SHB_OK, Read(reader).result);
    segment_.Put<uint64_t>(kTrack + offsetof(shb_track_t, head), 1000);  // more than there is room for
    EXPECT_EQ(SHB_ERR_CORRUPT, Read(reader).result);
    segment_.Put<uint64_t>(kTrack + offsetof(shb_track_t, head), 0);  // back in time
    EXPECT_EQ(SHB_ERR_CORRUPT, Read(reader).result);
}

TEST_F(ShbDamage, WrongDescriptorIsNoticed) {
    Map map = Attach(name_);
    const auto broken = [&](size_t field, auto value) {
        std::vector<uint8_t> saved(segment_.bytes + kDescriptors, segment_.bytes + kDescriptors + sizeof(shb_descriptor_t));
        segment_.Put(kDescriptors + field, value);
        Reader reader = OpenReader(map, SHB_START_OLDEST);
        const int result = Read(reader).result;
        memcpy(segment_.bytes + kDescriptors, saved.data(), saved.size());
        return result == SHB_ERR_CORRUPT;
    };
    EXPECT_FALSE(broken(offsetof(shb_descriptor_t, pts), uint64_t{5}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, size), uint32_t{0}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, size), uint32_t{65537}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, size), UINT32_MAX));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, position), uint64_t{65536 - 64}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, position), uint64_t{1}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, position), UINT64_MAX));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, epoch), uint64_t{0}));
    EXPECT_TRUE(broken(offsetof(shb_descriptor_t, sequence), uint64_t{1}));
}

TEST_F(ShbDamage, TextsAlwaysEnd) {
    shb_description_t description{};
    strcpy(description.code, "H264");
    shb_writer_describe(writer_.get(), &description, nullptr, 0);
    // The second one.
    const size_t slot =
        kTrack + offsetof(shb_track_t, description) + sizeof(shb_description_slot_t) + offsetof(shb_description_slot_t, words);
    memset(segment_.bytes + slot + offsetof(shb_description_t, code), 'x', 16 + 24 + 16 + 16);
    Map map = Attach(name_);
    ASSERT_EQ(SHB_OK, shb_map_description(map.get(), 0, 0, SHB_VIDEO, &description));
    EXPECT_EQ(15u, strlen(description.code));
    EXPECT_EQ(23u, strlen(description.profile));
    EXPECT_EQ(15u, strlen(description.level));
    EXPECT_EQ(15u, strlen(description.format));
}

TEST_F(ShbDamage, NoiseNeverLeadsOutside) {
    Map map = Attach(name_);
    std::mt19937_64 random(3);  // NOLINT(cert-msc32-c,cert-msc51-cpp): every run the same
    const std::vector<uint8_t> saved(segment_.bytes + kTrack, segment_.bytes + kDescriptors + 16 * sizeof(shb_descriptor_t));
    std::vector<uint8_t> data(SHB_CODEC_DATA_MAX);
    size_t size = 0;
    int good = 0, corrupt = 0;
    for (int round = 0; round < 20000; round++) {
        memcpy(segment_.bytes + kTrack, saved.data(), saved.size());
        // The owner is left out: it names a process whose files would be asked for.
        for (int i = static_cast<int>(1 + random() % 3); i > 0; i--) {
            // Most of the bytes are codec data, of no interest most of the time.
            const size_t descriptors = kDescriptors - kTrack;
            const size_t at = std::array{8 + random() % (offsetof(shb_track_t, description) - 16),
                                         descriptors + random() % (saved.size() - descriptors - 8),
                                         8 + random() % (saved.size() - 16)}[random() % 3];
            const uint64_t values[] = {random(), 0, UINT64_MAX, random() % 100, uint64_t{1} << (random() % 64)};
            segment_.Put<uint64_t>(kTrack + (random() % 2 == 0 ? at / 8 * 8 : at), values[random() % 5]);
        }
        const auto start = static_cast<shb_start_t>(random() % 3);
        Reader reader = OpenReader(map, start);
        if (!reader) {
            corrupt++;
            continue;
        }
        for (int i = 0; i < 12; i++) {
            ReadFrame got = Read(reader, 0, 65536);
            ASSERT_TRUE(got.result == SHB_OK || got.result == SHB_ERR_CORRUPT || got.result == SHB_ERR_TIMEOUT ||
                        got.result == SHB_ERR_TOO_BIG)
                << got.result;
            if (got.result == SHB_OK) {
                good++;
                ASSERT_LE(got.frame.size, 65536u);
                shb_description_t description;
                shb_reader_description(reader.get(), &description);
                shb_reader_codec_data(reader.get(), data.data(), data.size(), &size);
                ASSERT_LE(size, data.size());
            } else {
                corrupt += got.result == SHB_ERR_CORRUPT;
                break;
            }
        }
        shb_stats_t stats;
        EXPECT_EQ(SHB_OK, shb_map_stats(map.get(), 0, 0, SHB_VIDEO, &stats));
    }
    memcpy(segment_.bytes + kTrack, saved.data(), saved.size());
    EXPECT_GT(good, 1000);
    EXPECT_GT(corrupt, 1000);
}
