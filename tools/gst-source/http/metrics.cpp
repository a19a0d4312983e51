#include "http/metrics.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "shb.h"

#ifndef TOOL_VERSION
#define TOOL_VERSION "unknown"
#endif

namespace tool {
namespace {

constexpr size_t kLongestName = 128;
constexpr size_t kLongestText = 120;

using Labels = std::vector<std::pair<const char *, std::string>>;

std::string Escaped(const std::string &text) {
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\n') {
            escaped += "\\n";
        } else {
            escaped += letter == '\\' || letter == '"' ? "\\" : "";
            escaped += letter;
        }
    }
    return escaped;
}

template <typename Number>
std::string Text(Number number) {
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number);
    return {text.data(), end.ptr};
}

// One family after the other, each with its head.
class Exposition {
  public:
    void Family(const char *name, const char *type, const char *help) {
        m_family = name;
        m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    template <typename Number>
    void Value(const Labels &labels, Number number, const char *suffix = "") {
        m_text += m_family;
        m_text += suffix;
        for (size_t i = 0; i < labels.size(); ++i) {
            m_text += (i == 0 ? "{" : ",") + std::string(labels[i].first) + "=\"" + Escaped(labels[i].second) + "\"";
        }
        m_text += std::string(labels.empty() ? " " : "} ") + Text(number) + "\n";
    }
    std::string Take() { return std::move(m_text); }

  private:
    const char *m_family = "";
    std::string m_text;
};

// A source and the label that it has everywhere.
struct Named {
    const SourceSample *sample;
    std::string name;
};

// Two series with the same labels would spoil the whole page, so names that look alike get their number.
std::vector<Named> NameSources(const RunSample &run) {
    std::vector<Named> sources;
    std::set<std::string> taken;
    for (const SourceSample &source : run.sources) {
        std::string name = LabelText(source.name, kLongestName);
        if (!taken.insert(name).second) {
            name += " (" + std::to_string(source.channel) + ")";
            taken.insert(name);
        }
        sources.push_back({&source, std::move(name)});
    }
    return sources;
}

struct Kind {
    const char *name;
    const TrackSample *track;
};

std::array<Kind, 2> KindsOf(const SourceSample &source) {
    return {{{"video", &source.video}, {"audio", &source.audio}}};
}

class SourceMetrics {
  public:
    SourceMetrics(Exposition &out, const RunSample &run) : m_out(out), m_sources(NameSources(run)) {}

    void Write() {
        WriteState();
        WriteTracks();
        WriteErrors();
        WriteReaders();
        WriteTimes("gst_source_first_frame_seconds", "From the beginning of a session to its first frame.",
                   &SourceSample::first_frame);
        WriteTimes("gst_source_recovery_seconds", "From the last frame before a rebuild to the first one after it.",
                   &SourceSample::recovery);
    }

  private:
    void PerSource(const char *name, const char *type, const char *help,
                   const std::function<void(const SourceSample &, const Labels &)> &write) {
        m_out.Family(name, type, help);
        for (const Named &source : m_sources) {
            write(*source.sample, {{"source", source.name}});
        }
    }
    void PerTrack(const char *name, const char *type, const char *help,
                  const std::function<void(const TrackSample &, const Labels &)> &write) {
        m_out.Family(name, type, help);
        for (const Named &source : m_sources) {
            for (const Kind &kind : KindsOf(*source.sample)) {
                write(*kind.track, {{"source", source.name}, {"kind", kind.name}});
            }
        }
    }
    void Counter(const char *name, const char *help, uint64_t TrackSample::*field) {
        PerTrack(name, "counter", help,
                 [&](const TrackSample &track, const Labels &labels) { m_out.Value(labels, track.*field); });
    }

    void WriteState() {
        PerSource("gst_source_info", "gauge", "Always 1; what a source is.", [&](const SourceSample &source, Labels labels) {
            labels.emplace_back("url", LabelText(source.url, 2 * kLongestName));
            labels.emplace_back("protocol", ProtocolName(source.protocol));
            labels.emplace_back("buffer", LabelText(source.buffer, kLongestName));
            m_out.Value(labels, 1);
        });
        PerSource(
            "gst_source_up", "gauge", "1 while frames reach the buffer, else 0.",
            [&](const SourceSample &source, const Labels &labels) { m_out.Value(labels, source.flow == Flow::kLive ? 1 : 0); });
        PerSource("gst_source_state", "gauge", "1 for the state that the source has, 0 for the others.",
                  [&](const SourceSample &source, Labels labels) {
                      labels.emplace_back("state", "");
                      bool known = false;
                      for (const char *state : {"start", "connected", "reconnect", "closing", "stop", "failed"}) {
                          labels.back().second = state;
                          m_out.Value(labels, source.state == state ? 1 : 0);
                          known = known || source.state == state;
                      }
                      labels.back().second = "none";
                      m_out.Value(labels, known ? 0 : 1);
                  });
        PerSource("gst_source_rebuilds_total", "counter", "How often the source was closed and opened again.",
                  [&](const SourceSample &source, const Labels &labels) { m_out.Value(labels, source.rebuilds); });
        PerSource("gst_source_rebuild_reasons_total", "counter", "Rebuilds by what ended the session before.",
                  [&](const SourceSample &source, const Labels &labels) { WriteReasons(source, labels); });
        PerSource("gst_source_attempts", "gauge", "Sessions begun since frames last came; 0 while they come.",
                  [&](const SourceSample &source, const Labels &labels) { m_out.Value(labels, source.attempts); });
        PerSource("gst_source_next_attempt_seconds", "gauge", "Until the next session begins; only between two sessions.",
                  [&](const SourceSample &source, const Labels &labels) {
                      if (source.retry_in_s) {
                          m_out.Value(labels, *source.retry_in_s);
                      }
                  });
    }

