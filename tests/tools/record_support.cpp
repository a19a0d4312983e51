#include "record_support.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

std::string FromEnvironment(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string BytesOf(GstBuffer *buffer) {
    std::string bytes(gst_buffer_get_size(buffer), '\0');
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

// A buffer, or several in Xiph lacing, as shbsink hands them on.
std::string CodecDataOf(const GstStructure *caps) {
    if (const GValue *data = gst_structure_get_value(caps, "codec_data")) {
        return BytesOf(gst_value_get_buffer(data));
    }
    const GValue *headers = gst_structure_get_value(caps, "streamheader");
    if (headers == nullptr) {
        return "";
    }
    std::vector<std::string> parts;
    for (guint i = 0; i < gst_value_array_get_size(headers); ++i) {
        parts.push_back(BytesOf(gst_value_get_buffer(gst_value_array_get_value(headers, i))));
    }
    if (gst_structure_has_name(caps, "audio/x-opus")) {
        return parts.front();
    }
    std::string laced(1, static_cast<char>(parts.size() - 1));
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        laced += std::string(parts[i].size() / 255, '\xff') + static_cast<char>(parts[i].size() % 255);
    }
    for (const std::string &part : parts) {
        laced += part;
    }
    return laced;
}

template <size_t size>
void Put(char (&target)[size], const std::string &text) {
    std::snprintf(target, size, "%s", text.c_str());
}

std::string Word(const GstStructure *caps, const char *field) {
    const char *text = gst_structure_get_string(caps, field);
    return text != nullptr ? text : "";
}

int Number(const GstStructure *caps, const char *field) {
    int value = 0;
    gst_structure_get_int(caps, field, &value);
    return value;
}

std::string CodeOf(const GstStructure *caps) {
    const std::string name = gst_structure_get_name(caps);
    if (name == "audio/mpeg") {
        return Number(caps, "mpegversion") == 1 ? "MP" + std::to_string(Number(caps, "layer")) : "AAC";
    }
    for (const auto &[known, code] : std::vector<std::pair<std::string, std::string>>{{"video/x-h264", "H264"},
                                                                                      {"video/x-h265", "H265"},
                                                                                      {"audio/x-ac3", "AC3"},
                                                                                      {"audio/x-eac3", "EAC3"},
                                                                                      {"audio/x-opus", "OPUS"},
                                                                                      {"audio/x-vorbis", "VORBIS"}}) {
        if (name == known) {
            return code;
        }
    }
    return "";
}

shb_description_t Describe(const GstStructure *caps) {
    shb_description_t description{};
    Put(description.code, CodeOf(caps));
    Put(description.format, Word(caps, "stream-format"));
    Put(description.profile, Word(caps, "profile"));
    Put(description.level, Word(caps, "level"));
    description.width = Number(caps, "width");
    description.height = Number(caps, "height");
    gst_structure_get_fraction(caps, "framerate", &description.fps_n, &description.fps_d);
    description.sample_rate = Number(caps, "rate");
    description.channels = Number(caps, "channels");
    return description;
}

}  // namespace

Media LoadMedia(const std::string &file, const std::string &read, shb_kind_t kind) {
    gst_init(nullptr, nullptr);
    Media media;
    media.kind = kind;
    const std::string path = FromEnvironment("SHBSINK_MATERIALS") + "/" + file;
    const std::string launch = "filesrc location=\"" + path + "\" ! " + read + " ! appsink name=out sync=false max-buffers=0";
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(launch.c_str(), &error);
    if (error != nullptr) {
        ADD_FAILURE() << launch << ": " << error->message;
        g_error_free(error);
        return media;
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    while (GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(sink))) {
        GstBuffer *buffer = gst_sample_get_buffer(sample);
        const GstStructure *caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
        if (media.units.empty()) {
            media.description = Describe(caps);
            media.codec_data = CodecDataOf(caps);
        }
        const bool header = kind == SHB_AUDIO && GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_HEADER);
        if (!header) {
            Unit unit;
            unit.bytes = BytesOf(buffer);
            unit.key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
            unit.duration = GST_BUFFER_DURATION_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer)) : 0;
            const bool timed = GST_BUFFER_PTS_IS_VALID(buffer) != FALSE;
            unit.pts = timed ? static_cast<int64_t>(GST_BUFFER_PTS(buffer)) : media.length;
            unit.dts = GST_BUFFER_DTS_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_DTS(buffer)) : unit.pts;
            media.length += unit.duration;
            media.units.push_back(unit);
        }
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
    EXPECT_FALSE(media.units.empty()) << launch;
    EXPECT_GT(media.length, 0) << launch;
    if (!media.units.empty()) {
        const int64_t begin = media.units.front().dts;
        for (Unit &unit : media.units) {
            unit.pts -= begin;
            unit.dts -= begin;
        }
    }
    return media;
}

