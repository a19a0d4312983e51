#include "CBaseSource.h"

#include "CGstUtils.h"
#include "CodecTables.h"
#include "framework/Caps.h"
#include "framework/FrameworkLog.h"
#include "framework/Properties.h"
#include "framework/Resources.h"
#include "Logger.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

namespace Tessaro {

// The two records are the host's binary interface: their layout holds in every release.
static_assert(sizeof(media_code_info_t) == 36, "record size");
static_assert(offsetof(media_code_info_t, type) == 0, "record layout");
static_assert(offsetof(media_code_info_t, code) == 4, "record layout");
static_assert(offsetof(media_code_info_t, params.video.width) == 20, "record layout");
static_assert(offsetof(media_code_info_t, params.video.height) == 24, "record layout");
static_assert(offsetof(media_code_info_t, params.video.fps) == 28, "record layout");
static_assert(offsetof(media_code_info_t, params.video.ref_frames) == 32, "record layout");
static_assert(offsetof(media_code_info_t, params.video.scan_type) == 33, "record layout");
static_assert(offsetof(media_code_info_t, params.audio.sample_rate) == 20, "record layout");
static_assert(offsetof(media_code_info_t, params.audio.channels) == 24, "record layout");
static_assert(offsetof(media_code_info_t, params.audio.no_samples) == 28, "record layout");
static_assert(offsetof(media_code_info_t, params.audio.extra) == 32, "record layout");
static_assert(sizeof(source_status_t) == 168, "record size");
static_assert(offsetof(source_status_t, source_mode) == 0, "record layout");
static_assert(offsetof(source_status_t, state) == 16, "record layout");
static_assert(offsetof(source_status_t, video_code) == 32, "record layout");
static_assert(offsetof(source_status_t, reserved_video) == 48, "record layout");
static_assert(offsetof(source_status_t, video_bitrate) == 84, "record layout");
static_assert(offsetof(source_status_t, width) == 88, "record layout");
static_assert(offsetof(source_status_t, height) == 92, "record layout");
static_assert(offsetof(source_status_t, fps) == 96, "record layout");
static_assert(offsetof(source_status_t, video_real_fps) == 100, "record layout");
static_assert(offsetof(source_status_t, audio_code) == 104, "record layout");
static_assert(offsetof(source_status_t, reserved_audio) == 120, "record layout");
static_assert(offsetof(source_status_t, audio_bitrate) == 152, "record layout");
static_assert(offsetof(source_status_t, sample_rate) == 156, "record layout");
static_assert(offsetof(source_status_t, channels) == 160, "record layout");
static_assert(offsetof(source_status_t, audio_real_fps) == 164, "record layout");

namespace {

constexpr int kMediaTypeAudio = 1;

constexpr gulong kWaitSliceUs = 100000;
constexpr int kWaitSlices = 30;
// More than the pipeline of any protocol opens and starts at its beginning.
constexpr size_t kDescriptorsOfAPipeline = 32;
constexpr size_t kThreadsOfAPipeline = 16;
constexpr GstClockTime kBusWait = 100 * GST_MSECOND;
// A warning that says the same again and again has a line that often.
constexpr gint64 kRepeatUs = gint64{10} * G_USEC_PER_SEC;

// Fills a text field of a record: cut to its size, padded with NUL. A full field has no terminator.
template <std::size_t N>
void CopyBounded(char (&field)[N], const std::string &text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

template <std::size_t N>
std::string ReadBounded(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

void Print(const char *text) {
    PRINT_BY_GLIB("%s", text);
}

}  // namespace

CBaseSource::CBaseSource(void *share_buffer, int channel, int stream)
    : m_pShareBuffer(share_buffer), m_nChannel(channel), m_nStream(stream) {
    m_stAudioInfo.type = kMediaTypeAudio;
    GSTREAMER::RememberStandardOutput();
    GSTREAMER::GstInit();
}

CBaseSource::~CBaseSource() {
    LOG_INFO("[CBaseSource] ~~~CBaseSource .. URL=" << m_strURL);
    m_bReconnect = false;
    m_pPipeline = nullptr;
    m_bExit = true;
    m_strAudioEncode.Clear();
    m_strVideoEncode.Clear();
    SetMediaChangeCallback(nullptr, nullptr);
}

bool CBaseSource::CloseLiveStream() {
    return true;
}

void CBaseSource::GetSourceStatus(source_status_t *status) {
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    *status = m_stStatus;
}

bool CBaseSource::GetMediaInfo(media_code_info_t *video, media_code_info_t *audio) {
    if (video == nullptr || audio == nullptr) {
        LOG_ERR("CNDISource:  Input args invalid!!!");
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
    *video = m_stVideoInfo;
    *audio = m_stAudioInfo;
    return true;
}

void CBaseSource::ClearMediaInfo() {
    const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
    m_stVideoInfo = media_code_info_t{};
    m_stAudioInfo = media_code_info_t{};
    m_stAudioInfo.type = kMediaTypeAudio;
}

void CBaseSource::SetMediaChangeCallback(media_change_callback_t callback, void *user) {
    const std::lock_guard<std::mutex> lock(m_mtxCallback);
    m_pfnMediaChange = callback;
    m_pMediaChangeUser = user;
}

guint64 CBaseSource::GetMaxSizeTime(unsigned int /*caching*/) const {
    return GST_SECOND;
}

int CBaseSource::DoBusMessage(GstMessage *msg) {
    int result = BUS_MSG_NONE;
    switch (GST_MESSAGE_TYPE(msg)) {
        case GST_MESSAGE_EOS:
            Print("-------------GST_MESSAGE_EOS\n");
            result = BUS_MSG_EOS;
            break;
        case GST_MESSAGE_ERROR:
            Print("-------------GST_MESSAGE_ERROR\n");
            result = BUS_MSG_ERROR;
            break;
        case GST_MESSAGE_ELEMENT: {
            const GstStructure *structure = gst_message_get_structure(msg);
            if (structure == nullptr) {
                break;
            }
            if (gst_structure_has_name(structure, "GstRTSPSrcTimeout") != FALSE ||
                gst_structure_has_name(structure, "GstUDPSrcTimeout") != FALSE) {
                result = BUS_MSG_TIMEOUT;
            }
            const GSTREAMER::TextPtr text(gst_structure_to_string(structure));
            const char *const shown = text ? text.get() : "";
            LOG_INFO("[CBaseSource] ~~~~~(GST_MESSAGE_ELEMENT) Info :" << shown);
            break;
        }
        case GST_MESSAGE_LATENCY:
            Print("------------- GST_MESSAGE_LATENCY \n");
            PRINT_BY_GLIB("--------message->src:----%s \n", GST_MESSAGE_SRC(msg) != nullptr ? GST_MESSAGE_SRC_NAME(msg) : "");
            break;
        default:
            break;
    }
    return result;
}

// ---- Sink signals -----------------------------------------------------------------------------------------------------------

void CBaseSource::_StoreBitrate(uint32_t source_status_t::*field, guint bitrate) {
    m_nLastReport = g_get_monotonic_time();
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    m_stStatus.*field = bitrate;
    if (ReadBounded(m_stStatus.state) != "connected") {
        CopyBounded(m_stStatus.state, "connected");
    }
}

void CBaseSource::_StoreRealFps(float source_status_t::*field, guint fps) {
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    m_stStatus.*field = static_cast<float>(fps);
}

void CBaseSource::shbsink_video_bitrate_handler(GstElement *sink, guint bitrate, gpointer user) {
    if (sink == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!!"
                << "shbsink_video_bitrate_handler");
        return;
    }
    static_cast<CBaseSource *>(user)->_StoreBitrate(&source_status_t::video_bitrate, bitrate);
}

void CBaseSource::shbsink_audio_bitrate_handler(GstElement *sink, guint bitrate, gpointer user) {
    if (sink == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!! "
                << "shbsink_audio_bitrate_handler");
        return;
    }
    static_cast<CBaseSource *>(user)->_StoreBitrate(&source_status_t::audio_bitrate, bitrate);
}

void CBaseSource::shbsink_video_fps_handler(GstElement *sink, guint fps, gpointer user) {
    if (sink == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!! "
                << "shbsink_video_fps_handler");
        return;
    }
    static_cast<CBaseSource *>(user)->_StoreRealFps(&source_status_t::video_real_fps, fps);
}

void CBaseSource::shbsink_audio_fps_handler(GstElement *sink, guint fps, gpointer user) {
    if (sink == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!! "
                << "shbsink_audio_fps_handler");
        return;
    }
    static_cast<CBaseSource *>(user)->_StoreRealFps(&source_status_t::audio_real_fps, fps);
}

