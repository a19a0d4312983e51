#include "framework/Reason.h"

#include "framework/FrameworkLog.h"
#include "framework/Ownership.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace GSTREAMER {

namespace {

constexpr std::size_t kLongestText = 240;
constexpr char kEndedEarly[] = "The stream has ended before any media came";

struct StructureFree {
    void operator()(GstStructure *structure) const { gst_structure_free(structure); }
};
struct ErrorFree {
    void operator()(GError *error) const { g_error_free(error); }
};
using StructurePtr = std::unique_ptr<GstStructure, StructureFree>;
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

// Any part may be missing: applications can post such messages by hand.
struct Contents {
    ErrorPtr error;
    TextPtr debug;
    StructurePtr details;
};

Contents ContentsOf(const GstStructure *structure) {
    GError *error = nullptr;
    gchar *debug = nullptr;
    GstStructure *details = nullptr;
    if (structure != nullptr) {
        gst_structure_get(structure, "gerror", G_TYPE_ERROR, &error, nullptr);
        gst_structure_get(structure, "debug", G_TYPE_STRING, &debug, nullptr);
        gst_structure_get(structure, "details", GST_TYPE_STRUCTURE, &details, nullptr);
    }
    return {ErrorPtr(error), TextPtr(debug), StructurePtr(details)};
}

// The debug text after its first line, which is file, function and element.
std::string DetailOf(const gchar *debug) {
    const char *detail = debug != nullptr ? std::strchr(debug, '\n') : nullptr;
    return detail != nullptr ? detail + 1 : "";
}

std::string Tidy(std::string text) {
    for (const char *prefix : {"failed to connect: ", "Failed to connect: ", "Failed to open SRT: ", "bind failed: "}) {
        if (text.rfind(prefix, 0) == 0) {
            text.erase(0, std::strlen(prefix));
        }
    }
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
    while (!text.empty() && (text.back() == '.' || text.back() == ' ')) {
        text.pop_back();
    }
    if (text.size() > kLongestText) {
        text.replace(kLongestText, std::string::npos, "...");
    }
    // Texts of servers may be invalid UTF-8, and the cut may split a character.
    const TextPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    return valid.get();
}

// The text is GStreamer's generic one of its code.
bool IsVague(const GError &error) {
    const TextPtr usual(gst_error_get_message(error.domain, error.code));
    return (usual && std::strcmp(error.message, usual.get()) == 0) ||
           g_error_matches(&error, GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED) != FALSE;
}

// The answer of a server, as the elements for HTTP and RTSP hand it on.
bool TakeStatus(const GstStructure *details, Reason &reason) {
    guint status = 0;
    if (details == nullptr || (gst_structure_get_uint(details, "http-status-code", &status) == FALSE &&
                               gst_structure_get_uint(details, "rtsp-status-code", &status) == FALSE)) {
        return false;
    }
    if (const gchar *text = gst_structure_get_string(details, "rtsp-status-reason"); text != nullptr && text[0] != '\0') {
        reason.text = text;
    }
    reason.code = std::to_string(status);
    return true;
}

// An error of a source whose data was refused downstream.
bool TakeFlow(const GstStructure *details, Reason &reason) {
    gint flow = GST_FLOW_OK;
    if (details == nullptr || gst_structure_get_int(details, "flow-return", &flow) == FALSE) {
        return false;
    }
    if (flow == GST_FLOW_NOT_LINKED) {
        reason.text = "No medium of the stream is one that is carried";
        reason.code = "not-linked";
    } else if (flow == GST_FLOW_NOT_NEGOTIATED) {
        reason.text = "The format of the stream is not one that is carried";
        reason.code = "not-negotiated";
    }
    return !reason.code.empty();
}

void Describe(GstMessage *message, Reason &reason) {
    const Contents contents = ContentsOf(gst_message_get_structure(message));
    const std::string cause = CauseOf(message);
    const std::string detail = DetailOf(contents.debug.get());
    reason.text = contents.error && contents.error->message != nullptr ? contents.error->message : "";
    if (TakeStatus(contents.details.get(), reason)) {
        return;
    }
    reason.code = CodeOf(reason.text.c_str());
    if (!reason.code.empty() || (TakeFlow(contents.details.get(), reason))) {
        return;
    }
    // Of log line and debug text, the first one with a code.
    for (const std::string *other : {&cause, &detail}) {
        if (const char *code = CodeOf(other->c_str()); code[0] != '\0') {
            reason.text = *other;
            reason.code = code;
            if (other->find("Got EOS before any data") != std::string::npos) {
                reason.text = kEndedEarly;
            }
            return;
        }
    }
    if (!contents.error || IsVague(*contents.error)) {
        gint flow = GST_FLOW_OK;
        // How rtspsrc words that it has read nothing.
        const bool unread = detail.find("(System error)") != std::string::npos;
        reason.unexplained = detail.empty() || unread ||
                             (contents.details && gst_structure_get_int(contents.details.get(), "flow-return", &flow) != FALSE);
        const std::string &other = !detail.empty() ? detail : cause;
        reason.text = other.empty() ? reason.text : other;
    }
}

// A segment that is refused reaches the bus as the headers of its answer only; those of the location
// itself come before an error that says the same.
std::optional<Reason> ReasonOfHeaders(GstMessage *message, const GstStructure *structure) {
    constexpr guint kFirstRefusal = 400;
    guint status = 0;
    GstObject *source = GST_MESSAGE_SRC(message);
    const std::unique_ptr<GstObject, ObjectUnref> bin(source != nullptr ? gst_object_get_parent(source) : nullptr);
    if (gst_structure_get_uint(structure, "http-status-code", &status) == FALSE || status < kFirstRefusal || !bin ||
        IsA(bin.get(), GST_TYPE_PIPELINE)) {
        return std::nullopt;
    }
    const gchar *location = gst_structure_get_string(structure, "uri");
    return Reason{false, GST_OBJECT_NAME(source), std::string("Refused: ") + (location != nullptr ? location : "a request"),
                  std::to_string(status), false};
}

std::optional<Reason> ReasonOfElementMessage(GstMessage *message) {
    const GstStructure *structure = gst_message_get_structure(message);
    if (structure == nullptr) {
        return std::nullopt;
    }
    const bool udp = gst_structure_has_name(structure, "GstUDPSrcTimeout") != FALSE;
    if (udp || gst_structure_has_name(structure, "GstRTSPSrcTimeout") != FALSE) {
        const char *name = GST_MESSAGE_SRC(message) != nullptr ? GST_MESSAGE_SRC_NAME(message) : "";
        guint64 time = 0;
        gst_structure_get_uint64(structure, "timeout", &time);
        Reason reason;
        reason.element = name;
        reason.text = "No data came";
        reason.code = "timeout";
        if (udp && time >= GST_SECOND) {
            reason.text += " for " + std::to_string(time / GST_SECOND) + " s";
        }
        return reason;
    }
    return gst_structure_has_name(structure, "http-headers") != FALSE ? ReasonOfHeaders(message, structure) : std::nullopt;
}

std::optional<Reason> Find(GstMessage *message) {
    Reason reason;
    reason.element = GST_MESSAGE_SRC(message) != nullptr ? GST_MESSAGE_SRC_NAME(message) : "";
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_ERROR:
            Describe(message, reason);
            return reason;
        case GST_MESSAGE_WARNING:
            reason.ends = false;
            Describe(message, reason);
            return reason;
        case GST_MESSAGE_EOS:
            reason.text = "The stream has ended";
            reason.code = "end";
            return reason;
        case GST_MESSAGE_ELEMENT:
            return ReasonOfElementMessage(message);
        default:
            return std::nullopt;
    }
}