Media LoadH264(const std::string &file) {
    return LoadMedia(file, "h264parse ! video/x-h264,stream-format=byte-stream,alignment=au", SHB_VIDEO);
}

Media LoadH265(const std::string &file) {
    return LoadMedia(file, "h265parse ! video/x-h265,stream-format=byte-stream,alignment=au", SHB_VIDEO);
}

Media LoadAac(const std::string &file) {
    return LoadMedia(file, "aacparse ! audio/mpeg,stream-format=adts", SHB_AUDIO);
}

Media MakeG711(const char *code) {
    constexpr int64_t kFrame = 20'000'000;
    constexpr size_t kBytes = 160;
    Media media;
    media.kind = SHB_AUDIO;
    Put(media.description.code, code);
    media.description.sample_rate = 8000;
    media.description.channels = 1;
    for (int i = 0; i < 50; ++i) {
        Unit unit;
        unit.bytes.assign(kBytes, static_cast<char>(0x55 + i));
        unit.pts = unit.dts = i * kFrame;
        unit.duration = kFrame;
        unit.key = true;
        media.units.push_back(unit);
    }
    media.length = 50 * kFrame;
    return media;
}

Station::Station(const std::string &test)
    : m_name(BufferName(test)),
      m_begin(
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count()) {
    Open();
}

void Station::Open() {
    shb_geometry_t geometry{};
    geometry.video_bytes = uint64_t{16} << 20;
    geometry.audio_bytes = uint64_t{1} << 20;
    geometry.video_frames = geometry.audio_frames = 4096;
    m_buffer = shbtest::Create(m_name, geometry);
    ASSERT_NE(m_buffer, nullptr);
}

bool Station::AllRead() const {
    std::array<shb_reader_info_t, 8> readers{};
    size_t count = 0;
    EXPECT_EQ(shb_buffer_readers(m_buffer.get(), readers.data(), readers.size(), &count), SHB_OK);
    return count == 2 &&
           std::all_of(readers.begin(), readers.begin() + count, [](const auto &one) { return one.waiting == 0; });
}

void Station::Close() {
    m_writers = {};
    m_buffer.reset();
}

void Station::Carry(const Media *video, const Media *audio) {
    m_writers = {};
    m_media = {video, audio};
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        if (m_media[kind] == nullptr) {
            shb_set_presence(m_buffer.get(), 0, 0, kind, SHB_PRESENCE_ABSENT);
        } else {
            OpenWriter(kind);
        }
    }
}

void Station::CarrySound(const Media *audio) {
    m_writers[SHB_AUDIO].reset();
    m_media[SHB_AUDIO] = audio;
    OpenWriter(SHB_AUDIO);
}

void Station::OpenWriter(shb_kind_t kind) {
    const Media &media = *m_media[kind];
    m_writers[kind] = shbtest::OpenWriter(m_buffer, kind);
    shb_writer_t *writer = m_writers[kind].get();
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(shb_writer_describe(writer, &media.description, media.codec_data.data(), media.codec_data.size()), SHB_OK);
    ASSERT_EQ(shb_writer_set_clock(writer, m_begin), SHB_OK);
}

