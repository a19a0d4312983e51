#include "http/pictures.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "http/picture_child.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLongest{5};
constexpr size_t kMostBytes = size_t{1} << 20U;
// Enough for a card of the page on a dense screen; the page of one source shows it larger.
constexpr const char *kWidth = "640";

// The command for a source; empty when it has no video to make one of.
std::vector<std::string> CommandFor(const std::string &program, const RunSample &run, const SourceSample &source) {
    if (source.video.frames == 0) {
        return {};
    }
    // A source with a buffer of its own is the first channel of that.
    const std::string channel = std::to_string(run.buffer_name.empty() ? 0 : source.channel);
    return {program, "snapshot", source.buffer, "-", "--channel", channel, "--timeout", "1", "--width", kWidth};
}

}  // namespace

Pictures::Pictures(std::string program, const Service &service)
    : m_program(std::move(program)), m_service(service), m_stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_stop) {
        throw std::runtime_error(std::string("cannot wait for pictures: ") + std::strerror(errno));
    }
    m_thread = std::thread([this] { Work(); });
}

Pictures::~Pictures() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
}

Picture Pictures::Ask(const std::string &source) {
    const std::lock_guard lock(m_mutex);
    if (m_program.empty()) {
        Picture none;
        none.reason = "this run makes no pictures";
        return none;
    }
    m_schedule.Ask(source, Clock::now());
    m_changed.notify_all();
    return m_pictures[source];
}

void Pictures::Work() {
    std::unique_lock lock(m_mutex);
    while (!m_ending) {
        Forget();
        if (const auto source = m_schedule.Next(Clock::now())) {
            Make(*source, lock);
        } else {
            m_changed.wait_until(lock, m_schedule.LookAt(Clock::now()));
        }
    }
}

void Pictures::Make(const std::string &source, std::unique_lock<std::mutex> &lock) {
    lock.unlock();
    ChildResult result;
    const auto run = m_service.Newest();
    const auto found = std::find_if(run->sources.begin(), run->sources.end(),
                                    [&source](const SourceSample &sample) { return sample.name == source; });
    const auto command = found == run->sources.end() ? std::vector<std::string>() : CommandFor(m_program, *run, *found);
    if (command.empty()) {
        result.reason = "the source has brought no video yet";
    } else {
        result = RunChild(command, kLongest, kMostBytes, m_stop.Get());
    }
    lock.lock();
    m_schedule.Done(source, Clock::now(), result.cpu_s);
    Picture &picture = m_pictures[source];
    picture.reason = result.reason;
    if (result.good) {
        picture.jpeg = std::make_shared<const std::string>(std::move(result.out));
        picture.made = Clock::now();
        picture.number = ++m_made;
    }
}

// Pictures of sources that are gone.
void Pictures::Forget() {
    const auto run = m_service.Newest();
    for (auto picture = m_pictures.begin(); picture != m_pictures.end();) {
        const bool there = std::any_of(run->sources.begin(), run->sources.end(),
                                       [&](const SourceSample &sample) { return sample.name == picture->first; });
        picture = there ? std::next(picture) : m_pictures.erase(picture);
    }
}

}  // namespace tool
