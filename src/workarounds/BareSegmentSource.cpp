#include "workarounds/BareSegmentSource.h"

#include "framework/Ownership.h"
#include "framework/Uri.h"
#include "workarounds/SegmentSources.h"

#include <utility>

namespace GSTREAMER {

namespace {

bool IsFor(GstElement *source, const std::string &location) {
    gchar *text = nullptr;
    g_object_get(source, "location", &text, nullptr);
    const TextPtr owner(text);
    return IsSameServer(text, location.c_str());
}

const gchar *TextOrNull(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

BareSegmentSource::BareSegmentSource(std::function<void(GstElement *)> configure, Credentials credentials)
    : m_fnConfigure(std::move(configure)), m_credentials(std::move(credentials)) {}

void BareSegmentSource::Attach(GstElement *pipeline) {
    OnSegmentSource(pipeline, [configure = m_fnConfigure, credentials = m_credentials](GstElement *source) {
        configure(source);
        // One source fetches all segments, of whatever server.
        BeforeEachRequest(source, [credentials, has = false](GstPad *pad) mutable {
            GstElement *asking = GST_PAD_PARENT(pad);
            if (has != IsFor(asking, credentials.location)) {
                has = !has;
                g_object_set(asking, "user-id", has ? TextOrNull(credentials.user) : nullptr, "user-pw",
                             has ? TextOrNull(credentials.password) : nullptr, nullptr);
            }
        });
    });
}

}  // namespace GSTREAMER