void CBaseSource::shbsink_video_changed_handler(GstElement *sink, char *code, char * /*unused1*/, char * /*unused2*/,
                                                char *scan_type, int width, int height, int fps_n, int fps_d, int ref_frames,
                                                gpointer user) {
    if (sink == nullptr || code == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!! "
                << "shbsink_video_changed_handler");
        return;
    }
    auto *self = static_cast<CBaseSource *>(user);
    LOG_INFO("[CBaseSource] ~~~~~video_changed_handler callback!!! URL=" << self->m_strURL);
    const float fps = fps_n != 0 && fps_d != 0 ? static_cast<float>(fps_n) / static_cast<float>(fps_d) : 0.0F;
    // A missing scan type is an empty one, which is invalid information.
    self->_UpdateVideoMediaInfo(code, width, height, fps, scan_type != nullptr ? scan_type : "", ref_frames);
}

void CBaseSource::shbsink_audio_changed_handler(GstElement *sink, char *code, int sample_rate, int channels, int no_samples,
                                                int extra, int /*unused1*/, int /*unused2*/, gpointer user) {
    if (sink == nullptr || code == nullptr || user == nullptr) {
        LOG_ERR("[CBaseSource] ~~~~~Invaild args!!! "
                << "shbsink_audio_changed_handler");
        return;
    }
    auto *self = static_cast<CBaseSource *>(user);
    LOG_INFO("[CBaseSource] ~~~~~audio_changed_handler callback!!! URL=" << self->m_strURL);
    self->_UpdateAudioMediaInfo(code, sample_rate, channels, no_samples, extra);
}

