// A host of many sources that is driven by lines on standard input: the process whose memory, descriptors, threads and objects are
// watched while the other programs of this directory do to its peers what they like.
//
//     reliability-host NAME CHANNELS STALL_WATCH_MS
//
// Each line is a number of the caller's choice and a command; the answer, on standard output, repeats the number. What the library
// logs goes to standard error instead.
//
//     N open CHANNEL URL PROTOCOLS LATENCY
//                                    "N ok" or "N refused"; PROTOCOLS is the mask of the RTSP transports, LATENCY that of SRT in ms
//     N close CHANNEL                "N MS", what closing and destroying took
//     N stats                        "N CHANNEL,STATE,FRAMES,EPOCH,REBUILDS ..." of the open sources, in video frames
//     N heap                         "N KIB" of memory that is in use, without what the allocator keeps for later
//     N objects                      "N TYPE=COUNT ..." of the live objects, with GStreamer's tracer "leaks" switched on, while nothing is open
//
// Open and close of one channel run on a thread of that channel: one that takes long holds up nobody else. Ends with its input.
#include <fcntl.h>
#include <gst/gst.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "source.h"
#include "stream_url.h"

namespace {

using Clock = std::chrono::steady_clock;

int answers = -1;

void Answer(const std::string &number, const std::string &text) {
    // One write for a line, and shorter than what a pipe takes at once.
    const std::string line = number + " " + text + "\n";
    if (write(answers, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::abort();
    }
}

std::string LiveObjects() {
    std::map<std::string, int> counts;
    GList *tracers = gst_tracing_get_active_tracers();
    for (GList *entry = tracers; entry != nullptr; entry = entry->next) {
        if (std::string(G_OBJECT_TYPE_NAME(entry->data)) != "GstLeaksTracer") {
            continue;
        }
        GstStructure *live = nullptr;
        g_signal_emit_by_name(entry->data, "get-live-objects", &live);
        const GValue *list = gst_structure_get_value(live, "live-objects-list");
        for (guint i = 0; i < gst_value_list_get_size(list); ++i) {
            const GstStructure *object = gst_value_get_structure(gst_value_list_get_value(list, i));
            // GLib's macros take it without the const.
            auto *value = const_cast<GValue *>(gst_structure_get_value(object, "object"));
            ++counts[G_VALUE_TYPE_NAME(value)];
            // Freeing the answer takes a reference to each object that the tracer has not added.
            if (G_VALUE_HOLDS_OBJECT(value)) {
                g_object_ref(g_value_get_object(value));
            } else if (G_VALUE_HOLDS_BOXED(value)) {
                gst_mini_object_ref(static_cast<GstMiniObject *>(g_value_get_boxed(value)));
            }
        }
        gst_structure_free(live);
    }
    g_list_free_full(tracers, gst_object_unref);
    std::ostringstream text;
    for (const auto &[type, count] : counts) {
        text << type << "=" << count << " ";
    }
    return text.str();
}

// Loses one of the named things, so that those who watch can show that they would see it.
void Leak(const std::string &kind) {
    static std::mutex mutex;
    static std::vector<GstElement *> pipelines;
    static std::vector<std::string> memory;
    const std::lock_guard<std::mutex> lock(mutex);
    if (kind == "pipeline") {
        pipelines.push_back(
            gst_parse_launch("udpsrc ! tsdemux name=d d. ! queue ! h264parse ! capsfilter ! shbsink d. ! queue ! "
                             "aacparse ! capsfilter ! shbsink",
                             nullptr));
    } else if (kind == "memory") {
        constexpr size_t kSome = 65536;
        memory.emplace_back(kSome, 'x');
    } else if (kind == "descriptors") {
        const int lost = open("/dev/null", O_RDONLY | O_CLOEXEC);
        static_cast<void>(lost);
    } else if (kind == "threads") {
        std::thread([] { pause(); }).detach();
    }
}

class Channel {
  public:
    Channel(unsigned number, shb_buffer_t *buffer) : number_(number), buffer_(buffer), thread_([this] { Run(); }) {}
    ~Channel() {
        Post(nullptr);
        thread_.join();
    }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    void Post(std::function<void()> task) {
        const std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
        wake_.notify_one();
    }

    bool Open(const std::string &url, unsigned protocols, unsigned latency) {
        tool::SourceConfig config;
        config.name = std::to_string(number_);
        config.url = url;
        config.rtsp.protocols = protocols;
        config.rtsp.latency = 200;
        config.rtmp.idle_timeout = 0;
        config.srt.latency = latency;
        config.srt.mode = url.find("//:") != std::string::npos ? "listener" : "caller";
        auto source = std::make_unique<tool::Source>(config, number_, buffer_, tool::SourceNews(), nullptr);
        const bool opened = source->Open();
        const std::lock_guard<std::mutex> lock(mutex_);
        source_ = std::move(source);
        return opened;
    }
    double Close() {
        const auto start = Clock::now();
        std::unique_ptr<tool::Source> source;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            source = std::move(source_);
        }
        source.reset();
        if (const char *kind = std::getenv("RELIABILITY_LEAK"); kind != nullptr) {
            Leak(kind);
        }
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    void Stats(std::ostream &out) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (source_) {
            source_->Poll();
            const auto &sample = source_->Sample();
            out << number_ << "," << sample.state << "," << sample.video.frames << "," << sample.video.epoch << ","
                << sample.rebuilds << " ";
        }
    }

  private:
    void Run() {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [this] { return !tasks_.empty(); });
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            if (!task) {
                return;
            }
            task();
        }
    }

    const unsigned number_;
    shb_buffer_t *const buffer_;
    std::unique_ptr<tool::Source> source_;  // under the mutex
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;  // under the mutex
    std::thread thread_;
};

