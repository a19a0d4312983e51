// Divides the frames of a source into files: each begins at a key frame, and no frame is in two of them or in none.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "frame.h"

namespace reader {

constexpr size_t kKinds = 2;

// How a file begins.
struct FileStart {
    uint64_t number = 0;  // from 0
    // ns on the axis of the frames: the earliest picture or sound, and the earliest decoding time.
    int64_t zero = 0;
    int64_t decoding_zero = 0;
    std::array<FormatId, kKinds> formats{};  // 0: the file has no such track
    std::string reason;                      // why not the file before, "" for the first one
};

// Where the frames go. Of a file: Open, then any of the others, Close last.
class Files {
  public:
    Files() = default;
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;
    virtual ~Files() = default;

    virtual void Open(const FileStart &start) = 0;
    virtual void Write(uint64_t file, Frame frame) = 0;
    // Nothing comes of this track before `time`.
    virtual void Skip(uint64_t file, shb_kind_t kind, int64_t time) = 0;
    // Nothing more comes of this track.
    virtual void EndTrack(uint64_t file, shb_kind_t kind) = 0;
    virtual void Close(uint64_t file) = 0;
};

class Cutter {
  public:
    struct Rules {
        int64_t segment = 0;                                  // ns; a new file this often; 0: never
        int64_t duration = 0;                                 // ns of all files; 0: no such end
        uint64_t frames = 0;                                  // of video, or audio when there is none; 0: no such end
        int64_t longest_gap = INT64_MAX;                      // ns; after a longer one, another file
        bool skips = true;                                    // a track of a file may pause; if not, it ends
        std::function<bool(FormatId, FormatId)> same_format;  // one file can have both, one after the other
    };

    Cutter(Rules rules, Files &files);

    // The source has such a track.
    void Expect(shb_kind_t kind);
    // `now`: ns of a clock that rises, as in Advance.
    void Add(Frame frame, int64_t now);
    // Nothing more comes of this kind.
    void End(shb_kind_t kind);
    // Hands on what need not wait any longer.
    void Advance(int64_t now);
    // Hands on everything and closes the files.
    void Finish();

    // The duration, or the number of frames, has been reached.
    bool Done() const;
    // Frames that no file could take: those of a new format before the key frame with which its file begins.
    uint64_t LeftOut(shb_kind_t kind) const { return m_tracks[kind].left_out; }
    // ns that have been recorded, outages included.
    int64_t Recorded() const { return m_recorded; }

  private:
    struct Track {
        bool expected = false;
        bool ended = false;   // nothing more comes
        bool done = false;    // nothing more is wanted
        bool silent = false;  // the other track no longer waits for it
        int64_t last_arrival = 0;
        FormatId format = 0;     // of the newest frame
        std::deque<Frame> held;  // they wait for the other track
        size_t held_before = 0;  // those of them that came before an outage of both tracks
        size_t held_bytes = 0;
        uint64_t left_out = 0;
        int64_t skipped = INT64_MIN;  // up to which the current file knows about the silence
        bool Finished() const { return !expected || ended || done; }
    };
    struct File {
        FileStart start;
        bool opened = false;
        int64_t cut = 0;               // presentation time of the first frame
        std::vector<Frame> beginning;  // until it is opened
        std::array<bool, kKinds> open{};
    };

    bool MayWait(const Track &other) const { return !m_finishing && !other.Finished() && !other.silent; }
    bool ReleaseOne(int64_t now);
    void NoteOutage(int64_t now);
    static void JudgeSilence(const Track &track, Track &other, int64_t now);
    bool IsLead(shb_kind_t kind) const;

    void Assign(Frame frame);
    void AssignLead(Frame frame);
    void AssignFollower(Frame frame);
    bool ReachesEnd(const Frame &frame);
    std::string ReasonToCut(const Frame &frame) const;
    bool Fits(const File &file, const Frame &frame) const;

    void StartFile(const std::string &reason, Frame frame);
    FormatId FollowerFormat(shb_kind_t kind) const;
    void OpenNewest();
    void EndTrack(File &file, shb_kind_t kind);
    void EndOlder();
    void Put(File &file, Frame frame);
    void SkipSilent(int64_t time);

    const Rules m_rules;
    Files &m_files;
    std::array<Track, kKinds> m_tracks;
    std::list<File> m_open;        // the newest is the last; an older one still gets the sound before the cut
    std::vector<Frame> m_pending;  // sound that no open file can take
    std::string m_wanted;          // why another file is wanted; "": none is
    uint64_t m_count = 0;          // of files
    bool m_finishing = false;
    std::optional<int64_t> m_begin;  // of the first file
    int64_t m_begin_decoding = 0;
    int64_t m_next_cut = INT64_MAX;
    int64_t m_last_lead = INT64_MIN;
    int64_t m_lead_end = INT64_MIN;  // presentation
    uint64_t m_lead_frames = 0;
    int64_t m_recorded = 0;
};

}  // namespace reader
