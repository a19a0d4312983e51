// One file of a recording: frames of one or two tracks, put together by a muxer of GStreamer.
#pragma once

#include <array>
#include <atomic>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "container.h"
#include "cutter.h"
#include "fd.h"

namespace reader {

class FileWriter {
  public:
    using TrackCaps = std::array<const GstCaps *, kKinds>;

    // `fd` is written to; `what` names it in messages. Standard output is written to as a pipe, which is never
    // sought in. Throws std::runtime_error with a message for people.
    FileWriter(const Container &container, const FileStart &start, const TrackCaps &caps, tool::Fd fd, std::string what);
    // To standard output.
    FileWriter(const Container &container, const FileStart &start, const TrackCaps &caps);
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;
    ~FileWriter();

    void Write(Frame frame);
    void Skip(shb_kind_t kind, int64_t time);
    void EndTrack(shb_kind_t kind);
    // What has been written so far goes to the muxer together.
    void Flush();

    enum class State { kRunning, kDone, kFailed };
    // Looks what has become of it. After kFailed, Reason() says why; PipeClosed is thrown when nobody reads.
    State Look();
    const std::string &Reason() const { return m_reason; }

    // Bytes that wait for the muxer.
    uint64_t Queued() const;
    uint64_t Bytes() const;
    uint64_t Frames(shb_kind_t kind) const { return m_tracks[kind].frames; }
    // ns from the first frame to the end of the last.
    int64_t Length() const { return m_length; }
    const std::string &Name() const { return m_name; }
    const FileStart &Start() const { return m_start; }

  private:
    struct Track {
        ElementPtr source;
        GstBufferList *batch = nullptr;
        bool begun = false;
        bool ended = false;
        uint64_t frames = 0;
    };

    void Build(const TrackCaps &caps, GstElement *sink);
    void AddTrack(shb_kind_t kind, const GstCaps *caps, GstElement *muxer);
    GstElement *MakePipeSink();
    static GstFlowReturn OnSample(gpointer sink, gpointer self);
    void Push(Track &track, GstBuffer *buffer);
    void FlushTrack(Track &track);
    bool CloseFile();

    const Container &m_container;
    const FileStart m_start;
    const std::string m_name;
    tool::Fd m_fd;                // none: standard output
    bool m_header_first = false;  // of MP4
    std::array<Track, kKinds> m_tracks;
    int64_t m_length = 0;
    std::string m_reason;
    std::optional<State> m_end;

    // Of the thread that writes to standard output; of a file, once it is closed.
    std::atomic<uint64_t> m_written{0};
    std::mutex m_mutex;
    std::exception_ptr m_failure;

    PipelinePtr m_pipeline;  // goes first
};

}  // namespace reader
