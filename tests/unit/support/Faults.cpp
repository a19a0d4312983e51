#include "Faults.h"

#include <fcntl.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

namespace unit {

namespace {

thread_local int t_uncounted = 0;

std::mutex g_liveMutex;
std::map<std::size_t, std::string> g_live;
std::set<const void *> g_liveBuses;
std::size_t g_nextLive = 1;

struct Watched {
    std::size_t id;
    const void *bus;
};

void Gone(gpointer data, GObject *) {
    const std::unique_ptr<Watched> watched(static_cast<Watched *>(data));
    const std::lock_guard<std::mutex> lock(g_liveMutex);
    g_live.erase(watched->id);
    g_liveBuses.erase(watched->bus);
}

void Watch(gpointer object, const std::string &name, bool bus = false) {
    std::size_t id = 0;
    {
        const std::lock_guard<std::mutex> lock(g_liveMutex);
        if (bus && !g_liveBuses.insert(object).second) {
            return;
        }
        id = g_nextLive++;
        g_live[id] = name;
    }
    g_object_weak_ref(G_OBJECT(object), Gone, new Watched{id, bus ? object : nullptr});
}

bool CountDown(int &counter) {
    return counter > 0 && --counter == 0;
}

// Counts one call that can fail; true when it has to.
bool Refused(const char *function, const std::string &detail) {
    return WithPlan([&](Plan &plan) {
        if (plan.failCall == 0 || t_uncounted != 0) {
            return false;
        }
        ++plan.calls;
        if (plan.calls < plan.failCall || (plan.calls > plan.failCall && !plan.failAllAfter)) {
            return false;
        }
        if (plan.calls == plan.failCall) {
            plan.failedCall = {function, detail};
        }
        return true;
    });
}

std::string NameOf(gpointer object) {
    return GST_IS_OBJECT(object) && GST_OBJECT_NAME(object) != nullptr ? GST_OBJECT_NAME(object) : "";
}

}  // namespace

std::mutex g_planMutex;
std::unique_ptr<Plan> g_plan;

Faults::Faults() {
    const std::lock_guard<std::mutex> lock(g_planMutex);
    if (g_plan) {
        std::fputs("two fault plans at a time\n", stderr);
        std::abort();
    }
    g_plan = std::make_unique<Plan>();
}

Faults::~Faults() {
    const std::lock_guard<std::mutex> lock(g_planMutex);
    g_plan.reset();
}

Uncounted::Uncounted() {
    ++t_uncounted;
}

Uncounted::~Uncounted() {
    --t_uncounted;
}

std::vector<std::string> LiveObjects() {
    const std::lock_guard<std::mutex> lock(g_liveMutex);
    std::vector<std::string> names;
    for (const auto &entry : g_live) {
        names.push_back(entry.second);
    }
    return names;
}

void ForgetLiveObjects() {
    const std::lock_guard<std::mutex> lock(g_liveMutex);
    g_live.clear();
}

}  // namespace unit

// ---- Replaced calls ---------------------------------------------------------------------------------------------------------