void Serve(std::vector<std::unique_ptr<Channel>> &channels) {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string id;
        std::string command;
        std::string url;
        unsigned number = 0;
        unsigned protocols = 0;
        unsigned latency = 0;
        words >> id >> command >> number >> url >> protocols >> latency;
        if (command == "stats") {
            std::ostringstream text;
            for (auto &channel : channels) {
                channel->Stats(text);
            }
            Answer(id, text.str());
        } else if (command == "heap") {
            const struct mallinfo2 info = mallinfo2();
            Answer(id, std::to_string((info.uordblks + info.hblkhd) / 1024));
        } else if (command == "objects") {
            Answer(id, LiveObjects());
        } else if (command == "open") {
            Channel &channel = *channels.at(number);
            channel.Post([=, &channel] { Answer(id, channel.Open(url, protocols, latency) ? "ok" : "refused"); });
        } else if (command == "close") {
            Channel &channel = *channels.at(number);
            channel.Post([=, &channel] { Answer(id, std::to_string(channel.Close())); });
        }
    }
}

// Criticals end the process, which whoever watches it tells, but for one that is the framework's own: rtspsrc stopped in the midst of its
// handshake may set a sequence number that it has not got.
void EndAtCriticals(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer user) {
    g_log_default_handler(domain, level, message, user);
    if ((level & G_LOG_LEVEL_CRITICAL) != 0 &&
        std::strcmp(message, "gst_event_set_seqnum: assertion 'seqnum != GST_SEQNUM_INVALID' failed") != 0) {
        std::abort();
    }
}

}  // namespace

int main(int argc, char **argv) {
    g_log_set_always_fatal(G_LOG_LEVEL_ERROR);
    g_log_set_default_handler(EndAtCriticals, nullptr);
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " NAME CHANNELS STALL_WATCH_MS\n";
        return 2;
    }
    answers = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (answers < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        return 1;
    }
    shb_geometry_t geometry{};
    geometry.channels = static_cast<uint32_t>(std::stoul(argv[2]));
    geometry.video_bytes = 1U << 20;
    geometry.audio_bytes = 1U << 17;
    shb_buffer_t *buffer = nullptr;
    if (const int result = shb_create(argv[1], &geometry, &buffer); result != SHB_OK) {
        std::cerr << argv[1] << ": " << shb_strerror(result) << "\n";
        return 1;
    }
    shb_set_stall_watch(buffer, static_cast<uint32_t>(std::stoul(argv[3])));
    std::vector<std::unique_ptr<Channel>> channels;
    for (unsigned i = 0; i < geometry.channels; ++i) {
        channels.push_back(std::make_unique<Channel>(i, buffer));
    }
    Serve(channels);
    channels.clear();
    shb_destroy(buffer);
    return 0;
}
