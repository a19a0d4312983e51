#include "cutter.h"

#include <algorithm>
#include <utility>

#include "text.h"

namespace reader {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
// How long one track waits for the other. A source that brings whole segments has seconds of one before the other.
constexpr int64_t kPatience = 5 * kSecond;
// Frames of a burst are no sign that the other track is silent: it has to bring nothing for this long as well.
constexpr int64_t kSilence = 2 * kSecond;
constexpr size_t kMostHeld = size_t{64} << 20;
constexpr int64_t kSkipStep = kSecond / 2;
// Sound that waits for the key frame of its file.
constexpr int64_t kLongestPending = 60 * kSecond;
// Pictures that come after a key frame and are shown before it.
constexpr size_t kMostLeading = 64;

// The order in which the frames of both tracks are handed on.
int64_t TimeOf(const Frame &frame) {
    return frame.kind == SHB_VIDEO ? frame.dts : frame.pts;
}

// The cuts that are due with this frame. A key frame is in time some ms before its cut: times are rounded, and a
// source is finding its peer's clock at first. Sound can be cut anywhere.
int64_t DueWith(const Frame &frame) {
    constexpr int64_t kSlack = kSecond / 50;
    return frame.kind == SHB_VIDEO ? frame.pts + kSlack : frame.pts;
}

}  // namespace

Cutter::Cutter(Rules rules, Files &files) : m_rules(std::move(rules)), m_files(files) {}

void Cutter::Expect(shb_kind_t kind) {
    m_tracks[kind].expected = true;
}

// When the source is back, its tracks come one after the other: each has the patience of a beginning.
void Cutter::NoteOutage(int64_t now) {
    const int64_t last = std::max(m_tracks[SHB_VIDEO].last_arrival, m_tracks[SHB_AUDIO].last_arrival);
    if (last == 0 || now - last <= kSilence) {
        return;
    }
    for (Track &track : m_tracks) {
        track.last_arrival = now;
        track.held_before = track.held.size();
    }
}

void Cutter::Add(Frame frame, int64_t now) {
    NoteOutage(now);
    Track &track = m_tracks[frame.kind];
    track.expected = true;
    track.last_arrival = now;
    track.silent = false;
    track.format = frame.format;
    if (track.done) {
        return;
    }
    track.held_bytes += frame.size;
    track.held.push_back(std::move(frame));
}

void Cutter::End(shb_kind_t kind) {
    m_tracks[kind].ended = true;
}

void Cutter::Advance(int64_t now) {
    for (Track &track : m_tracks) {
        track.last_arrival = track.last_arrival == 0 ? now : track.last_arrival;
    }
    // Of what is wanted still, the end is not waited for longer than anything else.
    if (m_tracks[SHB_VIDEO].done || m_tracks[SHB_AUDIO].done) {
        for (Track &track : m_tracks) {
            track.silent = track.silent || now - track.last_arrival > kPatience;
        }
    }
    while (ReleaseOne(now)) {
    }
}

void Cutter::JudgeSilence(const Track &track, Track &other, int64_t now) {
    const bool came = track.held.size() > track.held_before;
    const int64_t lag = came ? TimeOf(track.held.back()) - TimeOf(track.held[track.held_before]) : 0;
    const bool long_silent = now - other.last_arrival > kSilence && lag > kPatience;
    other.silent = other.silent || long_silent || track.held_bytes > kMostHeld;
}

// The earliest frame that is held, when no earlier one can come any more.
bool Cutter::ReleaseOne(int64_t now) {
    Track &video = m_tracks[SHB_VIDEO];
    Track &audio = m_tracks[SHB_AUDIO];
    if (video.held.empty() && audio.held.empty()) {
        return false;
    }
    Track *track = video.held.empty() ? &audio : &video;
    if (!video.held.empty() && !audio.held.empty()) {
        track = TimeOf(audio.held.front()) < TimeOf(video.held.front()) ? &audio : &video;
    } else {
        Track &other = track == &video ? audio : video;
        JudgeSilence(*track, other, now);
        if (MayWait(other)) {
            return false;
        }
        // Behind a silent track as far as before, so that it can come back without being late.
        const bool waits = !m_finishing && !other.Finished() && track->held_bytes <= kMostHeld &&
                           TimeOf(track->held.back()) - TimeOf(track->held.front()) <= kPatience;
        if (waits) {
            return false;
        }
    }
    Frame frame = std::move(track->held.front());
    track->held.pop_front();
    track->held_before -= track->held_before > 0 ? 1 : 0;
    track->held_bytes -= frame.size;
    Assign(std::move(frame));
    return true;
}

// Files are cut at the key frames of the video, or, as long as there is none, anywhere in the sound.
bool Cutter::IsLead(shb_kind_t kind) const {
    const Track &video = m_tracks[SHB_VIDEO];
    const bool without = m_open.empty() || m_open.back().start.formats[SHB_VIDEO] == 0;
    return kind == SHB_VIDEO || !video.expected || video.silent || (video.ended && without);
}

