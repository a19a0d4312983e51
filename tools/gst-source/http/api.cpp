#include "http/api.h"

#include <utility>
#include <vector>

#include "fields.h"
#include "format.h"
#include "shb.h"

#ifndef TOOL_VERSION
#define TOOL_VERSION "unknown"
#endif

namespace tool {
namespace {

Record HistogramRecord(const Histogram &times) {
    Record buckets = Record::array();
    for (size_t i = 0; i < Histogram::kBounds.size(); ++i) {
        buckets.push_back(Record::array({Histogram::kBounds[i], times.UpTo(i)}));
    }
    Record record;
    record["count"] = times.Count();
    record["sum_s"] = Rounded(times.Sum());
    record["up_to_s"] = std::move(buckets);
    return record;
}

Record ReaderRecord(const ReaderSample &reader) {
    constexpr uint64_t kNsPerMs = 1'000'000;
    Record record;
    record["program"] = reader.program;
    record["pid"] = reader.pid;
    record["kind"] = reader.video ? "video" : "audio";
    record["frames"] = reader.frames;
    record["bytes"] = reader.bytes;
    record["lost_frames"] = reader.lost;
    record["age_ms"] = reader.age_ns ? Record(*reader.age_ns / kNsPerMs) : Record(nullptr);
    return record;
}

const char *PresenceName(uint32_t presence) {
    switch (presence) {
        case SHB_PRESENCE_EXPECTED:
            return "expected";
        case SHB_PRESENCE_ABSENT:
            return "absent";
        default:
            return "unknown";
    }
}

const char *StandingName(Standing standing) {
    switch (standing) {
        case Standing::kFailing:
            return "failing";
        case Standing::kWaiting:
            return "waiting";
        case Standing::kLive:
            return "live";
        case Standing::kStopped:
            return "stopped";
    }
    return "";
}

void AddTrack(Record &record, const std::string &kind, const TrackSample &track) {
    record[kind + "_key_frames"] = track.key_frames;
    record[kind + "_left_out_frames"] = track.left_out;
    record[kind + "_presence"] = PresenceName(track.presence);
}

}  // namespace

Record SourceRecord(const RunSample &run, const SourceSample &source, const std::string &time) {
    Record record;
    record["name"] = source.name;
    record.update(SampleRecord(run, source, time));
    record["standing"] = StandingName(StandingOf(source));
    record["retry_in_s"] = source.retry_in_s ? Record(Rounded(*source.retry_in_s)) : Record(nullptr);
    AddTrack(record, "video", source.video);
    AddTrack(record, "audio", source.audio);
    Record reasons = Record::object();
    for (const auto &[reason, count] : source.rebuild_reasons) {
        reasons[reason] = count;
    }
    record["rebuild_reasons"] = std::move(reasons);
    record["first_frame"] = HistogramRecord(source.first_frame);
    record["recovery"] = HistogramRecord(source.recovery);
    Record readers = Record::array();
    for (const ReaderSample &reader : source.readers) {
        readers.push_back(ReaderRecord(reader));
    }
    record["readers"] = std::move(readers);
    return record;
}

Record SourcesRecord(const RunSample &run, const std::string &time) {
    Record sources = Record::array();
    for (const SourceSample &source : run.sources) {
        sources.push_back(SourceRecord(run, source, time));
    }
    return sources;
}

FlowCounts CountFlows(const RunSample &run) {
    FlowCounts counts;
    for (const SourceSample &source : run.sources) {
        counts.live += source.flow == Flow::kLive ? 1U : 0U;
        counts.silent += source.flow == Flow::kSilent ? 1U : 0U;
        counts.none += source.flow == Flow::kNone ? 1U : 0U;
        counts.not_opened += source.state.empty() ? 1U : 0U;
    }
    return counts;
}

Record FlowCountsRecord(const FlowCounts &counts) {
    Record record;
    record["live"] = counts.live;
    record["silent"] = counts.silent;
    record["none"] = counts.none;
    record["not_opened"] = counts.not_opened;
    return record;
}

Record RunRecord(const RunSample &run, const std::string &time) {
    Record record;
    record["version"] = TOOL_VERSION;
    record["time"] = time;
    record["elapsed_s"] = Rounded(run.elapsed_s);
    record["phase"] = run.phase == Phase::kRunning ? "running" : (run.phase == Phase::kClosing ? "closing" : "ended");
    record["sources"] = run.sources.size();
    record["flow"] = FlowCountsRecord(CountFlows(run));
    record["process"] = Record{{"cpu_s", Rounded(run.process.cpu_s)},
                               {"resident_bytes", run.process.resident_bytes},
                               {"threads", run.process.threads},
                               {"descriptors", run.process.descriptors},
                               {"start_time_s", Rounded(run.process.start_time_s)}};
    record["config_file"] = TextOrNull(run.config_file);
    if (!run.config_file.empty()) {
        record["reloads"] = run.reloads;
        record["reload_good"] = run.reload_good;
        record["reload_time_s"] = Rounded(run.reload_time_s);
    }
    return record;
}

}  // namespace tool