extern "C" {

GstElement *__real_gst_element_factory_make(const gchar *factory, const gchar *name);
GstElement *__wrap_gst_element_factory_make(const gchar *factory, const gchar *name);
GstElement *__real_gst_pipeline_new(const gchar *name);
GstElement *__wrap_gst_pipeline_new(const gchar *name);
GstBus *__real_gst_pipeline_get_bus(GstPipeline *pipeline);
GstBus *__wrap_gst_pipeline_get_bus(GstPipeline *pipeline);
gboolean __real_gst_element_link(GstElement *source, GstElement *destination);
gboolean __wrap_gst_element_link(GstElement *source, GstElement *destination);
GstPadLinkReturn __real_gst_pad_link(GstPad *source, GstPad *sink);
GstPadLinkReturn __wrap_gst_pad_link(GstPad *source, GstPad *sink);
GstStateChangeReturn __real_gst_element_set_state(GstElement *element, GstState state);
GstStateChangeReturn __wrap_gst_element_set_state(GstElement *element, GstState state);
void __real_g_usleep(gulong microseconds);
void __wrap_g_usleep(gulong microseconds);
gint64 __real_g_get_monotonic_time(void);
gint64 __wrap_g_get_monotonic_time(void);
ssize_t __real_pwritev64v2(int fd, const iovec *pieces, int count, off64_t offset, int flags);
ssize_t __wrap_pwritev64v2(int fd, const iovec *pieces, int count, off64_t offset, int flags);
int __real_open64(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
int __real_fcntl64(int fd, int command, ...);
int __wrap_fcntl64(int fd, int command, ...);
GstMessage *__real_gst_bus_timed_pop(GstBus *bus, GstClockTime timeout);
GstMessage *__wrap_gst_bus_timed_pop(GstBus *bus, GstClockTime timeout);
// std::thread::_M_start_thread, which throws when the system has no thread left. The state is a
// std::unique_ptr to a private type, which has a destructor and so is handed over by its address.
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread *self,
                                                                                                  void *state,
                                                                                                  void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread *self,
                                                                                                  void *state,
                                                                                                  void (*depend)());

GstElement *__wrap_gst_element_factory_make(const gchar *factory, const gchar *name) {
    using unit::Plan;
    std::string actual = factory;
    std::function<void(GstElement *)> hook;
    const bool fail = unit::WithPlan([&](Plan &plan) {
        plan.made.push_back(std::string(factory) + " " + name);
        if (unit::CountDown(plan.failNthMake)) {
            plan.nthMakeReached = true;
            return true;
        }
        const auto substitute = plan.substitutes.find(factory);
        if (substitute != plan.substitutes.end()) {
            actual = substitute->second;
        }
        const auto wanted = plan.onMade.find(factory);
        if (wanted != plan.onMade.end()) {
            hook = wanted->second;
        }
        return plan.failingFactories.count(factory) != 0;
    });
    const bool refused = unit::Refused("gst_element_factory_make", std::string(factory) + " " + name);
    GstElement *element = fail || refused ? nullptr : __real_gst_element_factory_make(actual.c_str(), name);
    if (element != nullptr) {
        unit::Watch(element, std::string(factory) + " " + name);
        if (hook) {
            hook(element);
        }
    }
    return element;
}

GstElement *__wrap_gst_pipeline_new(const gchar *name) {
    if (unit::WithPlan([](unit::Plan &plan) { return plan.failPipeline; }) || unit::Refused("gst_pipeline_new", name)) {
        return nullptr;
    }
    GstElement *pipeline = __real_gst_pipeline_new(name);
    unit::Watch(pipeline, std::string("pipeline ") + name);
    return pipeline;
}

GstBus *__wrap_gst_pipeline_get_bus(GstPipeline *pipeline) {
    if (unit::WithPlan([](unit::Plan &plan) { return plan.failBus; }) || unit::Refused("gst_pipeline_get_bus", "")) {
        return nullptr;
    }
    GstBus *bus = __real_gst_pipeline_get_bus(pipeline);
    unit::Watch(bus, "bus", true);
    return bus;
}

gboolean __wrap_gst_element_link(GstElement *source, GstElement *destination) {
    if (unit::WithPlan([](unit::Plan &plan) { return unit::CountDown(plan.failElementLink); }) ||
        unit::Refused("gst_element_link", unit::NameOf(source))) {
        return FALSE;
    }
    return __real_gst_element_link(source, destination);
}

GstPadLinkReturn __wrap_gst_pad_link(GstPad *source, GstPad *sink) {
    if (unit::WithPlan([](unit::Plan &plan) { return unit::CountDown(plan.failPadLink); }) ||
        unit::Refused("gst_pad_link", unit::NameOf(source))) {
        return GST_PAD_LINK_REFUSED;
    }
    return __real_gst_pad_link(source, sink);
}

GstStateChangeReturn __wrap_gst_element_set_state(GstElement *element, GstState state) {
    const bool refused =
        unit::Refused("gst_element_set_state", unit::NameOf(element) + " " + gst_element_state_get_name(state));
    if (refused && state != GST_STATE_NULL) {
        return GST_STATE_CHANGE_FAILURE;
    }
    if (!GST_IS_PIPELINE(element)) {
        // A stop that fails has stopped what it could.
        const GstStateChangeReturn result = __real_gst_element_set_state(element, state);
        return refused ? GST_STATE_CHANGE_FAILURE : result;
    }
    if (state == GST_STATE_PLAYING) {
        switch (unit::WithPlan([](unit::Plan &plan) { return plan.play; })) {
            case unit::Play::Pretend:
                unit::WithPlan([](unit::Plan &plan) { return ++plan.plays; });
                return GST_STATE_CHANGE_ASYNC;
            case unit::Play::Fail:
                return GST_STATE_CHANGE_FAILURE;
            case unit::Play::Real:
                break;
        }
    }
    if (state == GST_STATE_NULL) {
        if (const auto hook = unit::WithPlan([](unit::Plan &plan) { return plan.onStop; })) {
            hook();
        }
    }
    const GstStateChangeReturn result = __real_gst_element_set_state(element, state);
    if (state == GST_STATE_PLAYING && result != GST_STATE_CHANGE_FAILURE) {
        unit::WithPlan([](unit::Plan &plan) { return ++plan.plays; });
    }
    const bool report = refused || unit::WithPlan([](unit::Plan &plan) { return plan.reportStopFailure; });
    return state == GST_STATE_NULL && report ? GST_STATE_CHANGE_FAILURE : result;
}

void __wrap_g_usleep(gulong microseconds) {
    bool really = true;
    std::size_t number = 0;
    std::function<void(int)> hook;
    unit::WithPlan([&](unit::Plan &plan) {
        plan.sleeps.push_back(microseconds);
        number = plan.sleeps.size();
        really = plan.sleepReally;
        hook = plan.onSleep;
    });
    if (hook) {
        hook(static_cast<int>(number));
    }
    if (really) {
        __real_g_usleep(microseconds);
    }
}

gint64 __wrap_g_get_monotonic_time(void) {
    const gint64 clock = unit::WithPlan([](unit::Plan &plan) { return plan.clock; });
    return clock != 0 ? clock : __real_g_get_monotonic_time();
}

ssize_t __wrap_pwritev64v2(int fd, const iovec *pieces, int count, off64_t offset, int flags) {
    if (unit::WithPlan([](unit::Plan &plan) { return plan.noPromptWrite; })) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return __real_pwritev64v2(fd, pieces, count, offset, flags);
}

int __wrap_open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (unit::WithPlan([](unit::Plan &plan) { return plan.noSecondOpen; }) &&
        g_str_has_prefix(path, "/proc/self/fd/") != FALSE) {
        errno = EACCES;
        return -1;
    }
    return __real_open64(path, flags, mode);
}