void CBaseSource::_UpdateVideoMediaInfo(const std::string &code, int width, int height, float fps, const std::string &scan_type,
                                        int ref_frames) {
    // NaN passes. 0: the stream announces no frame rate.
    if (width < 1 || height < 1 || fps < 0.0F || code.empty() || scan_type.empty() || ref_frames < 1) {
        LOG_ERR("Invalid Gst video media info!!! code=" << code << ", width=" << width << ", height=" << height
                                                        << ", fps=" << fps << ", scan_type=" << scan_type
                                                        << ", ref_frames=" << ref_frames << ", URL=" << m_strURL);
        return;
    }
    m_strVideoEncode.Set(code);

    bool changed = false;
    {
        // The scan type is left out on purpose: its change alone is not reported.
        const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
        const video_params_t &known = m_stVideoInfo.params.video;
        const std::string known_code = ReadBounded(m_stVideoInfo.code);
        changed = code != known_code || width != known.width || height != known.height || ref_frames != known.ref_frames ||
                  fps != known.fps;
    }
    if (!changed) {
        return;
    }
    LOG_INFO("Gst video media info changed, update it. code=" << code << ", width=" << width << ", height=" << height
                                                              << " fps=" << fps << ", scan_type=" << scan_type
                                                              << ", ref_frames=" << ref_frames << ", URL=" << m_strURL);
    {
        const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
        CopyBounded(m_stVideoInfo.code, code);
        video_params_t &known = m_stVideoInfo.params.video;
        if (scan_type == "progressive") {
            known.scan_type = 0;
        } else {
            known.scan_type = scan_type == "interlaced" ? 1 : 2;
        }
        known.ref_frames = static_cast<uint8_t>(ref_frames);
        known.width = width;
        known.height = height;
        known.fps = fps;
        m_stVideoShown = m_stVideoInfo;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mtxStatus);
        CopyBounded(m_stStatus.video_code, code);
        m_stStatus.width = width;
        m_stStatus.height = height;
        m_stStatus.fps = fps;
    }
    _CallHost(&m_stVideoShown);
}

void CBaseSource::_UpdateAudioMediaInfo(const std::string &code, int sample_rate, int channels, int no_samples, int extra) {
    if (sample_rate < 1 || channels < 1 || no_samples < 1 || code.empty()) {
        LOG_ERR("Invalid Gst audio media info!!! code=" << code << ", sample_rate=" << sample_rate << ", channels=" << channels
                                                        << ", no_samples=" << no_samples << ", URL=" << m_strURL);
        return;
    }
    m_strAudioEncode.Set(code);

    bool changed = false;
    {
        // The sample count and the extra value are left out on purpose: their change alone is not reported.
        const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
        const audio_params_t &known = m_stAudioInfo.params.audio;
        const std::string known_code = ReadBounded(m_stAudioInfo.code);
        changed = code != known_code || sample_rate != known.sample_rate || channels != known.channels;
    }
    if (!changed) {
        return;
    }
    LOG_INFO("Audio media info changed, just update it. code=" << code << ", sample_rate=" << sample_rate
                                                               << ", channels=" << channels << ", no_samples=" << no_samples);
    {
        const std::lock_guard<std::mutex> lock(m_mtxMediaInfo);
        CopyBounded(m_stAudioInfo.code, code);
        m_stAudioInfo.params.audio = audio_params_t{sample_rate, channels, no_samples, extra};
        m_stAudioShown = m_stAudioInfo;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mtxStatus);
        CopyBounded(m_stStatus.audio_code, code);
        m_stStatus.sample_rate = sample_rate;
        m_stStatus.channels = channels;
    }
    _CallHost(&m_stAudioShown);
}

