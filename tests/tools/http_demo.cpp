// Serves a made-up fleet whose numbers move, for browsers: http-demo [--token TOKEN] [--reader PROGRAM] [--sources N].
// Prints its address. Each line of standard input is a command: "stall" (no samples any more), "go", "restarts"
// (prints the names that were restarted). Ends with its standard input.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>

#include "http/http_side.h"
#include "http_fake.h"
#include "record.h"

namespace {

// The sample of second `s`: rates that breathe, counters that rise, and one source that has trouble now and then.
tool::RunSample At(tool::RunSample run, int s) {
    run.elapsed_s += s;
    run.process.cpu_s += 0.31 * s;
    for (tool::SourceSample &source : run.sources) {
        const double phase = s * 0.11 + source.channel * 1.7;
        const double swing = 1 + 0.13 * std::sin(phase) + 0.05 * std::sin(phase * 3.7) + 0.03 * std::sin(phase * 11.3);
        const bool trouble = source.name == "event-stream" && (s % 140) > 118 && (s % 140) < 131;
        source.video.bitrate = trouble ? 0 : static_cast<uint32_t>(source.video.bitrate * swing);
        source.video.measured_fps *= trouble ? 0 : 1 + 0.004 * std::sin(phase * 5.1);
        source.video.frames += static_cast<uint64_t>(std::max(0.0, source.video.measured_fps * s));
        source.audio.frames += static_cast<uint64_t>(std::max(0.0, source.audio.measured_fps * s));
        if (source.last_error) {
            source.last_error->time = tool::TimeNow();
        }
        if (source.retry_in_s) {
            source.retry_in_s = 0.4 + (s + static_cast<int>(source.channel)) % 3;
        }
        if (source.flow == tool::Flow::kSilent) {
            source.video.age_ns = *source.video.age_ns + static_cast<uint64_t>(s) * 1'000'000'000;
            source.audio.age_ns = *source.audio.age_ns + static_cast<uint64_t>(s) * 1'000'000'000;
        }
    }
    return run;
}

std::vector<std::string> LogOf(const tool::SourceSample &source) {
    std::vector<std::string> lines{"2024-05-01 08:00:01.102 [INFO] open " + source.url,
                                   "2024-05-01 08:00:01.240 [INFO] pipeline PLAYING: " + source.url};
    for (unsigned i = 0; i < source.attempts; ++i) {
        lines.push_back("2024-05-01 08:0" + std::to_string(i % 10) + ":12.480 [ERROR] " +
                        source.last_error.value_or(tool::Reason()).text + ": " + source.url);
        lines.push_back("2024-05-01 08:0" + std::to_string(i % 10) + ":12.481 [WARN] reconnect in 3 s: " + source.url);
    }
    return lines;
}

}  // namespace

int main(int argc, char **argv) {
    tool::HttpOptions options{"127.0.0.1:0", "", ""};
    size_t sources = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        if (flag == "--token") {
            options.token = argv[i + 1];
        } else if (flag == "--reader") {
            options.reader = argv[i + 1];
        } else if (flag == "--sources") {
            sources = std::stoul(argv[i + 1]);
        } else if (flag == "--address") {
            options.address = argv[i + 1];
        }
    }
    const tool::RunSample first = sources == 0 ? FakeFleet() : LargeFleet(sources);
    constexpr int kPast = 600;
    FakeService service(At(first, kPast));
    for (const tool::SourceSample &source : first.sources) {
        service.SetLog(source.name, LogOf(source));
    }
    tool::HttpSide side(options, service);
    for (int s = kPast - 1; s >= 0; --s) {
        const auto sample = std::make_shared<const tool::RunSample>(At(first, kPast - s));
        side.OnSample(sample, std::chrono::steady_clock::now() - std::chrono::seconds(s));
    }
    std::printf("%s\n", side.Address().c_str());
    std::fflush(stdout);

    std::mutex mutex;
    std::condition_variable changed;
    bool ending = false;
    bool stalled = false;
    std::thread sampler([&] {
        std::unique_lock lock(mutex);
        for (int s = kPast + 1; !ending; ++s) {
            changed.wait_for(lock, std::chrono::seconds(1), [&] { return ending; });
            if (!ending && !stalled) {
                service.Set(At(first, s));
                side.OnSample(service.Newest());
            }
        }
    });
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "restarts") {
            for (const std::string &name : service.Restarts()) {
                std::printf("%s ", name.c_str());
            }
            std::printf("\n");
            std::fflush(stdout);
        }
        const std::lock_guard lock(mutex);
        stalled = line == "stall" || (stalled && line != "go");
    }
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_all();
    sampler.join();
    return 0;
}