int __wrap_fcntl64(int fd, int command, ...) {
    // Whatever type the argument has, it is one machine word.
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const auto hook = unit::WithPlan([](unit::Plan &plan) { return plan.onDescriptorCall; });
    const int error = hook ? hook(command) : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return __real_fcntl64(fd, command, argument);
}

GstMessage *__wrap_gst_bus_timed_pop(GstBus *bus, GstClockTime timeout) {
    std::size_t number = 0;
    std::function<GstMessage *(int)> hook;
    unit::WithPlan([&](unit::Plan &plan) {
        plan.polls.push_back(timeout);
        number = plan.polls.size();
        hook = plan.onPoll;
        if (plan.pollFast) {
            timeout = GST_MSECOND;
        }
    });
    if (hook) {
        GstMessage *message = hook(static_cast<int>(number));
        if (message != nullptr) {
            return message;
        }
    }
    return __real_gst_bus_timed_pop(bus, timeout);
}

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread *self,
                                                                                                  void *state,
                                                                                                  void (*depend)()) {
    if (unit::WithPlan([](unit::Plan &plan) { return plan.failThreadStart; }) || unit::Refused("std::thread", "")) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(self, state, depend);
}

// Calls that only fail in turn (FailCall).
#define GST_SOURCE_FALLIBLE(result, function, parameters, arguments, subject, failure) \
    result __real_##function parameters;                                               \
    result __wrap_##function parameters;                                               \
    result __wrap_##function parameters {                                              \
        if (unit::Refused(#function, subject)) {                                       \
            return failure;                                                            \
        }                                                                              \
        return __real_##function arguments;                                            \
    }

GST_SOURCE_FALLIBLE(gboolean, gst_bin_add, (GstBin * bin, GstElement *element), (bin, element), unit::NameOf(element), FALSE)
GST_SOURCE_FALLIBLE(gboolean, gst_bin_remove, (GstBin * bin, GstElement *element), (bin, element), unit::NameOf(element), FALSE)
GST_SOURCE_FALLIBLE(GstPad *, gst_element_get_static_pad, (GstElement * element, const gchar *name), (element, name),
                    unit::NameOf(element), nullptr)
GST_SOURCE_FALLIBLE(gboolean, gst_element_sync_state_with_parent, (GstElement * element), (element), unit::NameOf(element),
                    FALSE)
GST_SOURCE_FALLIBLE(gulong, gst_pad_add_probe,
                    (GstPad * pad, GstPadProbeType mask, GstPadProbeCallback callback, gpointer user, GDestroyNotify notify),
                    (pad, mask, callback, user, notify), unit::NameOf(pad), 0)
GST_SOURCE_FALLIBLE(GstCaps *, gst_pad_get_current_caps, (GstPad * pad), (pad), unit::NameOf(pad), nullptr)
GST_SOURCE_FALLIBLE(GstCaps *, gst_caps_from_string, (const gchar *text), (text), text, nullptr)
GST_SOURCE_FALLIBLE(gchar *, gst_caps_to_string, (const GstCaps *caps), (caps), "", nullptr)
GST_SOURCE_FALLIBLE(GstStructure *, gst_caps_get_structure, (const GstCaps *caps, guint index), (caps, index), "", nullptr)
GST_SOURCE_FALLIBLE(const GValue *, gst_structure_get_value, (const GstStructure *structure, const gchar *field),
                    (structure, field), field, nullptr)
GST_SOURCE_FALLIBLE(gchar *, gst_structure_to_string, (const GstStructure *structure), (structure), "", nullptr)
GST_SOURCE_FALLIBLE(gchar *, gst_object_get_name, (GstObject * object), (object), unit::NameOf(object), nullptr)

}  // extern "C"
