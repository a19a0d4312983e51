#include "CHLSSource.h"

#include "framework/Properties.h"
#include "Logger.h"
#include "workarounds/BareSegmentSource.h"
#include "workarounds/EmptyPlaylist.h"
#include "workarounds/EndlessRetries.h"
#include "workarounds/FatalProxy.h"
#include "workarounds/HiddenPlaylistRequests.h"
#include "workarounds/LateSegmentRequest.h"
#include "workarounds/SharedSegmentSession.h"
#include "workarounds/UnansweredHttpRequests.h"
#include "workarounds/UnsharedPlaylistSession.h"

#include <memory>

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CHLSSource]";
constexpr char kTransportStream[] = "video/mpegts";

// kbit/s, the largest value: hlsdemux plays the variant with the largest BANDWIDTH and keeps it.
constexpr guint kFastestVariant = 4294967;

}  // namespace

CHLSSource *CHLSSource::CreateNew(void *share_buffer, int channel, int stream) {
    return new CHLSSource(share_buffer, channel, stream);
}

void CHLSSource::DestroyHandle(CHLSSource *source) {
    delete source;
}

CHLSSource::CHLSSource(void *share_buffer, int channel, int stream) : CBaseSource(share_buffer, channel, stream) {}

CHLSSource::~CHLSSource() {
    CHLSSource::CloseLiveStream();
}

std::vector<ElementRef *> CHLSSource::_ElementFields() {
    return {&m_pSoupSrc,    &m_pHlsDemux,        &m_pTsDemux,         &m_pVideoQueue, &m_pAudioQueue, &m_pVideoParse,
            &m_pAudioParse, &m_pVideoCapsFilter, &m_pAudioCapsFilter, &m_pVideoSink,  &m_pAudioSink};
}

// ---- Open, worker, close ----------------------------------------------------------------------------------------------------

bool CHLSSource::OpenLiveStream(const char *url, unsigned int caching, bool islive, unsigned int timeout, int retries,
                                const char *proxy, const char *proxy_id, const char *proxy_pwd, const char *user_agent,
                                const char *user_id, const char *user_pw) {
    if (m_pShareBuffer == nullptr || url == nullptr) {
        LOG_ERR(kTag << " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=" << m_strURL);
        return false;
    }
    if (_IsAlreadyLive(kTag, url)) {
        return false;
    }
    LOG_INFO(kTag << " Open " << url << " { Opts: caching=" << caching << ",islive=" << islive << ",timeout=" << timeout
                  << ",retries=" << retries << ",proxy=" << proxy << ",proxy_id=" << proxy_id << ",proxy_pwd=" << proxy_pwd
                  << ",user_agent=" << user_agent << " }");
    m_strURL = url;
    m_nCaching = caching;
    m_bIsLive = islive;
    m_nTimeout = timeout;
    m_nRetries = retries;
    m_strProxy = proxy;
    m_strProxyId = proxy_id;
    m_strProxyPw = proxy_pwd;
    m_strUserAgent = user_agent;
    m_strUserId = user_id;
    m_strUserPw = user_pw;

    if (!_CreateGstElements()) {
        LOG_ERR(kTag << " _CreateGstElements error!!! URL=" << m_strURL);
        return false;
    }
    if (!_StartWorker(kTag, [this] { _LoopPthread(); })) {
        _DestroyGstElements();
        return false;
    }
    return true;
}

void CHLSSource::_LoopPthread() {
    const OwnThread own(*this);
    LOG_INFO("HLS source pthread start...");
    _NameThread("CHLSSource");
    _SetStatusStarted();
    for (;;) {
        if (!_CreateGstElements()) {
            LOG_ERR(kTag << " _CreateGstElements error!!! URL=" << m_strURL);
            break;
        }
        if (_PipelinePlay()) {
            _SetStatusState("connected");
            _PollSession(kTag);
        } else {
            LOG_INFO(kTag << " _PipelinePlay faild!!! URL=" << m_strURL);
        }
        if (!m_bReconnect) {
            break;  // the pipeline is left for the close
        }
        _PrepareRebuild();
        LOG_INFO(kTag << " HLS source reconnect..." << m_strURL);
        _PipelineStop();
        _DestroyGstElements();
    }
    LOG_INFO("HLS source pthread exit");
}