    void WriteReasons(const SourceSample &source, const Labels &labels) {
        std::map<std::string, uint64_t> reasons;
        for (const auto &[reason, count] : source.rebuild_reasons) {
            const std::string text = LabelText(reason, kLongestText);
            const bool room = reasons.size() < kMostReasons || reasons.count(text) > 0;
            reasons[room ? text : "more"] += count;
        }
        for (const auto &[reason, count] : reasons) {
            Labels all = labels;
            all.emplace_back("reason", reason);
            m_out.Value(all, count);
        }
    }

    void WriteTracks() {
        Counter("gst_source_frames_total", "Frames written into the buffer.", &TrackSample::frames);
        Counter("gst_source_bytes_total", "Bytes of these frames.", &TrackSample::bytes);
        Counter("gst_source_key_frames_total", "Those of them that are key frames.", &TrackSample::key_frames);
        Counter("gst_source_frames_left_out_total", "Frames larger than the track, which were not written.",
                &TrackSample::left_out);
        PerTrack("gst_source_bytes_per_second", "gauge", "Measured bit rate in bytes; 0 once the track is silent.",
                 [&](const TrackSample &track, const Labels &labels) {
                     constexpr double kBitsPerByte = 8;
                     m_out.Value(labels, track.bitrate / kBitsPerByte);
                 });
        PerTrack("gst_source_frames_per_second", "gauge", "Measured frame rate; 0 once the track is silent.",
                 [&](const TrackSample &track, const Labels &labels) { m_out.Value(labels, track.measured_fps); });
        PerTrack("gst_source_last_frame_age_seconds", "gauge", "Age of the last frame; absent while there is none.",
                 [&](const TrackSample &track, const Labels &labels) {
                     if (track.age_ns) {
                         constexpr double kNsPerSecond = 1e9;
                         m_out.Value(labels, static_cast<double>(*track.age_ns) / kNsPerSecond);
                     }
                 });
        PerTrack("gst_source_track_present", "gauge",
                 "1 when the stream has such a track, 0 when it has none; absent while that is unknown.",
                 [&](const TrackSample &track, const Labels &labels) {
                     if (track.presence != SHB_PRESENCE_UNKNOWN) {
                         m_out.Value(labels, track.presence == SHB_PRESENCE_EXPECTED ? 1 : 0);
                     }
                 });
    }

    void WriteErrors() {
        PerSource("gst_source_last_error_info", "gauge", "Always 1; the last reason for not playing, cut to 120 bytes.",
                  [&](const SourceSample &source, Labels labels) {
                      if (source.last_error) {
                          labels.emplace_back("code", LabelText(source.last_error->code, kLongestText));
                          labels.emplace_back("text", LabelText(source.last_error->text, kLongestText));
                          m_out.Value(labels, 1);
                      }
                  });
        PerSource("gst_source_last_error_timestamp_seconds", "gauge", "When it was reported, since 1970-01-01 UTC.",
                  [&](const SourceSample &source, const Labels &labels) {
                      GDateTime *time =
                          source.last_error ? g_date_time_new_from_iso8601(source.last_error->time.c_str(), nullptr) : nullptr;
                      if (time != nullptr) {
                          constexpr double kUsPerSecond = 1e6;
                          m_out.Value(labels, static_cast<double>(g_date_time_to_unix(time)) +
                                                  g_date_time_get_microsecond(time) / kUsPerSecond);
                          g_date_time_unref(time);
                      }
                  });
    }

    // Readers of one program, process and track are one series, whatever they are in their own PID namespaces.
    struct Reader {
        uint64_t frames = 0;
        uint64_t lost = 0;
    };
    using Readers = std::vector<std::pair<Labels, Reader>>;

