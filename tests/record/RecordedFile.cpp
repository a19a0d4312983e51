#include "RecordedFile.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "../peers/harness/Process.h"
#include "../peers/harness/TempDir.h"

namespace peers {
namespace {

using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

void Demand(int result, const std::string &what) {
    if (result < 0) {
        char text[AV_ERROR_MAX_STRING_SIZE] = "";
        av_strerror(result, text, sizeof text);
        throw std::runtime_error(what + ": " + text);
    }
}

struct Closer {
    void operator()(AVFormatContext *input) const { avformat_close_input(&input); }
    void operator()(AVBSFContext *filter) const { av_bsf_free(&filter); }
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
};
using Input = std::unique_ptr<AVFormatContext, Closer>;
using Filter = std::unique_ptr<AVBSFContext, Closer>;
using Packet = std::unique_ptr<AVPacket, Closer>;

Codec CodecOf(AVCodecID id) {
    static const std::map<AVCodecID, Codec> codecs = {
        {AV_CODEC_ID_H264, Codec::H264},     {AV_CODEC_ID_HEVC, Codec::H265},     {AV_CODEC_ID_AAC, Codec::Aac},
        {AV_CODEC_ID_MP3, Codec::Mp3},       {AV_CODEC_ID_AC3, Codec::Ac3},       {AV_CODEC_ID_OPUS, Codec::Opus},
        {AV_CODEC_ID_PCM_ALAW, Codec::Pcma}, {AV_CODEC_ID_PCM_MULAW, Codec::Pcmu}};
    const auto found = codecs.find(id);
    return found == codecs.end() ? Codec::None : found->second;
}

std::string Bytes(const uint8_t *data, int size) {
    return size > 0 ? std::string(reinterpret_cast<const char *>(data), static_cast<size_t>(size)) : std::string();
}

nanoseconds Time(int64_t time, AVRational base) {
    return time == AV_NOPTS_VALUE ? kUnknown : nanoseconds(av_rescale_q(time, base, AVRational{1, 1000000000}));
}

// Length-prefixed NAL units become a byte stream; everything else stays as it is.
Filter MakeFilter(const AVStream &stream) {
    const char *name = stream.codecpar->codec_id == AV_CODEC_ID_H264   ? "h264_mp4toannexb"
                       : stream.codecpar->codec_id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                                       : "null";
    AVBSFContext *filter = nullptr;
    Demand(av_bsf_alloc(av_bsf_get_by_name(name), &filter), name);
    Filter owner(filter);
    Demand(avcodec_parameters_copy(filter->par_in, stream.codecpar), name);
    filter->time_base_in = stream.time_base;
    Demand(av_bsf_init(filter), name);
    return owner;
}

void Describe(const AVCodecParameters &codec, RecordedStream &stream) {
    stream.width = codec.width;
    stream.height = codec.height;
    stream.sampleRate = codec.sample_rate;
    stream.channels = codec.ch_layout.nb_channels;
    stream.codecData = Bytes(codec.extradata, codec.extradata_size);
}

void Append(const AVPacket &packet, AVRational base, Codec codec, RecordedStream &stream) {
    RecordedPacket taken{Bytes(packet.data, packet.size), {},
                         Time(packet.pts, base),          Time(packet.dts, base),
                         Time(packet.duration, base),     (packet.flags & AV_PKT_FLAG_KEY) != 0};
    const bool video = codec == Codec::H264 || codec == Codec::H265;
    // Some containers have AAC with its headers.
    const auto adts = codec == Codec::Aac ? ParseAdts(taken.data) : std::nullopt;
    taken.unit = video ? VideoUnit(codec, SplitByteStream(taken.data)) : adts ? std::string(adts->payload) : taken.data;
    stream.codec = codec;
    stream.packets.push_back(std::move(taken));
}

AssertionResult SameFormat(const RecordedStream &original, const RecordedStream &recorded) {
    if (recorded.codec != original.codec || recorded.width != original.width || recorded.height != original.height ||
        recorded.sampleRate != original.sampleRate || recorded.channels != original.channels) {
        return AssertionFailure() << "codec " << static_cast<int>(recorded.codec) << ", " << recorded.width << "x"
                                  << recorded.height << ", " << recorded.sampleRate << " Hz, " << recorded.channels
                                  << " channels";
    }
    return AssertionSuccess();
}

// How much further picture and sound are apart than in the material, at worst.
// A source may bend its times as a whole while it finds its peer's clock, so each picture is compared with the sound
// that belongs to it.
nanoseconds Apart(const Material &material, const Excerpt &video, const Excerpt &audio) {
    const RecordedFile &original = Original(material);
    nanoseconds worst(0);
    size_t sound = 0;
    for (size_t picture = 0; picture < video.count; ++picture) {
        const auto distance = [&](size_t of) {
            return std::chrono::abs(original.audio.packets[audio.first + of].pts -
                                    original.video.packets[video.first + picture].pts);
        };
        // Pictures are in decoding order, so the nearest sound can lie before the last one.
        while (sound > 0 && distance(sound - 1) < distance(sound)) {
            --sound;
        }
        while (sound + 1 < audio.count && distance(sound + 1) < distance(sound)) {
            ++sound;
        }
        worst = std::max(worst, std::chrono::abs(video.shifts[picture] - audio.shifts[sound]));
    }
    return worst;
}

double Milliseconds(nanoseconds time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

nanoseconds RecordedStream::Length() const {
    if (packets.empty()) {
        return nanoseconds(0);
    }
    nanoseconds first = packets.front().pts;
    nanoseconds last = first;
    for (const RecordedPacket &packet : packets) {
        first = std::min(first, packet.pts);
        last = std::max(last, packet.pts + packet.duration);
    }
    return last - first;
}

RecordedFile ReadRecorded(const std::string &path) {
    av_log_set_level(AV_LOG_ERROR);
    AVFormatContext *opened = nullptr;
    Demand(avformat_open_input(&opened, path.c_str(), nullptr, nullptr), path);
    const Input input(opened);
    Demand(avformat_find_stream_info(opened, nullptr), path);
    RecordedFile file;
    file.container = opened->iformat->name;
    std::vector<Filter> filters;
    for (unsigned i = 0; i < opened->nb_streams; ++i) {
        const AVStream &stream = *opened->streams[i];
        const bool video = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        filters.push_back(MakeFilter(stream));
        Describe(*filters.back()->par_out, video ? file.video : file.audio);
    }
    const Packet packet(av_packet_alloc());
    while (av_read_frame(opened, packet.get()) >= 0) {
        const AVStream &stream = *opened->streams[packet->stream_index];
        AVBSFContext *filter = filters.at(static_cast<size_t>(packet->stream_index)).get();
        Demand(av_bsf_send_packet(filter, packet.get()), path);
        while (av_bsf_receive_packet(filter, packet.get()) >= 0) {
            const bool video = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
            Append(*packet, stream.time_base, CodecOf(stream.codecpar->codec_id), video ? file.video : file.audio);
            av_packet_unref(packet.get());
        }
    }
    return file;
}

const RecordedFile &Original(const Material &material) {
    static std::mutex mutex;
    static std::map<std::string, RecordedFile> read;
    const std::lock_guard<std::mutex> lock(mutex);
    auto found = read.find(material.name);
    if (found == read.end()) {
        found = read.emplace(material.name, ReadRecorded(material.path)).first;
    }
    return found->second;
}

std::vector<size_t> Positions(const RecordedStream &original, const RecordedStream &recorded) {
    std::unordered_map<std::string_view, size_t> places;
    for (size_t i = 0; i < original.packets.size(); ++i) {
        places.emplace(original.packets[i].unit, i);
    }
    std::vector<size_t> positions;
    for (const RecordedPacket &packet : recorded.packets) {
        const auto place = places.find(packet.unit);
        positions.push_back(place == places.end() ? original.packets.size() : place->second);
    }
    return positions;
}

AssertionResult IsExcerpt(const RecordedStream &original, const RecordedStream &recorded, Excerpt &excerpt) {
    std::vector<size_t> positions = Positions(original, recorded);
    excerpt = {};
    // Whoever joins may get the first one without something that stands at its beginning.
    if (positions.size() > 1 && positions[0] == original.packets.size() && positions[1] > 0) {
        positions[0] = positions[1] - 1;
    }
    for (size_t i = 0; i < recorded.packets.size(); ++i) {
        const RecordedPacket &packet = recorded.packets[i];
        if (positions[i] == original.packets.size()) {
            return AssertionFailure() << "packet " << i << " of " << recorded.packets.size() << " is not of the material";
        }
        excerpt.shifts.push_back(packet.pts - original.packets[positions[i]].pts);
        if (i == 0) {
            excerpt.first = positions[i];
        } else if (positions[i] != excerpt.End()) {
            return AssertionFailure() << "packet " << i << " is the material's " << positions[i] << ", wanted "
                                      << excerpt.End();
        } else if (packet.dts <= recorded.packets[i - 1].dts && packet.dts != kUnknown) {
            return AssertionFailure() << "the DTS of packet " << i << " does not rise: " << packet.dts.count() << " ns after "
                                      << recorded.packets[i - 1].dts.count() << " ns";
        }
        if (packet.pts < packet.dts) {
            return AssertionFailure() << "packet " << i << " is shown before it is decoded";
        }
        ++excerpt.count;
    }
    return AssertionSuccess();
}

AssertionResult IsRecordingOf(const Material &material, const RecordedFile &file, Excerpt &video, Excerpt &audio,
                              nanoseconds slack) {
    const RecordedFile &original = Original(material);
    for (const auto &[kind, sent, got, excerpt] : {std::make_tuple("video", &original.video, &file.video, &video),
                                                   std::make_tuple("audio", &original.audio, &file.audio, &audio)}) {
        if (const auto same = SameFormat(*sent, *got); !same) {
            return AssertionFailure() << kind << ": " << same.message();
        }
        if (const auto is = IsExcerpt(*sent, *got, *excerpt); !is) {
            return AssertionFailure() << kind << ": " << is.message();
        }
    }
    if (material.video == Codec::None || material.audio == Codec::None) {
        return AssertionSuccess();
    }
    if (!file.video.packets.front().key) {
        return AssertionFailure() << "the video does not begin with a key frame";
    }
    const nanoseconds frame(int64_t{1000000000} * material.samplesPerFrame / material.sampleRate);
    const nanoseconds apart = Apart(material, video, audio);
    // Matroska has times in ms: those of the material, and of the recording.
    const nanoseconds rounding = std::chrono::milliseconds(2);
    if (apart > frame + rounding + slack) {
        return AssertionFailure() << "picture and sound are apart by " << Milliseconds(apart) << " ms";
    }
    return AssertionSuccess();
}

AssertionResult Decodes(const std::string &path) {
    const TempDir dir;
    // In units of a frame's length, times that vary would meet.
    Process ffmpeg(
        {"ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path, "-enc_time_base:v", "1:90000", "-f", "null", "-"},
        {dir.File("out"), {}, 0});
    const auto status = ffmpeg.Wait();
    if (status != 0 || !ffmpeg.Output().empty()) {
        return AssertionFailure() << path << " does not decode: " << ffmpeg.Output();
    }
    return AssertionSuccess();
}

}  // namespace peers