void CBaseSource::_CallHost(media_code_info_t *info) {
    media_change_callback_t callback = nullptr;
    void *user = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mtxCallback);
        callback = m_pfnMediaChange;
        user = m_pMediaChangeUser;
    }
    if (callback != nullptr) {
        const OwnThread own(*this);
        callback(user, info);
    }
}

// ---- Own threads ------------------------------------------------------------------------------------------------------------

namespace {

std::atomic<std::size_t> g_nLastRun{0};
// Number of the pipeline that this thread streams for. A pointer
// could match a later pipeline: GLib reuses threads.
thread_local std::size_t t_nStreamingRun = 0;

}  // namespace

thread_local const CBaseSource::OwnThread *CBaseSource::OwnThread::t_pInnermost = nullptr;

CBaseSource::OwnThread::OwnThread(const CBaseSource &source) : m_source(source), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

CBaseSource::OwnThread::~OwnThread() {
    t_pInnermost = m_pOuter;
}

bool CBaseSource::OwnThread::IsOf(const CBaseSource &source) {
    const OwnThread *own = t_pInnermost;
    while (own != nullptr && &own->m_source != &source) {
        own = own->m_pOuter;
    }
    return own != nullptr;
}

bool CBaseSource::IsOwnThread() const {
    return OwnThread::IsOf(*this) || (t_nStreamingRun != 0 && t_nStreamingRun == m_nRun);
}

GstBusSyncReply CBaseSource::stream_status_handler(GstBus * /*bus*/, GstMessage *message, gpointer run) {
    // Anybody may post by hand what looks like a stream status and
    // holds none: the framework's own parsing trusts it.
    const GstStructure *structure = gst_message_get_structure(message);
    gint type = GST_STREAM_STATUS_TYPE_CREATE;
    gint progress = GST_PROGRESS_TYPE_ERROR;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_STREAM_STATUS && structure != nullptr &&
        gst_structure_get_enum(structure, "type", GST_TYPE_STREAM_STATUS_TYPE, &type) != FALSE) {
        if (type == GST_STREAM_STATUS_TYPE_ENTER) {
            t_nStreamingRun = GPOINTER_TO_SIZE(run);
            GSTREAMER::ForgetThreadCause();
        } else if (type == GST_STREAM_STATUS_TYPE_LEAVE) {
            t_nStreamingRun = 0;
        }
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_PROGRESS && structure != nullptr &&
               gst_structure_get_enum(structure, "type", GST_TYPE_PROGRESS_TYPE, &progress) != FALSE &&
               progress == GST_PROGRESS_TYPE_START) {
        // rtspsrc begins something with its server, on a thread that has no stream status.
        GSTREAMER::ForgetThreadCause();
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR || GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        GSTREAMER::AttachCause(message);
    }
    return GST_BUS_PASS;
}

// ---- Life cycle -------------------------------------------------------------------------------------------------------------

bool CBaseSource::_IsAlreadyLive(const char *tag, const char *url) const {
    if (m_nPipelineState != GST_STATE_PLAYING && !m_nLoopPthread.joinable()) {
        return false;
    }
    LOG_WARN(tag << " The current source is already live! url=" << url);
    return true;
}

bool CBaseSource::_StartWorker(const char *tag, std::function<void()> body) {
    m_bExit = false;
    m_strWarning.clear();
    g_cancellable_reset(m_pClosing.get());
    try {
        m_nLoopPthread = std::thread([this, tag, body = std::move(body)] {
            try {
                body();
            } catch (const std::exception &error) {
                // As after a rebuild whose elements cannot be made, the source waits for its close.
                LOG_ERR(tag << " The worker thread has failed!!! " << error.what() << " URL=" << m_strURL);
            }
        });
    } catch (const std::exception &error) {
        LOG_ERR(tag << " Unable to start the worker thread!!! " << error.what() << " URL=" << m_strURL);
        return false;
    }
    return true;
}

void CBaseSource::_JoinWorker() {
    // In this order: a worker that sees the stop finds rebuilding switched off.
    m_bReconnect = false;
    m_bExit = true;
    g_cancellable_cancel(m_pClosing.get());
    if (m_nLoopPthread.joinable()) {
        m_nLoopPthread.join();
    }
}

void CBaseSource::_NameThread(const char *name) {
    prctl(PR_SET_NAME, name, 0, 0, 0);
}