// Where the password of the URL ends whose authority is from `begin` to `path`: at its last '@', npos without one.
// A password may hold a '/' or the like itself. What is not a port behind the colon tells.
std::size_t PasswordEnd(const std::string &text, std::size_t begin, std::size_t colon, std::size_t path, std::size_t end) {
    std::size_t at = text.rfind('@', path);
    if (at != std::string::npos && at >= begin) {
        return at;
    }
    const bool is_port = text[begin] == '[' || text.find_first_not_of("0123456789", colon + 1) >= path;
    at = is_port ? std::string::npos : text.rfind('@', end);
    return at != std::string::npos && at >= begin ? at : std::string::npos;
}

// Masks the secrets of the URL whose authority begins at `begin`. Returns where the URL ends.
std::size_t MaskUrl(std::string &text, std::size_t begin) {
    constexpr char kStars[] = "***";
    constexpr char kUrlEnd[] = " \"'<>\n";
    std::size_t end = std::min(text.find_first_of(kUrlEnd, begin), text.size());
    const std::size_t path = std::min(text.find_first_of("/?#", begin), end);
    const std::size_t colon = text.find(':', begin);
    if (colon < path) {
        if (const std::size_t at = PasswordEnd(text, begin, colon, path, end); at != std::string::npos && colon < at) {
            text.replace(colon + 1, at - colon - 1, kStars);
            end = std::min(text.find_first_of(kUrlEnd, begin), text.size());
        }
    }
    constexpr char kKey[] = "passphrase=";
    for (std::size_t key = text.find(kKey, begin); key < end; key = text.find(kKey, key + 1)) {
        const std::size_t value = key + sizeof kKey - 1;
        text.replace(value, std::min(text.find_first_of("&#", value), end) - value, kStars);
        end = std::min(text.find_first_of(kUrlEnd, begin), text.size());
    }
    return end;
}

}  // namespace

