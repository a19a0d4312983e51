#include "Compare.h"

#include <map>
#include <sstream>
#include <unordered_map>

namespace peers {
namespace {

using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

std::vector<std::vector<Frame>> ByEpoch(const std::vector<Frame> &frames) {
    std::vector<std::vector<Frame>> epochs;
    for (const auto &frame : frames) {
        if (epochs.empty() || epochs.back().back().info.epoch != frame.info.epoch) {
            epochs.emplace_back();
        }
        epochs.back().push_back(frame);
    }
    return epochs;
}

AssertionResult NumberedWithoutLoss(const std::vector<Frame> &epoch) {
    for (size_t i = 0; i < epoch.size(); ++i) {
        if (epoch[i].info.lost != 0 || epoch[i].info.sequence != epoch.front().info.sequence + i) {
            return AssertionFailure() << "frame " << i << " has number " << epoch[i].info.sequence << ", " << epoch[i].info.lost
                                      << " lost in front of it";
        }
    }
    return AssertionSuccess();
}

using Index = std::unordered_map<std::string_view, size_t>;

Index Indexed(const std::vector<std::string> &material) {
    Index index;
    for (size_t i = 0; i < material.size(); ++i) {
        index.emplace(material[i], i);
    }
    return index;
}

template <typename Unit>
size_t Restart(const std::vector<std::string> &material, const std::vector<Frame> &frames, Unit unit) {
    const Index index = Indexed(material);
    size_t last = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto found = index.find(unit(frames[i].data));
        if (found != index.end()) {
            if (found->second < last) {
                return i;
            }
            last = found->second;
        }
    }
    return frames.size();
}

AssertionResult OneRun(const std::vector<std::string> &material, const std::vector<std::string> &received, size_t least) {
    const Index index = Indexed(material);
    size_t run = 0;
    size_t last = 0;
    for (size_t i = 0; i < received.size(); ++i) {
        const auto found = index.find(received[i]);
        if (found == index.end()) {
            const bool cut = i == 0 || i + 1 == received.size();
            if (!cut) {
                return AssertionFailure() << "unit " << i << " of " << received.size() << " (" << received[i].size()
                                          << " bytes) is not of the material; the one before it was unit " << last;
            }
            continue;
        }
        if (run > 0 && found->second != last + 1) {
            return AssertionFailure() << "unit " << i << " of " << received.size() << " is the material's " << found->second
                                      << ", behind its " << last << " of " << material.size();
        }
        last = found->second;
        ++run;
    }
    if (run < least) {
        return AssertionFailure() << "only " << run << " units, wanted " << least;
    }
    return AssertionSuccess();
}

// PCM has no frames, and packets are cut as each sender likes: compared as one text.
AssertionResult OneText(const std::vector<std::string> &material, const std::vector<std::string> &received, size_t least) {
    std::string all;
    for (const auto &packet : material) {
        all += packet;
    }
    std::string got;
    for (const auto &packet : received) {
        got += packet;
    }
    if (all.find(got) == std::string::npos) {
        return AssertionFailure() << got.size() << " bytes of PCM are not one run of the material";
    }
    if (received.size() < least) {
        return AssertionFailure() << "only " << received.size() << " packets, wanted " << least;
    }
    return AssertionSuccess();
}

template <typename Unit>
AssertionResult SameUnits(const std::vector<std::string> &material, const std::vector<Frame> &frames, size_t least, bool text,
                          Unit unit) {
    const auto epochs = ByEpoch(frames);
    if (epochs.empty()) {
        return AssertionFailure() << "nothing arrived";
    }
    for (const auto &epoch : epochs) {
        if (const auto numbered = NumberedWithoutLoss(epoch); !numbered) {
            return numbered;
        }
        std::vector<std::string> received;
        for (const auto &frame : epoch) {
            received.push_back(unit(frame.data));
        }
        const size_t wanted = &epoch == &epochs.back() ? least : 0;
        if (auto same = text ? OneText(material, received, wanted) : OneRun(material, received, wanted); !same) {
            return same << " (epoch " << epoch.front().info.epoch << ")";
        }
    }
    return AssertionSuccess();
}

// The unit and the order of magnitude are the point.
bool About(double measured, double right) {
    return measured > right / 3 && measured < right * 3;
}

bool RatesAreRight(const Material &material, const source_status_t &status) {
    const bool video = About(static_cast<double>(status.video_real_fps), static_cast<double>(material.fps)) &&
                       About(status.video_bitrate, material.videoBytesPerSecond * 8);
    const bool audio = status.audio_real_fps > 0 && About(status.audio_bitrate, material.audioBytesPerSecond * 8);
    return (material.video == Codec::None || video) && (material.audio == Codec::None || audio);
}

void ExpectVideoRecord(const Material &material, const media_code_info_t &info) {
    EXPECT_EQ(info.type, 0);
    EXPECT_EQ(Text(info.code), material.VideoName());
    EXPECT_EQ(info.params.video.width, material.width);
    EXPECT_EQ(info.params.video.height, material.height);
    EXPECT_FLOAT_EQ(info.params.video.fps, material.fps);
    EXPECT_EQ(info.params.video.scan_type, 0);
    EXPECT_GE(info.params.video.ref_frames, 1);
}

void ExpectAudioRecord(const Material &material, const media_code_info_t &info) {
    EXPECT_EQ(info.type, 1);
    EXPECT_EQ(Text(info.code), material.AudioName());
    EXPECT_EQ(info.params.audio.sample_rate, material.sampleRate);
    EXPECT_EQ(info.params.audio.channels, material.channels);
    if (material.samplesPerFrame != 0) {
        EXPECT_EQ(info.params.audio.no_samples, material.samplesPerFrame);
    } else {
        EXPECT_GE(info.params.audio.no_samples, 1);
    }
}

}  // namespace