void CBaseSource::_SetStatusStarted() {
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    CopyBounded(m_stStatus.source_mode, "live");
    CopyBounded(m_stStatus.state, "start");
}

void CBaseSource::_SetStatusState(const char *state) {
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    CopyBounded(m_stStatus.state, state);
}

void CBaseSource::_PrepareRebuild() {
    {
        const std::lock_guard<std::mutex> lock(m_mtxStatus);
        m_stStatus.video_bitrate = 0;
        m_stStatus.audio_bitrate = 0;
        CopyBounded(m_stStatus.state, "reconnect");
    }
    for (int slice = 0; slice < kWaitSlices && !m_bExit; ++slice) {
        g_usleep(kWaitSliceUs);
    }
}

void CBaseSource::_SetStatusStopped() {
    const std::lock_guard<std::mutex> lock(m_mtxStatus);
    m_stStatus.video_bitrate = 0;
    m_stStatus.audio_bitrate = 0;
    m_stStatus.video_code[0] = '\0';
    m_stStatus.audio_code[0] = '\0';
    CopyBounded(m_stStatus.state, "stop");
}

bool CBaseSource::_PlayPipeline(const char *tag) {
    if (m_pPipeline == nullptr) {
        LOG_ERR(tag << " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=" << m_strURL);
        return false;
    }
    if (m_nPipelineState == GST_STATE_PLAYING) {
        LOG_WARN(tag << " The current state is already playing state, Nothing to do. URL=" << m_strURL);
        return true;
    }
    m_workarounds.BeforePlay();
    const GstStateChangeReturn result = gst_element_set_state(m_pPipeline, GST_STATE_PLAYING);
    m_workarounds.AfterPlay();
    if (result == GST_STATE_CHANGE_FAILURE) {
        _LogPlayFailure();
        LOG_ERR(tag << " Set the pipeline to the GST_STATE_PLAYING failure!!! URL=" << m_strURL);
        m_nPipelineState = 0;
        return false;
    }
    m_nPipelineState = GST_STATE_PLAYING;
    return true;
}

CBaseSource::StopResult CBaseSource::_StopPipeline(const char *tag) {
    if (m_pPipeline == nullptr) {
        LOG_WARN(tag << " Unable to set the pipeline to the GST_STATE_NULL state! (pipeline is nullptr) URL=" << m_strURL);
        return StopResult::NoPipeline;
    }
    if (m_nPipelineState == GST_STATE_NULL) {
        LOG_WARN(tag << " The current state is already GST_STATE_NULL state, Nothing to do. URL=" << m_strURL);
        return StopResult::StoppedBefore;
    }
    m_workarounds.BeforeStop();
    if (gst_element_set_state(m_pPipeline, GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERR(tag << " Set the pipeline to the GST_STATE_NULL failure!!! URL=" << m_strURL);
    }
    m_workarounds.AfterStop();
    return StopResult::Stopped;
}

CBaseSource::SessionEnd CBaseSource::_PollSession(const char *tag) {
    while (!m_bExit) {
        if (_PollBus() != BUS_MSG_NONE) {
            LOG_ERR(tag << " DoBusMessage--------------error!! URL=" << m_strURL);
            return SessionEnd::Bus;
        }
        if (m_bMediaChanged) {
            _LogMediaChange();
            LOG_WARN(tag << " Check media data changed, reset session.... URL=" << m_strURL);
            m_bMediaChanged = false;
            return SessionEnd::MediaChange;
        }
    }
    return SessionEnd::Exit;
}

int CBaseSource::_PollBus() {
    const GSTREAMER::MessagePtr message(gst_bus_timed_pop(m_pBus, kBusWait));
    m_workarounds.AfterPoll(message.get());
    if (!message) {
        return BUS_MSG_NONE;
    }
    _LogReason(message.get());
    return DoBusMessage(message.get());
}

void CBaseSource::_LogReason(GstMessage *message) {
    if (std::optional<GSTREAMER::Reason> reason = GSTREAMER::ReasonOf(message)) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS && !_HasMedia()) {
            reason->text += " before any media came";
        }
        _ExplainByContact(message, *reason);
        _LogReason(*reason);
    }
}

void CBaseSource::_ExplainByContact(GstMessage *message, GSTREAMER::Reason &reason) const {
    GstObject *const element = GST_MESSAGE_SRC(message);
    if (!reason.unexplained || !m_pContact || !GSTREAMER::IsA(element, GST_TYPE_ELEMENT) ||
        !GST_OBJECT_FLAG_IS_SET(element, GST_ELEMENT_FLAG_SOURCE) || _HasMedia()) {
        return;
    }
    if (const GSTREAMER::ServerContact::Failure failure = m_pContact->LastFailure(); !failure.text.empty()) {
        reason.text = failure.text;
        reason.code = failure.code;
    }
}

