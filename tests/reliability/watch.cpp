// Reads every track of a buffer and compares what arrives, frame by frame, with
// the materials that senders play over and over.
//
//     reliability-watch material NAME...        makes the materials and prints "NAME PATH" for each
//     reliability-watch BUFFER NAME...          watches until the buffer is gone
//
// Prints one line for each thing that somebody must account for, SECONDS being those of the monotonic clock:
//
//     epoch SECONDS CHANNEL KIND                  the first frame of a new pipeline
//     break SECONDS CHANNEL KIND FROM TO UNKNOWN  unit TO follows unit FROM, with
// UNKNOWN frames in between that are in no material
//     lost SECONDS CHANNEL KIND COUNT             the watcher was too slow: frames were overwritten unread
//
// and at the end "total CHANNEL KIND FRAMES EPOCHS" for each track. Units are "NAME:POSITION". At the ends of
// an epoch one frame may be cut by the joining or the ending.
#include <shb.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "../peers/harness/Material.h"

namespace {

using peers::Codec;
using peers::Material;

struct Unit {
    const Material *material;
    size_t position;
    size_t of;
};

// All units of all materials; different materials have no unit in common.
class Index {
  public:
    explicit Index(const std::vector<const Material *> &materials) {
        for (const Material *material : materials) {
            Add(SHB_VIDEO, *material, material->videoUnits);
            Add(SHB_AUDIO, *material, material->audioUnits);
        }
    }
    std::optional<Unit> Find(shb_kind_t kind, int media, const std::string &data) const {
        const auto found = units_[kind].find(kind == SHB_VIDEO ? VideoUnit(media, data) : AudioUnit(data));
        return found == units_[kind].end() ? std::nullopt : std::optional<Unit>(found->second);
    }

  private:
    static constexpr int kMediaH265 = 64;

    static std::string VideoUnit(int media, const std::string &data) {
        return peers::VideoUnit(media == kMediaH265 ? Codec::H265 : Codec::H264, peers::SplitByteStream(data));
    }
    static std::string AudioUnit(const std::string &data) {
        const auto adts = peers::ParseAdts(data);
        return adts ? std::string(adts->payload) : data;
    }
    void Add(shb_kind_t kind, const Material &material, const std::vector<std::string> &units) {
        for (size_t i = 0; i < units.size(); ++i) {
            units_[kind].emplace(units[i], Unit{&material, i, units.size()});
        }
    }

    std::unordered_map<std::string, Unit> units_[2];
};

class Track {
  public:
    Track(shb_map_t *map, const Index &index, uint32_t channel, shb_kind_t kind)
        : index_(index), channel_(channel), kind_(kind), data_(size_t{1} << 20, '\0') {
        if (shb_reader_open(map, channel, 0, kind, SHB_START_OLDEST, &reader_) != SHB_OK) {
            reader_ = nullptr;
        }
    }
    ~Track() { shb_reader_close(reader_); }
    Track(const Track &) = delete;
    Track &operator=(const Track &) = delete;

    // Takes what is there. False once there will be nothing any more.
    bool Read() {
        for (;;) {
            shb_frame_t frame{};
            const int result = shb_reader_read(reader_, data_.data(), data_.size(), 0, &frame);
            if (result != SHB_OK) {
                return result == SHB_ERR_TIMEOUT;
            }
            shb_description_t description{};
            shb_reader_description(reader_, &description);
            Take(frame, index_.Find(kind_, description.media, data_.substr(0, frame.size)));
        }
    }
    void PrintTotal() const { std::printf("total %u %s %zu %zu\n", channel_, Kind(), frames_, epochs_); }

  private:
    const char *Kind() const { return kind_ == SHB_VIDEO ? "video" : "audio"; }
    void Say(const char *what) const {
        const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
        std::printf("%s %.3f %u %s", what, now.count(), channel_, Kind());
    }

    // A sender that starts over with its file may leave out the first unit.
    static bool Follows(const Unit &unit, const Unit &last) {
        const bool again = last.position + 1 == last.of && unit.position <= 1;
        return unit.material == last.material && (again || unit.position == last.position + 1);
    }

    void Take(const shb_frame_t &frame, const std::optional<Unit> &unit) {
        if (epochs_ == 0 || frame.epoch != epoch_) {
            epoch_ = frame.epoch;
            ++epochs_;
            last_.reset();
            unknown_ = 0;
            first_ = true;
            Say("epoch");
            std::printf("\n");
        }
        ++frames_;
        if (frame.lost > 0 && frames_ > 1) {
            Say("lost");
            std::printf(" %llu\n", static_cast<unsigned long long>(frame.lost));
        }
        // Judged when the next frame of the epoch has come: the last one may be cut.
        if (!unit) {
            unknown_ += first_ ? 0 : 1;
            first_ = false;
            return;
        }
        first_ = false;
        const bool follows = !last_ || Follows(*unit, *last_);
        if (!follows || unknown_ > 0) {
            Say("break");
            const std::string from = last_ ? last_->material->name + ":" + std::to_string(last_->position) : "none:0";
            std::printf(" %s %s:%zu %zu\n", from.c_str(), unit->material->name.c_str(), unit->position, unknown_);
        }
        last_ = unit;
        unknown_ = 0;
    }

    const Index &index_;
    const uint32_t channel_;
    const shb_kind_t kind_;
    shb_reader_t *reader_ = nullptr;
    std::string data_;
    uint64_t epoch_ = 0;
    bool first_ = true;
    std::optional<Unit> last_;
    size_t unknown_ = 0;
    size_t frames_ = 0;
    size_t epochs_ = 0;
};

int Watch(const char *name, const Index &index) {
    shb_map_t *map = nullptr;
    shb_geometry_t geometry{};
    if (shb_attach(name, &map) != SHB_OK || shb_map_geometry(map, &geometry) != SHB_OK) {
        std::fprintf(stderr, "no buffer %s\n", name);
        return 1;
    }
    std::printf("watching\n");
    {
        std::vector<std::unique_ptr<Track>> tracks;
        for (uint32_t channel = 0; channel < geometry.channels; ++channel) {
            tracks.push_back(std::make_unique<Track>(map, index, channel, SHB_VIDEO));
            tracks.push_back(std::make_unique<Track>(map, index, channel, SHB_AUDIO));
        }
        for (bool more = true; more;) {
            more = false;
            for (auto &track : tracks) {
                more = track->Read() || more;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        for (const auto &track : tracks) {
            track->PrintTotal();
        }
    }
    shb_detach(map);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s material NAME... | BUFFER NAME...\n", argv[0]);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::vector<const Material *> materials;
    for (int i = 2; i < argc; ++i) {
        materials.push_back(&peers::GetMaterial(argv[i]));
    }
    if (std::string(argv[1]) != "material") {
        return Watch(argv[1], Index(materials));
    }
    for (const Material *material : materials) {
        std::printf("%s %s\n", material->name.c_str(), material->path.c_str());
    }
    return 0;
}
