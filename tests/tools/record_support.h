// Real frames in a buffer of the test's own, recordings of it, and what ffprobe finds in them.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "run_support.h"
#include "shb_support.h"

constexpr int64_t kNsPerSecond = 1'000'000'000;

struct Unit {
    std::string bytes;
    int64_t pts = 0;  // ns from the beginning of the material
    int64_t dts = 0;
    int64_t duration = 0;
    bool key = false;
};

// One elementary stream, as a parser of GStreamer finds it in a file of the test materials.
struct Media {
    shb_kind_t kind = SHB_VIDEO;
    shb_description_t description{};
    std::string codec_data;
    std::vector<Unit> units;
    int64_t length = 0;  // ns; the material begins again after it
};

// `read`: elements between the file and the frames, "h264parse" for one. Frames without times follow one another.
Media LoadMedia(const std::string &file, const std::string &read, shb_kind_t kind);
Media LoadH264(const std::string &file = "progressive.h264");
Media LoadH265(const std::string &file = "progressive.h265");
Media LoadAac(const std::string &file = "tone.aac");
// 8000 Hz, one channel, frames of 20 ms.
Media MakeG711(const char *code);

// A host that writes what a test says. Its time begins when it is made.
class Station {
  public:
    explicit Station(const std::string &test);
    // Writers for these; null: the source has no such track. A new epoch begins.
    void Carry(const Media *video, const Media *audio);
    // Another sound beside the picture that goes on.
    void CarrySound(const Media *audio);
    // The frames from one time to another, ns, both tracks in the order of time. The material is repeated.
    void Send(int64_t from, int64_t until);
    void SendOnly(shb_kind_t kind, int64_t from, int64_t until);
    // The host ends.
    void Close();
    // ... and starts again.
    void Open();

    const std::string &Name() const { return m_name; }
    // Both tracks have a reader, and no reader has anything left to read.
    bool AllRead() const;
    // Frames sent so far.
    size_t Sent(shb_kind_t kind) const { return m_sent[kind]; }

  private:
    void OpenWriter(shb_kind_t kind);
    void Write(shb_kind_t kind, int64_t from, int64_t until);

    const std::string m_name;
    const int64_t m_begin;
    shbtest::Buffer m_buffer;
    std::array<shbtest::Writer, 2> m_writers;
    std::array<const Media *, 2> m_media{};
    std::array<size_t, 2> m_sent{};
};

// The command record, from the oldest frame on unless the flags say otherwise.
std::vector<std::string> Recording(const Station &station, const std::string &out, const std::vector<std::string> &flags = {});
std::vector<std::string> Reading(std::vector<std::string> arguments);

struct Packet {
    double pts = 0;  // s
    bool key = false;
    size_t size = 0;
};

struct ProbedTrack {
    std::string codec;
    int width = 0;
    std::vector<Packet> packets;
    // In the order in which they are shown.
    std::vector<double> Times() const;
};

struct Probed {
    ProbedTrack video;
    ProbedTrack audio;
    double duration = 0;  // s, as the file says; 0: it does not
    std::string complaints;
};

Probed Probe(const std::string &path);
// What ffmpeg complains of when it decodes the whole file.
std::string Decode(const std::string &path);

// The files of a folder, sorted by name.
std::vector<std::string> FilesIn(const std::string &folder);