bool CHLSSource::_PipelinePlay() {
    const bool playing = m_nPipelineState == GST_STATE_PLAYING;
    if (!_PlayPipeline(kTag)) {
        return false;
    }
    if (!playing) {
        PRINT_BY_STDIO("~~~~~~~_PipelinePlay %d\n", m_nPipelineState.load());
    }
    return true;
}

bool CHLSSource::_PipelineStop() {
    const StopResult result = _StopPipeline(kTag);
    if (result == StopResult::Stopped) {
        _RemoveManyElements(_ElementFields());
        m_strHlsMediaType.Clear();
        m_strVideoEncode.Clear();
        m_strAudioEncode.Clear();
        m_nPipelineState = GST_STATE_NULL;
    }
    return result != StopResult::NoPipeline;
}

void CHLSSource::_DestroyGstElements() {
    if (m_pPipeline != nullptr) {
        m_workarounds.BeforeStop();
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
        m_workarounds.AfterStop();
    }
    // Our references first: the pipeline releases its own with it.
    _RemoveManyElements(_ElementFields());
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CHLSSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    _JoinWorker();
    LOG_INFO(kTag << " m_nLoopPthread .join.. URL=" << m_strURL);
    _PipelineStop();
    LOG_INFO(kTag << " _PipelineStop .join.. URL=" << m_strURL);
    _DestroyGstElements();
    LOG_INFO(kTag << " _DestroyGstElements .join.. URL=" << m_strURL);
    _SetStatusStopped();
    return true;
}

// ---- Front of the pipeline --------------------------------------------------------------------------------------------------

bool CHLSSource::_CreateGstElements() {
    if (m_bElementsCreated) {
        return true;
    }
    if (IsFatalProxy(m_strProxy)) {
        LOG_ERR(kTag << " The proxy is not a URI!!! proxy=" << m_strProxy << ", url=" << m_strURL);
        return false;
    }
    const bool room = _CreatePipeline();
    m_pSoupSrc = MakeElement("souphttpsrc", "Souphttpsrc");
    if (m_pSoupSrc != nullptr) {
        g_object_set(m_pSoupSrc, "location", m_strURL.c_str(), nullptr);
        SetNumber(m_pSoupSrc, "timeout", m_nTimeout);
        g_object_set(m_pSoupSrc, "is-live", m_bIsLive ? TRUE : FALSE, nullptr);
        SetRetries(m_pSoupSrc, m_nRetries);
        _SetRequestOptions(m_pSoupSrc);
        SetText(m_pSoupSrc, "user-id", m_strUserId);
        SetText(m_pSoupSrc, "user-pw", m_strUserPw);
    }
    // hlsdemux opens descriptors when it is made, and GLib ends the process when there are none.
    m_pHlsDemux = room ? MakeElement("hlsdemux", "Hlsdemux") : ElementRef();
    if (m_pHlsDemux != nullptr) {
        SetNumber(m_pHlsDemux, "connection-speed", kFastestVariant);
        g_signal_connect(m_pHlsDemux, "pad-added", G_CALLBACK(hls_pad_added_handler), this);
    }
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pSoupSrc == nullptr || m_pHlsDemux == nullptr) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    AddMany(m_pPipeline, {m_pSoupSrc, m_pHlsDemux});
    if (!LinkMany({m_pSoupSrc, m_pHlsDemux})) {
        LOG_ERR(kTag << " Failed to link souphttpsrc and hlsdemux.!!! url=" << m_strURL);
        TakeOut(m_pPipeline, {m_pSoupSrc, m_pHlsDemux});
        _DestroyGstElements();
        return false;
    }
    _ListWorkarounds();
    m_workarounds.Attach(m_pPipeline);
    m_bElementsCreated = true;
    return true;
}

void CHLSSource::_SetRequestOptions(GstElement *source) const {
    SetText(source, "proxy", m_strProxy);
    if (!m_strProxy.empty() && !m_strProxyId.empty() && !m_strProxyPw.empty()) {
        g_object_set(source, "proxy-id", m_strProxyId.c_str(), "proxy-pw", m_strProxyPw.c_str(), nullptr);
    }
    SetText(source, "user-agent", m_strUserAgent);
}

