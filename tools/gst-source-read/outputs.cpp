#include "outputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <utility>
#include <vector>

#include "fd.h"
#include "packages.h"

namespace reader {
namespace {

bool IsSet(const char *variable) {
    const char *value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

// Libraries of sound cards and window systems write of every device that is not there.
class StandardErrorSilenced {
  public:
    StandardErrorSilenced() {
        if (!IsSet("GST_DEBUG")) {
            m_kept = tool::Duplicate(STDERR_FILENO);
            const tool::Fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
            dup2(nowhere.Get(), STDERR_FILENO);
        }
    }
    ~StandardErrorSilenced() {
        if (m_kept) {
            dup2(m_kept.Get(), STDERR_FILENO);
        }
    }
    StandardErrorSilenced(const StandardErrorSilenced &) = delete;
    StandardErrorSilenced &operator=(const StandardErrorSilenced &) = delete;

  private:
    tool::Fd m_kept;
};

// Opens the device; false when there is none.
bool Opens(GstElement *sink) {
    const StandardErrorSilenced silenced;
    if (gst_element_set_state(sink, GST_STATE_READY) == GST_STATE_CHANGE_SUCCESS) {
        return true;
    }
    gst_element_set_state(sink, GST_STATE_NULL);
    return false;
}

// autovideosink also tries sinks that have no window. Of those, kmssink takes a second, and dfbvideosink of
// GStreamer 1.22 crashes where no display can be reached.
ElementPtr OpenWindowSink() {
    bool installed = false;
    std::vector<const char *> sinks{"xvimagesink", "ximagesink", "glimagesink"};
    if (IsSet("WAYLAND_DISPLAY")) {
        sinks = {"waylandsink", "glimagesink", "xvimagesink", "ximagesink"};
    }
    for (const char *name : sinks) {
        const FactoryPtr factory(gst_element_factory_find(name));
        // Rank 0 says that a sink is not to be taken.
        if (!factory || gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory.get())) == GST_RANK_NONE) {
            continue;
        }
        installed = true;
        ElementPtr sink = NewElement(name);
        if (Opens(sink.get())) {
            return sink;
        }
    }
    if (!installed) {
        throw std::runtime_error(MissingElement("ximagesink"));
    }
    const char *display = std::getenv("DISPLAY");
    const char *wayland = std::getenv("WAYLAND_DISPLAY");
    throw std::runtime_error(std::string("no window can be opened on the display") +
                             (IsSet("WAYLAND_DISPLAY") ? std::string(" ") + wayland : "") +
                             (IsSet("DISPLAY") ? std::string(" ") + display : ""));
}

// A bin of these elements in a row, of which the last one is open.
PipelinePtr Chain(std::initializer_list<GstElement *> elements) {
    PipelinePtr bin(NewElement("bin").release());
    GstElement *before = nullptr;
    for (GstElement *element : elements) {
        gst_bin_add(GST_BIN(bin.get()), element);
        if (before != nullptr) {
            gst_element_link(before, element);
        }
        before = element;
    }
    const PadPtr entrance(gst_element_get_static_pad(*elements.begin(), "sink"));
    gst_element_add_pad(bin.get(), gst_ghost_pad_new("sink", entrance.get()));
    gst_element_set_state(bin.get(), GST_STATE_READY);
    return bin;
}

}  // namespace

bool HasDisplay() {
    return IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY");
}

PipelinePtr OpenWindow() {
    const ElementPtr deinterlace = NewElement("deinterlace");
    const ElementPtr convert = NewElement("videoconvert");
    const ElementPtr scale = NewElement("videoscale");
    const ElementPtr queue = NewElement("queue");
    const ElementPtr sink = OpenWindowSink();
    // Pictures that wait are large, and a few are enough.
    g_object_set(queue.get(), "max-size-buffers", 3U, "max-size-bytes", 0U, "max-size-time", guint64{0}, nullptr);
    return Chain({deinterlace.get(), convert.get(), scale.get(), queue.get(), sink.get()});
}

PipelinePtr OpenSound() {
    const ElementPtr convert = NewElement("audioconvert");
    const ElementPtr resample = NewElement("audioresample");
    const ElementPtr sink = NewElement("autoaudiosink");
    if (!Opens(sink.get())) {
        return nullptr;
    }
    PipelinePtr sound = Chain({convert.get(), resample.get(), sink.get()});
    // Where nothing can be opened, it takes fakesink.
    const GList *chosen = GST_BIN_CHILDREN(sink.get());
    GstElementFactory *factory = chosen != nullptr ? gst_element_get_factory(static_cast<GstElement *>(chosen->data)) : nullptr;
    const bool fake = factory == nullptr || std::strcmp(GST_OBJECT_NAME(factory), "fakesink") == 0;
    return fake ? nullptr : std::move(sound);
}

}  // namespace reader
