#include "CGstUtils.h"

#include "Logger.h"

#include <fcntl.h>
#include <gst/base/gstbasesrc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <istream>
#include <sstream>
#include <vector>

namespace GSTREAMER {

static std::mutex g_muxGstLock;
static bool g_bGstInitFlag = false;

void GstInit() {
    const std::lock_guard<std::mutex> lock(g_muxGstLock);
    if (g_bGstInitFlag) {
        return;
    }
    g_bGstInitFlag = true;
    gst_init(nullptr, nullptr);
    gst_debug_set_active(TRUE);
    gst_debug_set_default_threshold(GST_LEVEL_ERROR);
    // The same state once more, reached from the other side: switching the log on lets every debug statement of every element
    // through to the point where its category is asked, with its data already put into text (tsdemux then spends a third of the
    // pipeline's CPU on hex dumps that nobody sees). Off and on by the threshold leaves the limit at the level that is really
    // in use.
    gst_debug_set_active(FALSE);
    gst_debug_set_default_threshold(GST_LEVEL_ERROR);
}

void GstDeInit() {
    const std::lock_guard<std::mutex> lock(g_muxGstLock);
    if (!g_bGstInitFlag) {
        return;
    }
    g_bGstInitFlag = false;
    gst_deinit();
}

namespace {

// Neither of the two questions takes memory, for want of which a worker would end the process.
constexpr size_t kMostAskedFor = 64;

}  // namespace

bool DescriptorsLeft(size_t count) {
    std::array<int, kMostAskedFor> taken{};
    size_t got = 0;
    while (got < count && (taken.at(got) = eventfd(0, EFD_CLOEXEC)) >= 0) {
        ++got;
    }
    for (size_t i = 0; i < got; ++i) {
        close(taken.at(i));
    }
    return got == count;
}

namespace {

struct Gate {
    std::mutex mutex;
    std::condition_variable cond;
    bool open = false;  // guarded by mutex
};

void *WaitAtGate(void *gate) {
    auto *self = static_cast<Gate *>(gate);
    std::unique_lock<std::mutex> lock(self->mutex);
    self->cond.wait(lock, [self] { return self->open; });
    return nullptr;
}

}  // namespace

bool ThreadsLeft(size_t count) {
    // One after the other: many sources at once would ask for more than any of them needs.
    static std::mutex mutex;
    const std::lock_guard<std::mutex> turn(mutex);
    Gate gate;
    std::array<pthread_t, kMostAskedFor> started{};
    size_t got = 0;
    while (got < count && pthread_create(&started.at(got), nullptr, WaitAtGate, &gate) == 0) {
        ++got;
    }
    {
        const std::lock_guard<std::mutex> lock(gate.mutex);
        gate.open = true;
    }
    gate.cond.notify_all();
    for (size_t i = 0; i < got; ++i) {
        pthread_join(started.at(i), nullptr);
    }
    return got == count;
}

GstElement *TryMakeElement(const char *factory, const char *name) {
    GstElement *element = gst_element_factory_make(factory, name);
    if (element != nullptr) {
        // From here on a field holds a real reference, so that adding to a bin (which refs) and releasing are symmetrical.
        gst_object_ref_sink(element);
    }
    return element;
}

GstElement *MakeElement(const char *factory, const char *name) {
    GstElement *element = TryMakeElement(factory, name);
    if (element == nullptr) {
        LOG_ERR("[GSTREAMER] Unable to make element \"" << name << "\" of factory \"" << factory
                                                        << "\"!!! Is its plug-in installed?");
    }
    return element;
}

void ReleaseElement(GstElement *&field) {
    GstElement *const element = std::exchange(field, nullptr);
    if (element != nullptr && GST_OBJECT_PARENT(element) == nullptr) {
        gst_object_unref(element);
    }
}

GstElement *MakeCapsFilter(const char *name, const char *caps) {
    GstElement *filter = MakeElement("capsfilter", name);
    if (filter == nullptr) {
        return nullptr;
    }
    const CapsPtr filter_caps(gst_caps_from_string(caps));
    if (!filter_caps) {
        LOG_ERR("[GSTREAMER] Unable to make the caps \"" << caps << "\" of element \"" << name << "\"!!!");
        gst_object_unref(filter);
        return nullptr;
    }
    g_object_set(filter, "caps", filter_caps.get(), nullptr);
    return filter;
}

GstElement *MakeVideoParser(const char *factory, const char *name) {
    constexpr gint kBeforeEveryIdr = -1;
    GstElement *parser = MakeElement(factory, name);
    if (parser != nullptr) {
        g_object_set(parser, "config-interval", kBeforeEveryIdr, nullptr);
    }
    return parser;
}

bool AddMany(GstElement *bin, std::initializer_list<GstElement *> elements) {
    bool added = true;
    for (GstElement *element : elements) {
        if (element == nullptr) {
            break;
        }
        if (gst_bin_add(GST_BIN(bin), element) != FALSE) {
            gst_object_unref(element);
        } else {
            LOG_ERR("[GSTREAMER] Unable to add element \"" << GST_ELEMENT_NAME(element) << "\" to the pipeline!!!");
            added = false;
        }
    }
    return added;
}

bool LinkMany(std::initializer_list<GstElement *> elements) {
    GstElement *previous = nullptr;
    bool linked = false;
    for (GstElement *element : elements) {
        if (element == nullptr) {
            break;
        }
        if (previous != nullptr) {
            // One that its bin has refused is no neighbour: asking all the same gives a warning of the framework's.
            linked = GST_OBJECT_PARENT(previous) == GST_OBJECT_PARENT(element) && gst_element_link(previous, element) != FALSE;
            if (!linked) {
                return false;
            }
        }
        previous = element;
    }
    return linked;
}

bool SyncState(GstElement *element) {
    if (element == nullptr || GST_OBJECT_PARENT(element) == nullptr) {
        return false;
    }
    if (gst_element_sync_state_with_parent(element) == FALSE) {
        LOG_ERR("[GSTREAMER] Unable to bring element \"" << GST_ELEMENT_NAME(element) << "\" to the state of the pipeline!!!");
        return false;
    }
    return true;
}

void TakeOut(GstElement *bin, GstElement *element) {
    if (element == nullptr || GST_OBJECT_PARENT(element) != GST_OBJECT_CAST(bin)) {
        return;
    }
    gst_object_ref(element);
    if (gst_bin_remove(GST_BIN(bin), element) == FALSE) {
        gst_object_unref(element);  // still the bin's, and goes with it
        return;
    }
    gst_element_set_state(element, GST_STATE_NULL);
}

namespace {

// Shared by the waiting thread and the probe, which lives as long as the pad.
struct Hold {
    std::mutex m_mtx;
    std::condition_variable m_cond;
    bool m_bHeld = false;
};

GstPadProbeReturn hold_probe(GstPad * /*pad*/, GstPadProbeInfo * /*info*/, gpointer user_data) {
    Hold &hold = **static_cast<std::shared_ptr<Hold> *>(user_data);
    const std::lock_guard<std::mutex> lock(hold.m_mtx);
    hold.m_bHeld = true;
    hold.m_cond.notify_all();
    return GST_PAD_PROBE_OK;
}

void release_hold(gpointer user_data) {
    delete static_cast<std::shared_ptr<Hold> *>(user_data);
}

}  // namespace

bool HoldAtSourcePad(GstElement *source, int bound_ms) {
    const PadPtr pad(source != nullptr ? gst_element_get_static_pad(source, "src") : nullptr);
    if (!pad || gst_pad_get_task_state(pad.get()) != GST_TASK_STARTED) {
        return false;
    }
    const auto hold = std::make_shared<Hold>();
    auto *const probes = new std::shared_ptr<Hold>(hold);
    if (gst_pad_add_probe(pad.get(), static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER),
                          hold_probe, probes, release_hold) == 0) {
        release_hold(probes);
        return false;
    }
    std::unique_lock<std::mutex> lock(hold->m_mtx);
    return hold->m_cond.wait_for(lock, std::chrono::milliseconds(bound_ms), [&] { return hold->m_bHeld; });
}