bool Cutter::ReachesEnd(const Frame &frame) {
    const bool lead = IsLead(frame.kind);
    if (m_begin && m_rules.duration > 0) {
        const int64_t begin = frame.kind == SHB_VIDEO ? m_begin_decoding : *m_begin;
        if (TimeOf(frame) - begin >= m_rules.duration) {
            return true;
        }
    }
    return m_rules.frames > 0 && m_lead_frames >= m_rules.frames && (lead || frame.pts >= m_lead_end);
}

void Cutter::Assign(Frame frame) {
    Track &track = m_tracks[frame.kind];
    if (track.done) {
        return;
    }
    if (ReachesEnd(frame)) {
        track.done = true;
        track.held.clear();
        track.held_before = 0;
        track.held_bytes = 0;
        return;
    }
    const int64_t time = TimeOf(frame);
    if (IsLead(frame.kind)) {
        AssignLead(std::move(frame));
    } else {
        AssignFollower(std::move(frame));
    }
    SkipSilent(time);
}

bool Cutter::Fits(const File &file, const Frame &frame) const {
    const FormatId format = file.start.formats[frame.kind];
    return file.open[frame.kind] && (format == frame.format || m_rules.same_format(format, frame.format));
}

// Why a file begins with this key frame; "": it does not.
std::string Cutter::ReasonToCut(const Frame &frame) const {
    if (m_open.empty()) {
        return "the first";
    }
    const File &newest = m_open.back();
    if (!newest.open[frame.kind]) {
        return frame.kind == SHB_VIDEO ? "the picture is back" : "the sound is back";
    }
    if (!Fits(newest, frame)) {
        return frame.kind == SHB_VIDEO ? "the picture has another format" : "the sound has another format";
    }
    if (m_last_lead != INT64_MIN && TimeOf(frame) - m_last_lead > m_rules.longest_gap) {
        return "an outage of " + tool::FormatElapsed(static_cast<double>(TimeOf(frame) - m_last_lead) / kSecond);
    }
    if (DueWith(frame) >= m_next_cut) {
        return "the next segment";
    }
    return m_wanted;
}

void Cutter::AssignLead(Frame frame) {
    const bool key = frame.key || frame.kind == SHB_AUDIO;
    if (!m_open.empty() && !m_open.back().opened && frame.pts > m_open.back().cut) {
        OpenNewest();
    }
    const std::string reason = key ? ReasonToCut(frame) : "";
    if (reason.empty() && (m_open.empty() || !Fits(m_open.back(), frame))) {
        ++m_tracks[frame.kind].left_out;
        return;
    }
    ++m_lead_frames;
    m_last_lead = TimeOf(frame);
    m_lead_end = std::max(m_lead_end, frame.pts + frame.duration);
    if (reason.empty()) {
        Put(m_open.back(), std::move(frame));
    } else {
        StartFile(reason, std::move(frame));
    }
}

// Sound beside a picture.
void Cutter::AssignFollower(Frame frame) {
    if (m_open.size() > 1) {
        File &older = m_open.front();
        if (frame.pts < m_open.back().cut && Fits(older, frame)) {
            Put(older, std::move(frame));
            return;
        }
        EndOlder();
    }
    if (!m_open.empty() && Fits(m_open.back(), frame)) {
        const File &newest = m_open.back();
        // Sound that begins just before the first picture. A muxer would drop it as well, and mp4mux would then
        // begin the track at the wrong time.
        if (!newest.opened || frame.pts >= newest.start.zero) {
            Put(m_open.back(), std::move(frame));
        }
        return;
    }
    if (m_wanted.empty() && !m_open.empty()) {
        const bool had = m_open.back().start.formats[frame.kind] != 0;
        m_wanted = !had ? "the sound has come"
                        : (m_open.back().open[frame.kind] ? "the sound has another format" : "the sound is back");
    }
    m_pending.push_back(std::move(frame));
    const auto too_old = [this](const Frame &one) { return m_pending.back().pts - one.pts > kLongestPending; };
    const auto kept = std::find_if_not(m_pending.begin(), m_pending.end(), too_old);
    m_tracks[SHB_AUDIO].left_out += static_cast<uint64_t>(kept - m_pending.begin());
    m_pending.erase(m_pending.begin(), kept);
}

// Of the track that does not lead; 0: the file begins without it.
FormatId Cutter::FollowerFormat(shb_kind_t kind) const {
    const Track &track = m_tracks[kind];
    if (!m_pending.empty()) {
        return m_pending.back().format;
    }
    if (!track.held.empty()) {
        return track.held.front().format;
    }
    return track.Finished() || track.silent ? 0 : track.format;
}