void CBaseSource::_LogReason(const GSTREAMER::Reason &reason) {
    const std::string line = reason.Line();
    const std::string url = GSTREAMER::MaskSecrets(m_strURL);
    if (reason.ends) {
        LOG_ERR("[GSTREAMER] " << line << ". URL=" << url);
        return;
    }
    unsigned repeats = 0;
    if (_IsRepeated(line, repeats)) {
        return;
    }
    if (repeats > 0) {
        LOG_WARN("[GSTREAMER] " << line << ", " << repeats << " times more. URL=" << url);
    } else {
        LOG_WARN("[GSTREAMER] " << line << ". URL=" << url);
    }
}

bool CBaseSource::_IsRepeated(const std::string &line, unsigned &repeats) {
    const gint64 now = g_get_monotonic_time();
    const bool same = line == m_strWarning;
    if (same && now - m_nWarningAt < kRepeatUs) {
        ++m_nWarningRepeats;
        return true;
    }
    repeats = same ? m_nWarningRepeats : 0;
    m_strWarning = line;
    m_nWarningAt = now;
    m_nWarningRepeats = 0;
    return false;
}

void CBaseSource::_LogPlayFailure() {
    // The first error is the cause, the others its consequences. Nobody
    // reads the bus of a pipeline that did not start.
    const GSTREAMER::MessagePtr message(m_pBus != nullptr ? gst_bus_pop_filtered(m_pBus, GST_MESSAGE_ERROR) : nullptr);
    if (message) {
        _LogReason(message.get());
        return;
    }
    GSTREAMER::Reason reason = GSTREAMER::ReasonOfFailedStart(m_pPipeline);
    if (reason.code.empty() && m_pContact && !m_pContact->HasAddress(m_pClosing.get())) {
        reason.text = "The name " + m_pContact->Host() + " could not be resolved";
        reason.code = "dns";
    }
    _LogReason(reason);
}

void CBaseSource::_LogMediaChange() {
    _LogReason({true, "pipeline", "The stream has changed to other media", "media-changed", false});
}

bool CBaseSource::_AwaitResource(bool (*left)(size_t), size_t needed, const char *missing, const char *again) {
    if (left(needed)) {
        return true;
    }
    LOG_ERR("[CBaseSource] " << missing << " for a pipeline!!! needed=" << needed << ", URL=" << m_strURL);
    while (OwnThread::IsOf(*this) && !m_bExit) {
        g_usleep(kWaitSliceUs);
        if (left(needed)) {
            LOG_INFO("[CBaseSource] " << again << " again. URL=" << m_strURL);
            return true;
        }
    }
    return false;
}

bool CBaseSource::_CreatePipeline() {
    if (!_AwaitResource(GSTREAMER::DescriptorsLeft, kDescriptorsOfAPipeline, "Too few file descriptors are left",
                        "There are file descriptors") ||
        !_AwaitResource(GSTREAMER::ThreadsLeft, kThreadsOfAPipeline, "Too few threads can be started",
                        "Threads can be started")) {
        return false;
    }
    // What an open that ran out of memory has left.
    _ReleasePipeline();
    m_pPipeline = gst_pipeline_new("pipeline");
    if (m_pPipeline != nullptr) {
        gst_object_ref_sink(m_pPipeline);
        m_pBus = gst_pipeline_get_bus(GST_PIPELINE(m_pPipeline));
    }
    if (m_pBus != nullptr) {
        m_nRun = ++g_nLastRun;
        GSTREAMER::ForgetThreadCause();
        m_pContact = std::make_unique<GSTREAMER::ServerContact>(m_strURL);
        gst_bus_set_sync_handler(m_pBus, stream_status_handler, GSIZE_TO_POINTER(m_nRun.load()), nullptr);
    }
    return true;
}

void CBaseSource::_ReleasePipeline() {
    m_nRun = 0;
    g_clear_pointer(&m_pPipeline, gst_object_unref);
    g_clear_pointer(&m_pBus, gst_object_unref);
    m_workarounds.Clear();
    m_pContact.reset();
}

// ---- Branches ---------------------------------------------------------------------------------------------------------------

const char *CBaseSource::_MpegAudioEncode(const GstStructure *structure) {
    gint version = 4;
    if (gst_structure_has_field(structure, "mpegversion") != FALSE) {
        gst_structure_get_int(structure, "mpegversion", &version);
        PRINT_BY_GLIB("MPEG version: %d\n", version);
    }
    return version == 1 ? "MP3" : "AAC";
}

