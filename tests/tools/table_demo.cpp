// A live table of sources that exist on paper only: `table-demo SOURCES [hang]`. For the tests of the keys,
// and for the eye. With "hang" it does not come to its end.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "emergency.h"
#include "fd.h"
#include "interrupts.h"
#include "log_capture.h"
#include "view_table.h"

using namespace tool;

namespace {

SourceSample Source(unsigned number) {
    static const char *const names[] = {"gate", "yard", "\xe5\x81\x9c\xe8\xbb\x8a\xe5\xa0\xb4", "hall", "cafe\xcc\x81"};
    SourceSample source;
    source.channel = number;
    source.name = std::string(names[number % 5]) + "-" + std::to_string(number);
    source.url = "rtsp://camera-" + std::to_string(number) + ".example:554/live/main?profile=high";
    source.state = "connected";
    if (number % 20 == 7) {
        source.state = "reconnect";
        source.attempts = 3;
        source.last_error = Reason{"Not Found", "404", "", true};
        source.retry_in_s = 2.4;
        source.rebuilds = 12;
        return source;
    }
    if (number % 20 == 13) {
        return source;
    }
    source.flow = Flow::kLive;
    source.rebuilds = number % 3 == 0 ? 1 : 0;
    source.video.codec = number % 2 == 0 ? "H264" : "H265";
    source.video.width = 1920;
    source.video.height = 1080;
    source.video.announced_fps = 25;
    source.video.measured_fps = 24.9;
    source.video.bitrate = 4'000'000 + 10'000 * number;
    source.video.frames = 123'456 + number;
    source.video.bytes = 1'234'567'890;
    source.video.age_ns = 20'000'000 + uint64_t{1'000'000} * number;
    source.audio.codec = "AAC";
    source.audio.sample_rate = 48000;
    source.audio.channels = 2;
    source.audio.measured_fps = 46.9;
    source.audio.bitrate = 128'000;
    source.audio.frames = 234'567;
    source.audio.bytes = 34'567'890;
    source.audio.age_ns = 10'000'000;
    return source;
}

bool Wait(const View &view) {
    pollfd wait[2] = {{interrupts::WakeDescriptor(), POLLIN, 0}, {view.InputDescriptor(), POLLIN, 0}};
    poll(wait, 2, 50);
    interrupts::Acknowledge();
    return (wait[1].revents & POLLIN) != 0;
}

}  // namespace

int main(int argc, char **argv) {
    OpenStandardDescriptors();
    const Fd out = Duplicate(STDOUT_FILENO);
    emergency::HandleCrashes();
    interrupts::Install(out.Get());
    RunSample run;
    run.buffer_name = "/gst-source-11375";
    const int sources = argc > 1 ? std::atoi(argv[1]) : 1;
    for (int i = 0; i < sources; ++i) {
        run.sources.push_back(Source(static_cast<unsigned>(i)));
    }
    LogCapture log(-1, true, {}, nullptr, PolicyOf(false, 0, ""));
    std::puts("[2024-05-01 12.00.00] (INFO) (85) [CRtspSource] Open rtsp://camera-0.example/live");
    if (sources > 7) {
        std::puts(
            "[2024-05-01 12.00.01] (ERR) (85) [GSTREAMER] Error from \"Rtspsrc\": Not Found (404). "
            "URL=rtsp://camera-7.example/");
    }
    const auto start = std::chrono::steady_clock::now();
    std::optional<TableView> view(std::in_place, out.Get(), true, log, false, STDIN_FILENO);
    for (bool quit = false; !quit && !interrupts::StopRequested();) {
        run.elapsed_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!view->Show(run)) {
            break;
        }
        const uint64_t lines = log.LineCount();
        while (!interrupts::StopRequested() && !interrupts::RedrawWanted() && log.LineCount() == lines) {
            if (Wait(*view)) {
                const View::Asked asked = view->OnInput();
                quit = asked == View::Asked::kQuit;
                if (asked != View::Asked::kNothing) {
                    break;
                }
            }
        }
    }
    run.phase = argc > 2 ? Phase::kClosing : Phase::kEnded;
    while (argc > 2) {
        view->Show(run);
        Wait(*view);
    }
    view->Finish(run);
    view.reset();
}