std::string Reason::Line() const {
    std::string line = ends ? "Error" : "Warning";
    line += " from \"" + element + "\": " + text;
    if (!code.empty()) {
        line += " (" + code + ")";
    }
    return line;
}

const char *CodeOf(const char *text) {
    struct Wording {
        const char *part;
        const char *code;
    };
    // The more special comes first.
    static constexpr Wording kWordings[] = {
        {"Incorrect passphrase", "BADSECRET"},
        {"Password required or unexpected", "UNSECURE"},
        {"NetStream.Play.StreamNotFound", "NetStream.Play.StreamNotFound"},
        {"NetConnection.Connect.Rejected", "NetConnection.Connect.Rejected"},
        {"NetConnection.Connect.InvalidApp", "NetConnection.Connect.InvalidApp"},
        {"Address already in use", "port-in-use"},
        {"Cannot assign requested address", "no-address"},
        {"onnection refused", "refused"},
        {"Error resolving", "dns"},
        {"Name or service not known", "dns"},
        {"name resolution", "dns"},
        {"Failed to resolve", "dns"},
        {"Problem accessing the DNS", "dns"},
        {"No route to host", "no-route"},
        {"etwork is unreachable", "no-route"},
        {"ost is unreachable", "no-route"},
        {"ost unreachable", "no-route"},
        {"joining multicast group: No such device", "no-route"},
        {"TLS", "tls"},
        {"ertificate", "tls"},
        {"timed out", "timeout"},
        {"imeout", "timeout"},
        {"onnection rejected", "rejected"},
        {"closed remotely", "closed"},
        {"onnection reset", "closed"},
        {"(Received end-of-file)", "closed"},
        {"has closed the connection", "closed"},
        {"failed to read RTMP packet header", "closed"},
        {"for decryption", "key"},
        {"Cannot bind to", "bind"},
        {"No supported stream", "no-stream"},
        {"SDP contains no streams", "no-stream"},
        {"Invalid playlist", "playlist"},
        {"playlist is empty", "playlist"},
        {"determine type of stream", "format"},
        {"Got EOS before any data", "end"},
        {"No space left", "full"},
        {"Permission denied", "denied"},
    };
    for (const Wording &wording : kWordings) {
        if (std::strstr(text, wording.part) != nullptr) {
            return wording.code;
        }
    }
    return "";
}

std::string MaskSecrets(std::string text) {
    constexpr char kAuthority[] = "://";
    for (std::size_t at = text.find(kAuthority); at != std::string::npos; at = text.find(kAuthority, at)) {
        at = MaskUrl(text, at + sizeof kAuthority - 1);
    }
    return text;
}

std::optional<Reason> ReasonOf(GstMessage *message) {
    std::optional<Reason> reason = Find(message);
    if (reason) {
        reason->text = Tidy(MaskSecrets(std::move(reason->text)));
        if (reason->text.empty()) {
            reason->text = "No reason was given";
        }
        if (reason->element.empty()) {
            reason->element = "pipeline";
        }
    }
    return reason;
}

Reason ReasonOfFailedStart(GstElement *pipeline) {
    Reason reason;
    reason.element = "pipeline";
    reason.text = Tidy(MaskSecrets(TakeThreadCause()));
    reason.code = CodeOf(reason.text.c_str());
    if (reason.text.empty()) {
        reason.text = "It could not be started";
    }
    if (pipeline != nullptr) {
        // A child that did start may be adding others.
        GST_OBJECT_LOCK(pipeline);
        for (const GList *child = GST_BIN_CHILDREN(pipeline); child != nullptr; child = child->next) {
            if (GST_STATE_RETURN(child->data) == GST_STATE_CHANGE_FAILURE) {
                reason.element = GST_OBJECT_NAME(child->data);
            }
        }
        GST_OBJECT_UNLOCK(pipeline);
    }
    return reason;
}

}  // namespace GSTREAMER