void Station::Write(shb_kind_t kind, int64_t from, int64_t until) {
    const Media &media = *m_media[kind];
    for (int64_t loop = from / media.length; loop * media.length < until; ++loop) {
        for (const Unit &unit : media.units) {
            const int64_t begin = loop * media.length;
            if (begin + unit.dts < from || begin + unit.dts >= until) {
                continue;
            }
            ASSERT_EQ(shb_writer_write(m_writers[kind].get(), unit.bytes.data(), unit.bytes.size(),
                                       static_cast<uint64_t>(begin + unit.pts), static_cast<uint64_t>(begin + unit.dts),
                                       static_cast<uint64_t>(unit.duration), unit.key ? uint32_t{SHB_FRAME_KEY} : 0),
                      SHB_OK);
            ++m_sent[kind];
        }
    }
}

void Station::SendOnly(shb_kind_t kind, int64_t from, int64_t until) {
    if (m_media[kind] != nullptr) {
        Write(kind, from, until);
    }
}

void Station::Send(int64_t from, int64_t until) {
    constexpr int64_t kStep = 40'000'000;
    for (int64_t time = from; time < until; time += kStep) {
        SendOnly(SHB_VIDEO, time, std::min(time + kStep, until));
        SendOnly(SHB_AUDIO, time, std::min(time + kStep, until));
    }
}

std::vector<std::string> Reading(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FromEnvironment("GST_SOURCE_READ_TOOL"));
    return arguments;
}

std::vector<std::string> Recording(const Station &station, const std::string &out, const std::vector<std::string> &flags) {
    std::vector<std::string> command = Reading({"record", station.Name(), out});
    if (std::find(flags.begin(), flags.end(), "--from") == flags.end()) {
        command.insert(command.end(), {"--from", "oldest"});
    }
    command.insert(command.end(), flags.begin(), flags.end());
    return command;
}

std::vector<double> ProbedTrack::Times() const {
    std::vector<double> times;
    for (const Packet &packet : packets) {
        times.push_back(packet.pts);
    }
    std::sort(times.begin(), times.end());
    return times;
}

Probed Probe(const std::string &path) {
    Child child({"ffprobe", "-v", "warning", "-show_packets", "-show_streams", "-show_format", "-of", "json", path});
    Probed probed;
    EXPECT_EQ(child.Wait(), 0) << path << ": " << child.Err();
    probed.complaints = child.Err();
    const Json found = Json::parse(child.Out(), nullptr, false);
    if (!found.is_object() || !found.contains("streams")) {
        ADD_FAILURE() << path << ": " << child.Err();
        return probed;
    }
    for (const Json &stream : found["streams"]) {
        ProbedTrack &track = stream["codec_type"] == "video" ? probed.video : probed.audio;
        track.codec = stream.value("codec_name", "");
        track.width = stream.value("width", 0);
    }
    for (const Json &packet : found["packets"]) {
        ProbedTrack &track = packet["codec_type"] == "video" ? probed.video : probed.audio;
        Packet one;
        one.pts = std::stod(packet.value("pts_time", "nan"));
        one.key = packet.value("flags", "").rfind('K', 0) == 0;
        one.size = std::stoul(packet.value("size", "0"));
        track.packets.push_back(one);
    }
    probed.duration = std::stod(found["format"].value("duration", "0"));
    return probed;
}

std::string Decode(const std::string &path) {
    Child child({"ffmpeg", "-nostdin", "-v", "error", "-i", path, "-f", "null", "-"});
    EXPECT_EQ(child.Wait(), 0) << path;
    // The elementary streams of the materials do not say in which order pictures are shown.
    std::string complaints;
    for (const std::string &line : Lines(child.Err())) {
        complaints += Has(line, "non monotonically increasing dts to muxer") ? "" : line + "\n";
    }
    return complaints;
}

std::vector<std::string> FilesIn(const std::string &folder) {
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}