void CHLSSource::_ListWorkarounds() {
    m_workarounds.Add(std::make_unique<EmptyPlaylist>(m_pSoupSrc));
    m_workarounds.Add(std::make_unique<UnsharedPlaylistSession>(m_pSoupSrc, m_strProxy));
    m_workarounds.Add(std::make_unique<BareSegmentSource>(
        [this](GstElement *source) {
            SetNumber(source, "timeout", m_nTimeout);
            SetRetries(source, m_nRetries);
            _SetRequestOptions(source);
        },
        Credentials{m_strURL, m_strUserId, m_strUserPw}));
    m_workarounds.Add(std::make_unique<SharedSegmentSession>());
    // BeforeStop runs in this order: no new segment request, wait for answers, pause the session.
    m_workarounds.Add(std::make_unique<LateSegmentRequest>());
    m_workarounds.Add(std::make_unique<UnansweredHttpRequests>());
    m_workarounds.Add(std::make_unique<HiddenPlaylistRequests>(m_pSoupSrc));
}

void CHLSSource::hls_pad_added_handler(GstElement * /*element*/, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CHLSSource *>(user_data);
    const PadCaps caps = self->_InspectPad(kTag, "hlsdeumx", " url=", pad);
    if (caps.structure == nullptr) {
        return;
    }
    const std::string name = gst_structure_get_name(caps.structure);
    if (name != kTransportStream) {
        LOG_ERR(kTag << " Unable support hlsdeumx current meida structure!!! url=" << self->GetURL());
        return;
    }
    if (!self->m_strHlsMediaType.Get().empty()) {
        LOG_WARN(kTag << " HLS media data src chanage so refused, noly support one!!!  new media src is " << name
                      << ", url=" << self->GetURL());
        return;
    }
    self->m_strHlsMediaType.Set(kTransportStream);
    self->_AddTsDemux(pad);
}

void CHLSSource::_AddTsDemux(GstPad *pad) {
    m_pTsDemux = _MakeTsDemux(m_nTsLatency, G_CALLBACK(pad_added_handler), this);
    AddMany(m_pPipeline, {m_pTsDemux});
    SyncState(m_pTsDemux);
    switch (LinkToSinkPad(pad, m_pTsDemux)) {
        case PadLink::Failed:
            LOG_ERR(kTag << " hlsdemux element src_pad link tsdemux sink_pad faild !!! url=" << GetURL());
            break;
        case PadLink::Done:
            LOG_INFO(kTag << " hlsdemux element src_pad link tsdemux sink_pad OK.... url=" << GetURL());
            break;
        case PadLink::TakenAlready:
            break;
    }
}

void CHLSSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CHLSSource *>(user_data);
    const PadCaps caps = self->_InspectPad(kTag, "tsdeumx", " url=", pad);
    if (caps.structure == nullptr) {
        return;
    }
    const PadMedia media = _ClassifyTsPad(caps.structure);
    if (media.kind == PadMedia::Kind::Video) {
        self->_CreateVideoStream(element, pad, media.encode);
    } else if (media.kind == PadMedia::Kind::Audio) {
        self->_CreateAudioStream(element, pad, media.encode);
    }
}

// ---- Branches ---------------------------------------------------------------------------------------------------------------

bool CHLSSource::_CreateVideoStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    if (!_TakesPad(kTag, Medium::Video, encode)) {
        return true;
    }
    const Chain chain = _MakeVideoBranch(kTag, encode);
    if (chain.empty()) {
        return false;
    }
    AddAndSync(m_pPipeline, chain);
    const PadLink link = LinkToSinkPad(pad, chain.front());
    if (link == PadLink::Failed) {
        LOG_ERR(kTag << " tsdemux src_pad link h26xqueue sink_pad  faild !!! url=" << GetURL());
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << " tsdemux src_pad link h26xqueue sink_pad  OK.... url=" << GetURL());
    }
    if (!LinkMany(chain)) {
        LOG_ERR(kTag << " Video element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    return true;
}

bool CHLSSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    if (!_TakesPad(kTag, Medium::Audio, encode)) {
        return true;
    }
    const Chain chain = _MakeAudioBranch(kTag, encode, Unparsed::Refused);
    if (chain.empty()) {
        return false;
    }
    AddAndSync(m_pPipeline, chain);
    const PadLink link = LinkToSinkPad(pad, m_pAudioQueue);
    if (link == PadLink::Failed) {
        LOG_ERR(kTag << " tsdemux src_pad link audioqueue sink_pad  faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << "[INFO] tsdemux src_pad link audioqueue sink_pad  ok !!!  url=" << GetURL());
    }
    if (!LinkMany(chain)) {
        LOG_ERR(kTag << " Audio element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    LOG_INFO(kTag << "Audio element link many ok !!!  url=" << GetURL());
    return true;
}

}  // namespace Tessaro