CBaseSource::PadMedia CBaseSource::_ClassifyTsPad(const GstStructure *structure) {
    const std::string name = gst_structure_get_name(structure);
    if (name == "video/x-h264") {
        return {PadMedia::Kind::Video, "H264"};
    }
    if (name == "video/x-h265") {
        return {PadMedia::Kind::Video, "H265"};
    }
    if (name == "audio/mpeg") {
        const char *encode = _MpegAudioEncode(structure);
        if (gst_structure_has_field(structure, "stream-format") != FALSE) {
            const char *format = GSTREAMER::TextField(structure, "stream-format");
            PRINT_BY_GLIB("Stream format: %s\n", format != nullptr ? format : "(null)");
        }
        return {PadMedia::Kind::Audio, encode};
    }
    if (name == "audio/x-opus") {
        return {PadMedia::Kind::Audio, "OPUS"};
    }
    if (name == "audio/x-ac3") {
        return {PadMedia::Kind::Audio, "AC3"};
    }
    PRINT_BY_GLIB("Tsdeumx unsupport current media: %s\n", name.c_str());
    return {PadMedia::Kind::None, nullptr};
}

CBaseSource::PadCaps CBaseSource::_InspectPad(const char *tag, const char *element, const char *url_label, GstPad *pad) const {
    LOG_INFO(tag << " " << element << " A new " << GSTREAMER::PadName(pad) << " pad added handler. url=" << m_strURL);
    PadCaps found{GSTREAMER::CapsPtr(gst_pad_get_current_caps(pad))};
    if (!found.caps) {
        LOG_ERR(tag << " Unable to get " << element << " current caps by source pad!!!" << url_label << m_strURL);
        return found;
    }
    GSTREAMER::PrintCaps(found.caps.get());
    found.structure = GSTREAMER::FirstStructure(found.caps.get());
    if (found.structure == nullptr) {
        LOG_ERR(tag << " Unable to get " << element << " current structure by caps!!!" << url_label << m_strURL);
    }
    return found;
}

bool CBaseSource::_TakesPad(const char *tag, Medium medium, const char *encode) {
    const bool video = medium == Medium::Video;
    const char *const name = video ? "video" : "audio";
    const char *const title = video ? "Video" : "Audio";
    const std::string taken = (video ? m_strVideoEncode : m_strAudioEncode).Get();
    if (taken.empty()) {
        return true;
    }
    if (taken != encode) {
        LOG_WARN(tag << " " << title << " media data chanage !!!  new encode= " << encode << ", url=" << m_strURL);
        m_bMediaChanged = true;
    } else {
        LOG_WARN(tag << " Multiple " << name << " media data ???  url=" << m_strURL);
    }
    return false;
}

GSTREAMER::ElementRef CBaseSource::_MakeTsDemux(guint latency, GCallback pad_added, gpointer self) const {
    GSTREAMER::ElementRef demux = GSTREAMER::MakeElement("tsdemux", "Tsdemux");
    if (demux != nullptr) {
        GSTREAMER::SetNumber(demux, "latency", m_nCaching != 0 ? latency : 0);
        g_signal_connect(demux, "pad-added", pad_added, self);
    }
    return demux;
}

GSTREAMER::ElementRef CBaseSource::_MakeBranchQueue(const char *name) {
    GSTREAMER::ElementRef queue = GSTREAMER::MakeElement("queue", name);
    if (queue != nullptr) {
        g_object_set(queue, "max-size-time", GetMaxSizeTime(m_nCaching), nullptr);
    }
    return queue;
}

GSTREAMER::ElementRef CBaseSource::_MakeVideoSink() {
    GSTREAMER::ElementRef sink = GSTREAMER::MakeElement("shbsink", "h26xshbsink");
    if (sink != nullptr) {
        g_object_set(sink, "share-buffer", m_pShareBuffer, "media", kMediaH264, "channel", m_nChannel, "stream", m_nStream,
                     "async", FALSE, "sync", TRUE, nullptr);
    }
    _ConnectVideoSink(sink);
    return sink;
}

GSTREAMER::ElementRef CBaseSource::_MakeAudioSink() {
    GSTREAMER::ElementRef sink = GSTREAMER::MakeElement("shbsink", "audioshbsink");
    if (sink != nullptr) {
        g_object_set(sink, "share-buffer", m_pShareBuffer, "media", kMediaAudioProvisional, "channel", m_nChannel, "stream",
                     m_nStream, "async", FALSE, "sync", FALSE, nullptr);
    }
    _ConnectAudioSink(sink);
    return sink;
}