    static Readers ReadersOf(const Named &source) {
        std::map<std::array<std::string, 3>, Reader> readers;
        for (const ReaderSample &reader : source.sample->readers) {
            const std::array<std::string, 3> key{reader.video ? "video" : "audio", LabelText(reader.program, kLongestText),
                                                 std::to_string(reader.pid)};
            if (readers.size() < kMostReaders || readers.count(key) > 0) {
                readers[key].frames += reader.frames;
                readers[key].lost += reader.lost;
            }
        }
        Readers all;
        for (const auto &[key, reader] : readers) {
            all.push_back({{{"source", source.name}, {"kind", key[0]}, {"program", key[1]}, {"pid", key[2]}}, reader});
        }
        return all;
    }

    void WriteReaders() {
        m_out.Family("gst_source_readers", "gauge", "Readers of the track that can be seen.");
        for (const Named &source : m_sources) {
            const auto &readers = source.sample->readers;
            for (const bool video : {true, false}) {
                m_out.Value({{"source", source.name}, {"kind", video ? "video" : "audio"}},
                            std::count_if(readers.begin(), readers.end(),
                                          [video](const ReaderSample &reader) { return reader.video == video; }));
            }
        }
        std::vector<Readers> all;
        all.reserve(m_sources.size());
        std::transform(m_sources.begin(), m_sources.end(), std::back_inserter(all), ReadersOf);
        const auto write = [&](const char *name, const char *help, uint64_t Reader::*field) {
            m_out.Family(name, "counter", help);
            for (const Readers &readers : all) {
                for (const auto &[labels, reader] : readers) {
                    m_out.Value(labels, reader.*field);
                }
            }
        };
        write("gst_source_reader_frames_total", "Frames that the reader has read.", &Reader::frames);
        write("gst_source_reader_lost_frames_total", "Frames that were overwritten before the reader had read them.",
              &Reader::lost);
    }

    void WriteTimes(const char *name, const char *help, Histogram SourceSample::*field) {
        PerSource(name, "histogram", help, [&](const SourceSample &source, const Labels &labels) {
            const Histogram &times = source.*field;
            Labels all = labels;
            all.emplace_back("le", "");
            for (size_t i = 0; i < Histogram::kBounds.size(); ++i) {
                all.back().second = Text(Histogram::kBounds[i]);
                m_out.Value(all, times.UpTo(i), "_bucket");
            }
            all.back().second = "+Inf";
            m_out.Value(all, times.Count(), "_bucket");
            m_out.Value(labels, times.Sum(), "_sum");
            m_out.Value(labels, times.Count(), "_count");
        });
    }

    Exposition &m_out;
    const std::vector<Named> m_sources;
};

void WriteRun(Exposition &out, const RunSample &run, double age_s) {
    const auto one = [&out](const char *name, const char *type, const char *help, auto number) {
        out.Family(name, type, help);
        out.Value({}, number);
    };
    out.Family("gst_source_build_info", "gauge", "Always 1; the version of the program.");
    out.Value({{"version", TOOL_VERSION}}, 1);
    one("gst_source_sources", "gauge", "Sources of the run.", run.sources.size());
    one("gst_source_sample_age_seconds", "gauge", "Age of what this page shows; a sample is taken once a second.", age_s);
    if (!run.config_file.empty()) {
        one("gst_source_config_reloads_total", "counter", "Reloads of the configuration that took effect.", run.reloads);
        one("gst_source_config_last_reload_successful", "gauge", "1 when the last reload took effect, else 0.",
            run.reload_good ? 1 : 0);
        one("gst_source_config_last_reload_success_timestamp_seconds", "gauge",
            "When the configuration was last taken, since 1970-01-01 UTC.", run.reload_time_s);
    }
    const ProcessSample &process = run.process;
    one("process_cpu_seconds_total", "counter", "Processor time of all threads.", process.cpu_s);
    one("process_resident_memory_bytes", "gauge", "Resident memory.", process.resident_bytes);
    one("process_threads", "gauge", "Threads.", process.threads);
    one("process_open_fds", "gauge", "Open file descriptors.", process.descriptors);
    one("process_start_time_seconds", "gauge", "When the process started, since 1970-01-01 UTC.", process.start_time_s);
}

}  // namespace

std::string LabelText(const std::string &text, size_t bytes) {
    gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string label(valid);
    g_free(valid);
    if (label.size() > bytes) {
        constexpr unsigned kMask = 0xC0;
        constexpr unsigned kContinued = 0x80;
        size_t end = bytes;
        while (end > 0 && (static_cast<unsigned char>(label[end]) & kMask) == kContinued) {
            --end;
        }
        label.resize(end);
    }
    return label;
}

std::string MetricsText(const RunSample &run, double age_s) {
    Exposition out;
    WriteRun(out, run, age_s);
    SourceMetrics(out, run).Write();
    return out.Take();
}

}  // namespace tool