namespace {

// What the thread waits for in the kernel: "NUMBER ARGUMENT..." of a system call; other text when it does not.
std::string SystemCallOf(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string text;
    std::getline(file, text);
    return text;
}

bool IsSocketCall(long number) {
    switch (number) {
        case SYS_connect:
        case SYS_read:
        case SYS_readv:
        case SYS_recvfrom:
        case SYS_recvmsg:
        case SYS_write:
        case SYS_writev:
        case SYS_sendto:
        case SYS_sendmsg:
            return true;
        default:
            return false;
    }
}

bool IsNetworkSocket(int descriptor) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && (domain == AF_INET || domain == AF_INET6);
}

// The descriptors that a poll is about. They are on the other thread's stack, which may be gone by now: the kernel looks for us.
std::vector<int> PolledBy(std::istream &arguments) {
    constexpr unsigned long kMost = 16;
    unsigned long place = 0;
    unsigned long count = 0;
    if (!(arguments >> place >> count) || count == 0 || count > kMost) {
        return {};
    }
    std::vector<pollfd> polled(count);
    const iovec here{polled.data(), count * sizeof(pollfd)};
    const iovec there{reinterpret_cast<void *>(place), count * sizeof(pollfd)};
    if (process_vm_readv(getpid(), &here, 1, &there, 1, 0) != static_cast<ssize_t>(here.iov_len)) {
        return {};
    }
    std::vector<int> descriptors;
    descriptors.reserve(polled.size());
    for (const pollfd &one : polled) {
        descriptors.push_back(one.fd);
    }
    return descriptors;
}

}  // namespace