AssertionResult SameVideo(const Material &material, const std::vector<Frame> &frames, size_t least) {
    return SameUnits(material.videoUnits, frames, least, false,
                     [&](const std::string &data) { return VideoUnit(material.video, SplitByteStream(data)); });
}

size_t RestartOfVideo(const Material &material, const std::vector<Frame> &frames) {
    return Restart(material.videoUnits, frames,
                   [&](const std::string &data) { return VideoUnit(material.video, SplitByteStream(data)); });
}

size_t RestartOfAudio(const Material &material, const std::vector<Frame> &frames) {
    return Restart(material.audioUnits, frames, [&](const std::string &data) {
        const auto adts = material.audio == Codec::Aac ? ParseAdts(data) : std::nullopt;
        return adts ? std::string(adts->payload) : data;
    });
}

AssertionResult SameAudio(const Material &material, const std::vector<Frame> &frames, size_t least) {
    size_t badHeaders = 0;
    const auto unit = [&](const std::string &data) -> std::string {
        if (material.audio != Codec::Aac) {
            return data;
        }
        const auto adts = ParseAdts(data);
        if (!adts || adts->sampleRate != material.sampleRate || adts->channels != material.channels) {
            ++badHeaders;
            return data;
        }
        return std::string(adts->payload);
    };
    auto same = SameUnits(material.audioUnits, frames, least, IsPcm(material.audio), unit);
    if (same && badHeaders > 0) {
        return AssertionFailure() << badHeaders << " frames without a right ADTS header";
    }
    return same;
}

AssertionResult KeyFramesComplete(const Material &material, const std::vector<Frame> &frames, size_t least) {
    size_t pictures = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        const auto traits = Traits(material.video, SplitByteStream(frames[i].data));
        const bool flagged = (frames[i].info.flags & SHB_FRAME_KEY) != 0;
        if (traits.idr != flagged) {
            return AssertionFailure() << "access unit " << i << (traits.idr ? " is" : " is not")
                                      << " a random access picture and is flagged otherwise";
        }
        if (traits.idr && !traits.parameterSets) {
            return AssertionFailure() << "random access picture at " << i << " lacks parameter sets";
        }
        pictures += traits.idr ? 1 : 0;
    }
    if (pictures < least) {
        return AssertionFailure() << "only " << pictures << " random access pictures, wanted " << least;
    }
    return AssertionSuccess();
}

void ExpectTruth(const Material &material, const Host &host) {
    source_status_t status{};
    EXPECT_TRUE(WaitFor([&] {
        status = host.Status();
        return RatesAreRight(material, status);
    })) << "measured: "
        << status.video_real_fps << " pictures/s, " << status.video_bitrate << " and " << status.audio_bitrate << " bit/s";
    EXPECT_EQ(Text(status.source_mode), "live");
    EXPECT_EQ(Text(status.state), "connected");
    EXPECT_EQ(Text(status.video_code), material.VideoName());
    EXPECT_EQ(status.width, material.width);
    EXPECT_EQ(status.height, material.height);
    EXPECT_FLOAT_EQ(status.fps, material.fps);
    EXPECT_EQ(Text(status.audio_code), material.AudioName());
    EXPECT_EQ(status.sample_rate, material.sampleRate);
    EXPECT_EQ(status.channels, material.channels);

    const auto videoCalls = host.Calls(0);
    const auto audioCalls = host.Calls(1);
    EXPECT_EQ(videoCalls.empty(), material.video == Codec::None);
    EXPECT_EQ(audioCalls.empty(), material.audio == Codec::None);
    if (material.video != Codec::None && !videoCalls.empty()) {
        ExpectVideoRecord(material, host.VideoInfo());
        ExpectVideoRecord(material, videoCalls.back());
    } else {
        EXPECT_EQ(Text(host.VideoInfo().code), "");
    }
    if (material.audio != Codec::None && !audioCalls.empty()) {
        ExpectAudioRecord(material, host.AudioInfo());
        ExpectAudioRecord(material, audioCalls.back());
    } else {
        EXPECT_EQ(Text(host.AudioInfo().code), "");
        EXPECT_EQ(host.AudioInfo().type, 1);
    }
}

}  // namespace peers
