#include "CRtspSource.h"

#include "CodecTables.h"
#include "Logger.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CRtspSource]";
constexpr gint kUdpBufferBytes = 2097152;
constexpr gint kSinkDebugLevel = 3;
// A server that answers is taken leave of within a fraction of this.
constexpr std::chrono::seconds kStopPatience{2};
// What the end of the streams may take after the server has left, beside what the jitter buffers hold back.
constexpr gint64 kEndMs = 3000;

}  // namespace

CRtspSource *CRtspSource::CreateNew(void *share_buffer, int channel, int stream) {
    return new CRtspSource(share_buffer, channel, stream);
}

void CRtspSource::DestroyHandle(CRtspSource *source) {
    delete source;
}

CRtspSource::CRtspSource(void *share_buffer, int channel, int stream) : CBaseSource(share_buffer, channel, stream) {}

CRtspSource::~CRtspSource() {
    CRtspSource::CloseLiveStream();
}

std::array<GstElement **, 11> CRtspSource::_ElementFields() {
    return {&m_pRtspSrc,    &m_pVideoDepay,      &m_pAudioDepay,      &m_pVideoParse, &m_pAudioParse, &m_pVideoQueue,
            &m_pAudioQueue, &m_pVideoCapsFilter, &m_pAudioCapsFilter, &m_pVideoSink,  &m_pAudioSink};
}

// ---- Open, worker, close ----------------------------------------------------------------------------------------------------