bool EndSocketWait(pid_t thread) {
    const std::string call = SystemCallOf(thread);
    std::istringstream fields(call);
    long number = -1;
    // The number of the call is decimal, its arguments are not.
    if (!(fields >> number) || !(fields >> std::hex)) {
        return false;
    }
    std::vector<int> descriptors;
    int fd = -1;
    if (number == SYS_poll || number == SYS_ppoll) {
        descriptors = PolledBy(fields);
    } else if (IsSocketCall(number) && fields >> fd) {
        descriptors = {fd};
    }
    // Numbers of their own for the sockets, and then a second look: if the thread is still at it, these are the sockets.
    std::vector<int> own;
    for (const int descriptor : descriptors) {
        const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        if (copy >= 0) {
            own.push_back(copy);
        }
    }
    // Threads also poll what wakes them within the process, pairs of local sockets among it: that must stay whole.
    const auto local = std::partition(own.begin(), own.end(), IsNetworkSocket);
    std::for_each(local, own.end(), close);
    own.erase(local, own.end());
    const bool still = !own.empty() && SystemCallOf(thread) == call;
    bool ended = false;
    for (const int copy : own) {
        ended = (still && shutdown(copy, SHUT_RDWR) == 0) || ended;
        close(copy);
    }
    return ended;
}

void WakeJitterBuffers(GstElement *pipeline) {
    GstIterator *const buffers = gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline), "rtpjitterbuffer");
    // A source that is amid changing its elements is looked into the next time.
    gst_iterator_foreach(
        buffers,
        [](const GValue *value, gpointer /*user*/) {
            const PadPtr pad(gst_element_get_static_pad(static_cast<GstElement *>(g_value_get_object(value)), "sink"));
            if (pad) {
                // What makes it signal its condition. One that has been stopped refuses it.
                gst_pad_send_event(pad.get(), gst_event_new_flush_start());
            }
        },
        nullptr);
    gst_iterator_free(buffers);
}

void UnlockSource(GstElement *source) {
    if (source == nullptr || !GST_IS_BASE_SRC(source)) {
        return;
    }
    if (const auto unlock = GST_BASE_SRC_GET_CLASS(source)->unlock; unlock != nullptr) {
        unlock(GST_BASE_SRC(source));
    }
}

StopPatience::StopPatience(std::chrono::milliseconds patience, std::function<void()> help) {
    try {
        m_thread = std::thread([this, patience, help = std::move(help)] {
            constexpr std::chrono::milliseconds kPause{10};
            std::unique_lock<std::mutex> lock(m_mtx);
            for (auto pause = patience; !m_cond.wait_for(lock, pause, [this] { return m_bOver; }); pause = kPause) {
                lock.unlock();
                help();
                lock.lock();
            }
        });
    } catch (const std::exception &error) {
        LOG_WARN("[GSTREAMER] Unable to watch a stop, it takes as long as its peer wants. " << error.what());
    }
}

StopPatience::~StopPatience() {
    {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_bOver = true;
    }
    m_cond.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

PadLink LinkToSinkPad(GstPad *source, GstElement *element) {
    const PadPtr sink_pad(element != nullptr ? gst_element_get_static_pad(element, "sink") : nullptr);
    if (!sink_pad) {
        return PadLink::Failed;
    }
    if (gst_pad_is_linked(sink_pad.get()) != FALSE) {
        return PadLink::TakenAlready;
    }
    return GST_PAD_LINK_SUCCESSFUL(gst_pad_link(source, sink_pad.get())) ? PadLink::Done : PadLink::Failed;
}

std::string PadName(GstPad *pad) {
    const TextPtr name(gst_pad_get_name(pad));
    return name ? name.get() : "";
}

const char *TextField(const GstStructure *structure, const char *field) {
    const GValue *value = gst_structure_get_value(structure, field);
    return value != nullptr && G_VALUE_HOLDS_STRING(value) ? g_value_get_string(value) : nullptr;
}

const GstStructure *FirstStructure(const GstCaps *caps) {
    return gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0) : nullptr;
}

void PrintCaps(const GstCaps *caps) {
    const TextPtr text(gst_caps_to_string(caps));
    PRINT_BY_STDIO("strcaps string :%s \n", text ? text.get() : "");
}

}  // namespace GSTREAMER