void Cutter::StartFile(const std::string &reason, Frame frame) {
    EndOlder();
    const shb_kind_t kind = frame.kind;
    if (!m_open.empty()) {
        EndTrack(m_open.back(), kind);
        // A picture that is silent ends with its file.
        if (kind == SHB_AUDIO) {
            EndTrack(m_open.back(), SHB_VIDEO);
        }
    }
    File file;
    file.start.number = m_count++;
    file.start.reason = m_open.empty() && file.start.number == 0 ? "" : reason;
    file.cut = frame.pts;
    file.start.formats[kind] = frame.format;
    file.open[kind] = true;
    if (kind == SHB_VIDEO) {
        file.start.formats[SHB_AUDIO] = FollowerFormat(SHB_AUDIO);
        file.open[SHB_AUDIO] = file.start.formats[SHB_AUDIO] != 0;
    }
    if (!m_begin) {
        m_begin = frame.pts;
        m_begin_decoding = frame.dts;
        m_next_cut = m_rules.segment > 0 ? frame.pts + m_rules.segment : INT64_MAX;
    }
    while (m_next_cut <= DueWith(frame)) {
        m_next_cut += m_rules.segment;
    }
    m_wanted.clear();
    m_open.push_back(std::move(file));
    File &newest = m_open.back();
    for (Track &track : m_tracks) {
        track.skipped = frame.dts;
    }
    Put(newest, std::move(frame));
    std::vector<Frame> pending = std::exchange(m_pending, {});
    for (Frame &one : pending) {
        if (Fits(newest, one)) {
            Put(newest, std::move(one));
        } else {
            ++m_tracks[one.kind].left_out;
        }
    }
    // The one before goes on only for sound that it can take.
    if (m_open.size() > 1) {
        const File &older = m_open.front();
        if (std::none_of(older.open.begin(), older.open.end(), [](bool open) { return open; })) {
            EndOlder();
        }
    }
}

// What is shown before the key frame has come, so the beginning is known.
void Cutter::OpenNewest() {
    File &file = m_open.back();
    file.opened = true;
    const auto earlier = [](const Frame &a, const Frame &b) { return a.pts < b.pts; };
    const auto decoded_earlier = [](const Frame &a, const Frame &b) { return a.dts < b.dts; };
    file.start.zero = std::min_element(file.beginning.begin(), file.beginning.end(), earlier)->pts;
    file.start.decoding_zero = std::min_element(file.beginning.begin(), file.beginning.end(), decoded_earlier)->dts;
    m_files.Open(file.start);
    std::vector<Frame> beginning = std::exchange(file.beginning, {});
    for (Frame &frame : beginning) {
        m_files.Write(file.start.number, std::move(frame));
    }
}

void Cutter::Put(File &file, Frame frame) {
    m_recorded = std::max(m_recorded, frame.pts + frame.duration - m_begin.value_or(frame.pts));
    if (file.opened) {
        m_files.Write(file.start.number, std::move(frame));
        return;
    }
    file.beginning.push_back(std::move(frame));
    if (file.beginning.size() > kMostLeading) {
        OpenNewest();
    }
}

void Cutter::EndTrack(File &file, shb_kind_t kind) {
    if (!file.open[kind]) {
        return;
    }
    if (!file.opened) {
        OpenNewest();
    }
    file.open[kind] = false;
    m_files.EndTrack(file.start.number, kind);
}

// The file before the newest is complete.
void Cutter::EndOlder() {
    while (m_open.size() > 1) {
        EndTrack(m_open.front(), SHB_VIDEO);
        EndTrack(m_open.front(), SHB_AUDIO);
        m_files.Close(m_open.front().start.number);
        m_open.pop_front();
    }
}

// A muxer waits for a track that says nothing.
void Cutter::SkipSilent(int64_t time) {
    for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
        Track &track = m_tracks[kind];
        if (m_open.empty() || !m_open.back().opened || !m_open.back().open[kind]) {
            continue;
        }
        File &file = m_open.back();
        if ((track.Finished() && track.held.empty()) || (track.silent && !m_rules.skips)) {
            EndTrack(file, kind);
        } else if (track.silent && time - track.skipped >= kSkipStep) {
            track.skipped = time;
            m_files.Skip(file.start.number, kind, time);
        }
    }
    const Track &audio = m_tracks[SHB_AUDIO];
    if (m_open.size() > 1 && audio.held.empty() && (audio.Finished() || audio.silent)) {
        EndOlder();
    }
}

void Cutter::Finish() {
    m_finishing = true;
    Track &video = m_tracks[SHB_VIDEO];
    video.ended = video.ended || video.held.empty();
    while (ReleaseOne(0)) {
    }
    m_tracks[SHB_AUDIO].left_out += m_pending.size();
    m_pending.clear();
    EndOlder();
    if (!m_open.empty()) {
        File &file = m_open.back();
        EndTrack(file, SHB_VIDEO);
        EndTrack(file, SHB_AUDIO);
        m_files.Close(file.start.number);
        m_open.clear();
    }
}

bool Cutter::Done() const {
    const Track &video = m_tracks[SHB_VIDEO];
    const Track &audio = m_tracks[SHB_AUDIO];
    if (m_rules.frames > 0 && m_lead_frames >= m_rules.frames) {
        return true;
    }
    return (video.done || audio.done) && (video.Finished() || video.silent) && (audio.Finished() || audio.silent);
}

}  // namespace reader