bool CRtspSource::OpenLiveStream(const char *url, unsigned int caching, unsigned long protocols, unsigned int latency,
                                 unsigned int contimeout, const char *user, const char *pwd) {
    if (m_pShareBuffer == nullptr || url == nullptr) {
        LOG_ERR(kTag << " Share buffer not init or location is invaild!");
        return false;
    }
    // A worker that has ended by itself still counts until a close has joined it.
    if (m_nPipelineState == GST_STATE_PLAYING || m_nLoopPthread.joinable()) {
        LOG_WARN(kTag << " The current source is already live! url=" << url);
        return false;
    }
    LOG_INFO(kTag << " Open " << url << "... {Opts:caching=" << caching << ",protocols=" << protocols << ",latency=" << latency
                  << ",contimeout=" << contimeout << ",user=" << user << ",pwd=" << pwd << "}");
    m_strURL = url;
    m_nCaching = caching;
    m_nProtocols = protocols;
    m_nLatency = latency;
    m_nTcpTimeout = contimeout;
    m_strUserId = user;
    m_strUserPw = pwd;

    if (!_CreateGstElements()) {
        LOG_ERR(kTag << " _CreateGstElements error!!! URL=" << m_strURL);
        return false;
    }
    m_bExit = false;
    try {
        m_nLoopPthread = std::thread(&CRtspSource::_LoopPthread, this);
    } catch (const std::exception &error) {
        LOG_ERR(kTag << " Unable to start the worker thread!!! " << error.what() << " URL=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    return true;
}

void CRtspSource::_LoopPthread() {
    const OwnThread own(*this);
    LOG_INFO("Rtsp source pthread start...");
    _NameThread("CRtspSource");
    _SetStatusStarted();
    for (;;) {
        if (!_CreateGstElements()) {
            LOG_ERR(kTag << " _CreateGstElements error!!! URL=" << m_strURL);
            break;
        }
        if (_PipelinePlay()) {
            _SetStatusState("connected");
            while (!m_bExit) {
                if (_PollBus() != BUS_MSG_NONE) {
                    LOG_ERR(kTag << " DoBusMessage--------------error!! URL=" << m_strURL);
                    m_nPipelineState = 0;
                    break;
                }
                if (_IsForsaken()) {
                    LOG_ERR(kTag << " The server has closed the connection, and nothing has come since!!! URL=" << m_strURL);
                    m_nPipelineState = 0;
                    break;
                }
                if (m_bMediaChanged) {
                    LOG_WARN(kTag << " Check media data changed, reset session.... URL=" << m_strURL);
                    m_bMediaChanged = false;
                    break;
                }
            }
        } else {
            LOG_INFO(kTag << " _PipelinePlay faild!!! URL=" << m_strURL);
        }
        if (!m_bReconnect) {
            break;  // the pipeline is left for the close
        }
        ClearMediaInfo();
        _PrepareRebuild();
        LOG_INFO(kTag << " Rtsp source reconnect..." << m_strURL);
        _PipelineStop();
        _DestroyGstElements();
    }
    LOG_INFO("Rtsp source pthread exit");
}

void CRtspSource::_NoteMessage(GstMessage *message) {
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_WARNING || GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(m_pRtspSrc) ||
        gst_message_get_structure(message) == nullptr) {
        return;
    }
    GError *warning = nullptr;
    gst_message_parse_warning(message, &warning, nullptr);
    if (g_error_matches(warning, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ) != FALSE) {
        m_nServerLeft = g_get_monotonic_time();
    }
    g_clear_error(&warning);
}

bool CRtspSource::_IsForsaken() const {
    // Over UDP the media may well go on.
    return m_nServerLeft != 0 &&
           g_get_monotonic_time() - std::max(m_nServerLeft, _LastReport()) > (kEndMs + m_nLatency) * (G_USEC_PER_SEC / 1000);
}

bool CRtspSource::_PipelinePlay() {
    if (m_pPipeline == nullptr) {
        LOG_ERR(kTag << " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=" << m_strURL);
        return false;
    }
    if (m_nPipelineState == GST_STATE_PLAYING) {
        LOG_WARN(kTag << " The current state is already playing state, Nothing to do. URL=" << m_strURL);
        return true;
    }
    if (gst_element_set_state(m_pPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERR(kTag << " Set the pipeline to the GST_STATE_PLAYING failure!!! URL=" << m_strURL);
        m_nPipelineState = 0;
        return false;
    }
    m_nPipelineState = GST_STATE_PLAYING;
    return true;
}

bool CRtspSource::_PipelineStop() {
    if (m_pPipeline == nullptr) {
        LOG_WARN(kTag << " Unable to set the pipeline to the GST_STATE_NULL state! (pipeline is nullptr) URL=" << m_strURL);
        return false;
    }
    if (m_nPipelineState == GST_STATE_NULL) {
        LOG_WARN(kTag << " The current state is already GST_STATE_NULL state, Nothing to do. URL=" << m_strURL);
        return true;
    }
    {
        // rtspsrc does not leave an answer that it has begun to read, but for its time-out, which may be none; and its jitter buffers
        // may sleep through their stop when the server has just gone. A stop that comes just before it has made its connection is
        // lost on it (GStreamer 1.22 and 1.26), so it may begin to send only then. Test: ClosingRtsp.JustBeforeTheConnectionIsMade.
        const bool working = m_nTaskThread != 0 || m_nPipelineState == GST_STATE_PLAYING;
        const std::unique_ptr<StopPatience> patience(!working ? nullptr : new StopPatience(kStopPatience, [this] {
            if (const pid_t thread = m_nTaskThread; thread != 0) {
                EndSocketWait(thread);
            }
            WakeJitterBuffers(m_pPipeline);
        }));
        if (gst_element_set_state(m_pPipeline, GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE) {
            LOG_ERR(kTag << " Set the pipeline to the GST_STATE_NULL failure!!! URL=" << m_strURL);
        }
    }
    m_nTaskThread = 0;
    for (GstElement **field : _ElementFields()) {
        ReleaseElement(*field);
    }
    m_strVideoEncode.Clear();
    m_strAudioEncode.Clear();
    m_nPipelineState = GST_STATE_NULL;
    return true;
}

void CRtspSource::_DestroyGstElements() {
    // Before the pipeline goes: what sits in it goes with it.
    for (GstElement **field : _ElementFields()) {
        ReleaseElement(*field);
    }
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CRtspSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    // In this order: a worker that sees the stop finds rebuilding switched off.
    m_bReconnect = false;
    m_bExit = true;
    if (m_nLoopPthread.joinable()) {
        m_nLoopPthread.join();
    }
    _PipelineStop();
    _DestroyGstElements();
    _SetStatusStopped();
    return true;
}

// ---- Front of the pipeline --------------------------------------------------------------------------------------------------

bool CRtspSource::_CreateGstElements() {
    if (m_bElementsCreated) {
        return true;
    }
    _CreatePipeline();
    m_nServerLeft = 0;
    m_pRtspSrc = MakeElement("rtspsrc", "Rtspsrc");
    if (m_pRtspSrc != nullptr) {
        if (!m_strUserId.empty() && !m_strUserPw.empty()) {
            LOG_INFO(kTag << " Set user-id and user-pw. URL=" << m_strURL);
            g_object_set(m_pRtspSrc, "user-id", m_strUserId.c_str(), "user-pw", m_strUserPw.c_str(), nullptr);
        }
        LOG_INFO(kTag << " Rtsp latency=" << m_nLatency << ", url=" << m_strURL);
        // The flags property takes 32 bits, whatever the field's width.
        g_object_set(m_pRtspSrc, "location", m_strURL.c_str(), "protocols", static_cast<guint>(m_nProtocols), "latency",
                     m_nLatency, "tcp-timeout", m_nTcpTimeout, "udp-buffer-size", kUdpBufferBytes, nullptr);
        g_signal_connect(m_pRtspSrc, "pad-added", G_CALLBACK(pad_added_handler), this);
        // Not known to what may stand in for rtspsrc.
        if (g_signal_lookup("before-send", G_OBJECT_TYPE(m_pRtspSrc)) != 0) {
            g_signal_connect(m_pRtspSrc, "before-send", G_CALLBACK(before_send_handler), this);
        }
    }
    // A refused source counts as missing here: there is no link behind it that would fail.
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pRtspSrc == nullptr || !AddMany(m_pPipeline, {m_pRtspSrc})) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    m_bElementsCreated = true;
    return true;
}

void CRtspSource::_SetSinkTarget(GstElement *sink) {
    if (sink != nullptr) {
        g_object_set(sink, "share-buffer", m_pShareBuffer, "channel", m_nChannel, "stream", m_nStream, "sync", FALSE, "async",
                     FALSE, "debug", kSinkDebugLevel, nullptr);
    }
}

gboolean CRtspSource::before_send_handler(GstElement * /*element*/, gpointer /*message*/, gpointer user_data) {
    static_cast<CRtspSource *>(user_data)->m_nTaskThread = gettid();
    return TRUE;
}

void CRtspSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CRtspSource *>(user_data);
    LOG_INFO(kTag << " rtspsrc A new " << PadName(pad) << " pad added handler. url=" << self->GetURL());
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    if (!caps) {
        LOG_ERR(kTag << " Unable to get rtspsrc current caps by source pad!!!url=" << self->GetURL());
        return;
    }
    PrintCaps(caps.get());
    const GstStructure *structure = FirstStructure(caps.get());
    if (structure == nullptr) {
        LOG_ERR(kTag << " Unable to get rtspsrc current structure by caps!!!url=" << self->GetURL());
        return;
    }
    // Only RTP pads get a branch; other media beside audio and video (metadata, back channels) are left alone without a word.
    if (gst_structure_has_name(structure, "application/x-rtp") == FALSE) {
        return;
    }
    const char *media = TextField(structure, "media");
    const char *encode = TextField(structure, "encoding-name");
    if (media == nullptr || encode == nullptr) {
        return;
    }
    if (std::string("audio") == media) {
        self->_CreateAudioStream(element, pad, encode);
    } else if (std::string("video") == media) {
        self->_CreateVideoStream(element, pad, encode);
    }
}

// ---- Branches ---------------------------------------------------------------------------------------------------------------

bool CRtspSource::_CreateVideoStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    const std::string current = m_strVideoEncode.Get();
    if (!current.empty() && current != encode) {
        LOG_WARN(kTag << " Video media data chanage !!!  new encode= " << encode << ", url=" << GetURL());
        m_bMediaChanged = true;
        return true;
    }
    if (!current.empty()) {
        LOG_WARN(kTag << " Multiple video media data ???  url=" << GetURL());
        return true;
    }

    m_pVideoQueue = _MakeBranchQueue("vqueue");
    m_pVideoSink = MakeElement("shbsink", "h26xshbsink");
    _SetSinkTarget(m_pVideoSink);
    _ConnectVideoSink(m_pVideoSink);
    if (std::string("H264") == encode) {
        m_pVideoDepay = MakeElement("rtph264depay", "Rtph264depay");
        m_pVideoParse = MakeVideoParser("h264parse", "H264parse");
        m_pVideoCapsFilter = MakeCapsFilter("H264capsfilter", kH264Caps);
        _SetSinkMedia(m_pVideoSink, kMediaH264);
    } else if (std::string("H265") == encode) {
        m_pVideoDepay = MakeElement("rtph265depay", "Rtph265depay");
        m_pVideoParse = MakeVideoParser("h265parse", "H265parse");
        m_pVideoCapsFilter = MakeCapsFilter("H265capsfilter", kH265Caps);
        _SetSinkMedia(m_pVideoSink, kMediaH265);
    }
    // Recorded before the check: a failed branch counts as this run's video.
    m_strVideoEncode.Set(encode);
    if (m_pVideoDepay == nullptr || m_pVideoQueue == nullptr || m_pVideoParse == nullptr || m_pVideoCapsFilter == nullptr ||
        m_pVideoSink == nullptr) {
        LOG_ERR(kTag << " Make h26x element faild by name!!! url=" << GetURL());
        _RemoveManyElements({m_pVideoDepay, m_pVideoParse, m_pVideoCapsFilter, m_pVideoQueue, m_pVideoSink});
        m_pVideoDepay = m_pVideoParse = m_pVideoCapsFilter = m_pVideoQueue = m_pVideoSink = nullptr;
        return false;
    }

    AddMany(m_pPipeline, {m_pVideoDepay, m_pVideoQueue, m_pVideoParse, m_pVideoCapsFilter, m_pVideoSink});
    SyncState(m_pVideoDepay);
    SyncState(m_pVideoQueue);
    SyncState(m_pVideoParse);
    SyncState(m_pVideoCapsFilter);
    SyncState(m_pVideoSink);
    switch (LinkToSinkPad(pad, m_pVideoDepay)) {
        case PadLink::Failed:
            LOG_ERR(kTag << " rtspsrc src_pad link rtph26xdeplay sink_pad faild !!! url=" << GetURL());
            m_nPipelineState = 0;
            return false;
        case PadLink::Done:
            LOG_INFO(kTag << " rtspsrc src_pad link rtph26xdeplay sink_pad OK....url=" << GetURL());
            break;
        case PadLink::TakenAlready:
            break;
    }
    if (!LinkMany({m_pVideoDepay, m_pVideoQueue, m_pVideoParse, m_pVideoCapsFilter, m_pVideoSink})) {
        LOG_ERR(kTag << " Video element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    return true;
}

bool CRtspSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    const std::string current = m_strAudioEncode.Get();
    if (!current.empty() && current != encode) {
        LOG_WARN(kTag << " Audio media data chanage !!!  new encode= " << encode << ", url=" << GetURL());
        m_bMediaChanged = true;
        return true;
    }
    if (!current.empty()) {
        LOG_WARN(kTag << " Multiple audio media data ???  url=" << GetURL());
        return true;
    }

    m_pAudioQueue = _MakeBranchQueue("aqueue");
    m_pAudioSink = MakeElement("shbsink", "audioshbsink");
    _SetSinkTarget(m_pAudioSink);
    _ConnectAudioSink(m_pAudioSink);
    const std::string depayloader = Lookup(g_mapDepayElements, encode);
    if (depayloader.empty()) {
        LOG_ERR(kTag << " ~~~~~Not found audio parse element by name!!!aencode=" << encode << ", url=" << GetURL());
        _RemoveManyElements({m_pAudioQueue, m_pAudioSink});
        m_pAudioQueue = m_pAudioSink = nullptr;
        return false;
    }
    const std::string parser = Lookup(g_mapAudioParseElements, encode);
    LOG_INFO(kTag << "~~~~~Found audio parse element by name!!!" << depayloader << "->" << parser);
    m_strAudioEncode.Set(encode);
    _SetSinkMedia(m_pAudioSink, Lookup(g_mapAudioMediaTypes, encode));
    m_pAudioDepay = TryMakeElement(depayloader.c_str(), "adepay");
    if (m_pAudioDepay == nullptr) {
        LOG_ERR(kTag << " Make rtpaudiodeplay element faild by name!!! " << depayloader << ", url=" << GetURL());
        _RemoveManyElements({m_pAudioQueue, m_pAudioSink});
        m_pAudioQueue = m_pAudioSink = nullptr;
        return false;
    }
    const bool parsed = parser != "none";
    if (parsed) {
        m_pAudioParse = TryMakeElement(parser.c_str(), "apaser");
        if (m_pAudioParse == nullptr) {
            LOG_ERR(kTag << " Make audio depay element faild by name!!! aparse=" << parser << ", url=" << GetURL());
            _RemoveManyElements({m_pAudioQueue, m_pAudioSink, m_pAudioDepay});
            m_pAudioQueue = m_pAudioSink = m_pAudioDepay = nullptr;
            return false;
        }
        if (IsAac(encode)) {
            m_pAudioCapsFilter = MakeCapsFilter("aaccapsfilter", kAdtsCaps);
        }
    }

    const bool filtered = m_pAudioCapsFilter != nullptr;
    if (!parsed) {
        AddMany(m_pPipeline, {m_pAudioDepay, m_pAudioQueue, m_pAudioSink});
    } else if (!filtered) {
        AddMany(m_pPipeline, {m_pAudioDepay, m_pAudioQueue, m_pAudioParse, m_pAudioSink});
    } else {
        AddMany(m_pPipeline, {m_pAudioDepay, m_pAudioQueue, m_pAudioParse, m_pAudioCapsFilter, m_pAudioSink});
    }
    SyncState(m_pAudioDepay);
    SyncState(m_pAudioQueue);
    if (SyncState(m_pAudioParse)) {
        LOG_INFO(kTag << " audioparse sync state with parent OK. url=" << GetURL());
    }
    SyncState(m_pAudioCapsFilter);
    if (SyncState(m_pAudioSink)) {
        LOG_INFO(kTag << " audioshbsink sync state with parent OK");
    }
    switch (LinkToSinkPad(pad, m_pAudioDepay)) {
        case PadLink::Failed:
            LOG_ERR(kTag << " rtsp src_pad link rtpaudiodeplay sink_pad faild !!! url=" << GetURL());
            m_nPipelineState = 0;
            return false;
        case PadLink::Done:
            LOG_INFO(kTag << " rtsp src_pad link rtpaudiodeplay sink_pad ok !!! url=" << GetURL());
            break;
        case PadLink::TakenAlready:
            break;
    }
    bool linked = false;
    if (!parsed) {
        linked = LinkMany({m_pAudioDepay, m_pAudioQueue, m_pAudioSink});
    } else if (!filtered) {
        linked = LinkMany({m_pAudioDepay, m_pAudioQueue, m_pAudioParse, m_pAudioSink});
    } else {
        linked = LinkMany({m_pAudioDepay, m_pAudioQueue, m_pAudioParse, m_pAudioCapsFilter, m_pAudioSink});
    }
    if (!linked) {
        LOG_ERR(kTag << " Audio element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (parsed) {
        LOG_INFO(kTag << " Audio element link many ok !!! url=" << GetURL());
    }
    return true;
}

}  // namespace Tessaro
