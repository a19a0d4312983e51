#include "Feeder.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace peers {
namespace {

// Times of a stream do not begin at 0, and decoding times may lie before the first picture.
constexpr nanoseconds kFirstTime = std::chrono::hours(1);

uint64_t Stamp(nanoseconds time) {
    return time == kUnknown ? SHB_TIME_NONE : static_cast<uint64_t>((time + kFirstTime).count());
}

// Header of a frame of AAC-LC at 48 kHz with two channels.
std::string WithAdts(const std::string &payload) {
    const size_t size = payload.size() + 7;
    const unsigned char header[] = {0xff,
                                    0xf1,
                                    0x4c,
                                    static_cast<unsigned char>(0x80 | (size >> 11)),
                                    static_cast<unsigned char>(size >> 3),
                                    static_cast<unsigned char>((size << 5) | 0x1f),
                                    0xfc};
    return std::string(reinterpret_cast<const char *>(header), sizeof header) + payload;
}

void Put(const char *text, char *field, size_t size) {
    std::strncpy(field, text, size - 1);
}

}  // namespace

nanoseconds Monotonic() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

Feeder::Feeder(const Material &material, const FeederOptions &options) : options_(options) {
    static std::atomic<int> counter{0};
    name_ = !options.name.empty() ? options.name : "record-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    if (shb_create(name_.c_str(), &options_.geometry, &buffer_) != SHB_OK) {
        throw std::runtime_error("no shared buffer");
    }
    Start(material);
}

Feeder::~Feeder() {
    Stop();
    shb_destroy(buffer_);
}

void Feeder::Change(const Material &material) {
    Stop();
    Start(material);
}

void Feeder::Start(const Material &material) {
    stop_ = false;
    Open(SHB_VIDEO, material);
    Open(SHB_AUDIO, material);
    origin_ = Monotonic();
    thread_ = std::thread([this] { Run(); });
}

void Feeder::Stop() {
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    for (Track &track : tracks_) {
        shb_writer_close(track.writer);
        track.writer = nullptr;
    }
}

void Feeder::Open(shb_kind_t kind, const Material &material) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Track &track = tracks_[kind];
    track = {};
    track.stream = kind == SHB_VIDEO ? &Original(material).video : &Original(material).audio;
    if (track.stream->codec == Codec::None) {
        shb_set_presence(buffer_, 0, 0, kind, SHB_PRESENCE_ABSENT);
        return;
    }
    shb_description_t description{};
    const bool aac = track.stream->codec == Codec::Aac;
    Put(kind == SHB_VIDEO ? material.VideoName() : material.AudioName(), description.code, sizeof description.code);
    Put(kind == SHB_VIDEO ? "byte-stream"
        : !aac            ? ""
        : options_.adts   ? "adts"
                          : "raw",
        description.format, sizeof description.format);
    description.width = track.stream->width;
    description.height = track.stream->height;
    description.fps_n = static_cast<int>(material.fps);
    description.fps_d = 1;
    description.reorder_frames = kind == SHB_VIDEO ? -1 : 0;
    description.sample_rate = track.stream->sampleRate;
    description.channels = track.stream->channels;
    description.samples_per_frame = kind == SHB_AUDIO ? material.samplesPerFrame : 0;
    const std::string &data = track.stream->codecData;
    if (shb_writer_open(buffer_, 0, 0, kind, &track.writer) != SHB_OK ||
        (!options_.described &&
         shb_writer_write(track.writer, "?", 1, SHB_TIME_NONE, SHB_TIME_NONE, SHB_TIME_NONE, SHB_FRAME_KEY) != SHB_OK) ||
        shb_writer_describe(track.writer, &description, data.data(), data.size()) != SHB_OK) {
        throw std::runtime_error("the track cannot be written");
    }
}

void Feeder::Run() {
    shb_kind_t kind = SHB_VIDEO;
    const auto next = [this](shb_kind_t of) {
        const Track &track = tracks_[of];
        const bool any = track.writer != nullptr && track.after.size() < track.stream->packets.size();
        return any ? &track.stream->packets[track.after.size()] : nullptr;
    };
    for (const Track &track : tracks_) {
        if (track.writer != nullptr) {
            shb_writer_set_clock(track.writer, (origin_ - kFirstTime).count());
        }
    }
    while (!stop_) {
        const RecordedPacket *video = next(SHB_VIDEO);
        const RecordedPacket *audio = next(SHB_AUDIO);
        if (video == nullptr && audio == nullptr) {
            return;
        }
        // In the order in which a network brings them.
        kind = audio == nullptr || (video != nullptr && video->dts <= audio->dts) ? SHB_VIDEO : SHB_AUDIO;
        const RecordedPacket &packet = kind == SHB_VIDEO ? *video : *audio;
        const nanoseconds due = packet.dts == kUnknown ? origin_ : origin_ + packet.dts;
        while (!stop_ && Monotonic() < due) {
            std::this_thread::sleep_for(std::min<nanoseconds>(due - Monotonic(), milliseconds(50)));
        }
        Write(kind, packet);
    }
}

void Feeder::Write(shb_kind_t kind, const RecordedPacket &packet) {
    Track &track = tracks_[kind];
    const bool adts = track.stream->codec == Codec::Aac && options_.adts;
    const std::string data = adts ? WithAdts(packet.data) : packet.data;
    const bool dts = kind == SHB_AUDIO || options_.decodingTimes;
    const nanoseconds before = Monotonic();
    shb_writer_write(track.writer, data.data(), data.size(), Stamp(packet.pts), dts ? Stamp(packet.dts) : SHB_TIME_NONE,
                     packet.duration.count() > 0 ? static_cast<uint64_t>(packet.duration.count()) : SHB_TIME_NONE,
                     packet.key ? SHB_FRAME_KEY : 0);
    const std::lock_guard<std::mutex> lock(mutex_);
    track.before.push_back(before);
    track.after.push_back(Monotonic());
}

size_t Feeder::Count(shb_kind_t kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tracks_[kind].after.size();
}

bool Feeder::WaitFrames(shb_kind_t kind, size_t count) const {
    return WaitFor([&] { return Count(kind) >= count; });
}

nanoseconds Feeder::Before(shb_kind_t kind, size_t position) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tracks_[kind].before.at(position);
}

nanoseconds Feeder::After(shb_kind_t kind, size_t position) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tracks_[kind].after.at(position);
}

nanoseconds Feeder::Due(shb_kind_t kind, size_t position) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return origin_ + tracks_[kind].stream->packets.at(position).dts;
}

}  // namespace peers