void CBaseSource::_SetSinkMedia(GstElement *sink, int media) {
    if (sink != nullptr) {
        g_object_set(sink, "media", media, nullptr);
    }
}

void CBaseSource::_ConnectVideoSink(GstElement *sink) {
    if (sink == nullptr) {
        return;
    }
    g_signal_connect(sink, "v-media-changed", G_CALLBACK(shbsink_video_changed_handler), this);
    g_signal_connect(sink, "media-real-bitrate", G_CALLBACK(shbsink_video_bitrate_handler), this);
    g_signal_connect(sink, "media-real-fps", G_CALLBACK(shbsink_video_fps_handler), this);
}

void CBaseSource::_ConnectAudioSink(GstElement *sink) {
    if (sink == nullptr) {
        return;
    }
    g_signal_connect(sink, "a-media-changed", G_CALLBACK(shbsink_audio_changed_handler), this);
    g_signal_connect(sink, "media-real-bitrate", G_CALLBACK(shbsink_audio_bitrate_handler), this);
    g_signal_connect(sink, "media-real-fps", G_CALLBACK(shbsink_audio_fps_handler), this);
}

void CBaseSource::_RemoveManyElements(const std::vector<GSTREAMER::ElementRef *> &elements) {
    for (GSTREAMER::ElementRef *element : elements) {
        element->Reset();
    }
}

GSTREAMER::Chain CBaseSource::_ChainOf(GSTREAMER::Chain front, const GSTREAMER::Chain &middle, GstElement *sink) {
    std::copy_if(middle.begin(), middle.end(), std::back_inserter(front),
                 [](GstElement *element) { return element != nullptr; });
    front.push_back(sink);
    return front;
}

GSTREAMER::Chain CBaseSource::_MakeVideoBranch(const char *tag, const char *encode) {
    m_pVideoQueue = _MakeBranchQueue("vqueue");
    m_pVideoSink = _MakeVideoSink();
    if (const VideoCodec *codec = FindVideoCodec(encode); codec != nullptr) {
        m_pVideoParse = GSTREAMER::MakeVideoParser(codec->parser, codec->parserName);
        m_pVideoCapsFilter = GSTREAMER::MakeCapsFilter(codec->filterName, codec->caps);
        _SetSinkMedia(m_pVideoSink, codec->media);
    }
    // Recorded before the check: a failed branch counts as this run's video.
    m_strVideoEncode.Set(encode);
    GSTREAMER::Chain chain{m_pVideoQueue, m_pVideoParse, m_pVideoCapsFilter, m_pVideoSink};
    if (!GSTREAMER::IsComplete(chain)) {
        LOG_ERR(tag << " Make h26x element faild by name!!! url=" << m_strURL);
        _RemoveManyElements({&m_pVideoParse, &m_pVideoCapsFilter, &m_pVideoQueue, &m_pVideoSink});
        return {};
    }
    return chain;
}

GSTREAMER::Chain CBaseSource::_MakeAudioBranch(const char *tag, const char *encode, Unparsed unparsed) {
    m_pAudioQueue = _MakeBranchQueue("aqueue");
    m_pAudioSink = _MakeAudioSink();
    const std::string parser = Lookup(g_mapAudioParseElements, encode);
    if (parser.empty()) {
        LOG_ERR(tag << " ~~~~~Not found audio parse element by name!!!" << encode << ", url=" << m_strURL);
        _RemoveManyElements({&m_pAudioQueue, &m_pAudioSink});
        return {};
    }
    LOG_INFO(tag << " ~~~~~Find audio parse element by name!!!" << parser);
    m_strAudioEncode.Set(encode);
    _SetSinkMedia(m_pAudioSink, Lookup(g_mapAudioMediaTypes, encode));
    if (unparsed == Unparsed::Refused || parser != "none") {
        m_pAudioParse = GSTREAMER::TryMakeElement(parser.c_str(), "apaser");
        if (m_pAudioParse == nullptr) {
            LOG_ERR(tag << " Make audio parse faild by name!!! " << parser << ", url=" << m_strURL);
            _RemoveManyElements({&m_pAudioQueue, &m_pAudioSink});
            return {};
        }
        if (IsAac(encode)) {
            m_pAudioCapsFilter = GSTREAMER::MakeCapsFilter("aaccapsfilter", kAdtsCaps);
        }
    }
    return _ChainOf({m_pAudioQueue}, {m_pAudioParse, m_pAudioCapsFilter}, m_pAudioSink);
}

}  // namespace Tessaro
