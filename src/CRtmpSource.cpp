#include "CRtmpSource.h"

#include "framework/Properties.h"
#include "Logger.h"
#include "workarounds/AbandonedRtmpAttempt.h"
#include "workarounds/BlockingRtmpsConnect.h"
#include "workarounds/BrokenRtmpsPipe.h"
#include "workarounds/UnsafeRtmpsStop.h"

#include <memory>

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CRtmpSource]";
constexpr char kRtmpsScheme[] = "rtmps";

}  // namespace

CRtmpSource *CRtmpSource::CreateNew(void *share_buffer, int channel, int stream) {
    return new CRtmpSource(share_buffer, channel, stream);
}

void CRtmpSource::DestroyHandle(CRtmpSource *source) {
    delete source;
}

CRtmpSource::CRtmpSource(void *share_buffer, int channel, int stream) : CBaseSource(share_buffer, channel, stream) {}

CRtmpSource::~CRtmpSource() {
    CRtmpSource::CloseLiveStream();
}

std::vector<ElementRef *> CRtmpSource::_ElementFields() {
    return {&m_pRtmpSrc,    &m_pFlvDemux,        &m_pVideoQueue,      &m_pAudioQueue, &m_pVideoParse,
            &m_pAudioParse, &m_pVideoCapsFilter, &m_pAudioCapsFilter, &m_pVideoSink,  &m_pAudioSink};
}

// ---- Open, worker, close ----------------------------------------------------------------------------------------------------

bool CRtmpSource::OpenLiveStream(const char *url, unsigned int caching, unsigned int contimeout, unsigned int idle_timeout,
                                 const char *user, const char *pwd, const char *token) {
    if (m_pShareBuffer == nullptr || url == nullptr) {
        LOG_ERR(kTag << " Share buffer not init or location is invaild!");
        return false;
    }
    if (_IsAlreadyLive(kTag, url)) {
        return false;
    }
    LOG_INFO(kTag << " Open " << url << "... {Opts:caching=" << caching << ",contimeout=" << contimeout
                  << ",idle_timeout=" << idle_timeout << ",user=" << user << ",pwd=" << pwd << ",token=" << token << "}");
    m_strURL = url;
    m_nCaching = caching;
    m_nConTimeout = contimeout;
    m_nIdleTimeout = idle_timeout;
    m_strUser = user;
    m_strPwd = pwd;
    m_strToken = token;
    _RewriteRtmpsLocation();

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

void CRtmpSource::_RewriteRtmpsLocation() {
    const std::size_t scheme_length = sizeof kRtmpsScheme - 1;
    m_bRtmps = m_strURL.size() > scheme_length && m_strURL.compare(0, scheme_length, kRtmpsScheme) == 0;
    if (!m_bRtmps) {
        return;
    }
    m_strURL += " live=1";
    if (!m_strUser.empty() && !m_strPwd.empty()) {
        // Without "://" the position wraps to 2, where the credentials then go.
        m_strURL.insert(m_strURL.find("://") + 3, m_strUser + ":" + m_strPwd + "@");
        LOG_INFO(kTag << " Modified RTMPS address... url=" << m_strURL);
    }
}

void CRtmpSource::_LoopPthread() {
    const OwnThread own(*this);
    LOG_INFO("Rtmp source pthread start...");
    _NameThread("CRtmpSource");
    _SetStatusStarted();
    for (;;) {
        if (!_CreateGstElements()) {
            LOG_INFO("Rtmp source _CreateGstElements error.");
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
        LOG_INFO(kTag << " RTMP source reconnect..." << m_strURL);
        _PipelineStop();
        _DestroyGstElements();
    }
    LOG_INFO("Rtmp source pthread exit");
}

bool CRtmpSource::_PipelinePlay() {
    return _PlayPipeline(kTag);
}

bool CRtmpSource::_PipelineStop() {
    const StopResult result = _StopPipeline(kTag);
    if (result == StopResult::Stopped) {
        _RemoveManyElements(_ElementFields());
        m_strVideoEncode.Clear();
        m_strAudioEncode.Clear();
        m_nPipelineState = GST_STATE_NULL;
    }
    return result != StopResult::NoPipeline;
}

void CRtmpSource::_DestroyGstElements() {
    // Our references first: the pipeline releases its own with it.
    _RemoveManyElements(_ElementFields());
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CRtmpSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    _JoinWorker();
    _PipelineStop();
    _DestroyGstElements();
    _SetStatusStopped();
    return true;
}

// ---- Front of the pipeline --------------------------------------------------------------------------------------------------

bool CRtmpSource::_CreateGstElements() {
    if (m_bElementsCreated) {
        return true;
    }
    _CreatePipeline();
    std::string thread_name;
    if (m_bRtmps) {
        m_pRtmpSrc = MakeElement("rtmpsrc", "Rtmpsrc");
    } else {
        m_pRtmpSrc = AbandonedRtmpAttempt::Make("rtmp2src", "Rtmp2src", thread_name);
    }
    if (m_pRtmpSrc != nullptr) {
        _SetSourceOptions();
    }
    m_pFlvDemux = MakeElement("flvdemux", "Flvdemux");
    if (m_pFlvDemux != nullptr) {
        g_signal_connect(m_pFlvDemux, "pad-added", G_CALLBACK(pad_added_handler), this);
    }
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pRtmpSrc == nullptr || m_pFlvDemux == nullptr) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    AddMany(m_pPipeline, {m_pRtmpSrc, m_pFlvDemux});
    if (!LinkMany({m_pRtmpSrc, m_pFlvDemux})) {
        LOG_ERR(kTag << " Failed to link rtmpsrc and flvdemux.!!! url=" << m_strURL);
        TakeOut(m_pPipeline, {m_pRtmpSrc, m_pFlvDemux});
        _DestroyGstElements();
        return false;
    }
    if (m_bRtmps) {
        m_workarounds.Add(std::make_unique<BlockingRtmpsConnect>([this] { return m_bExit.load(); }));
        m_workarounds.Add(std::make_unique<BrokenRtmpsPipe>(m_pRtmpSrc));
        m_workarounds.Add(std::make_unique<UnsafeRtmpsStop>(m_pRtmpSrc));
    } else {
        m_workarounds.Add(std::make_unique<AbandonedRtmpAttempt>(m_pRtmpSrc, thread_name, [this] {
            LOG_WARN(kTag << " A connection attempt does not end, its socket stays open!!! URL=" << m_strURL);
        }));
    }
    m_workarounds.Attach(m_pPipeline);
    m_bElementsCreated = true;
    return true;
}

void CRtmpSource::_SetSourceOptions() {
    // The location first: setting it wipes the credentials of rtmp2src.
    g_object_set(m_pRtmpSrc, "location", m_strURL.c_str(), nullptr);
    if (!m_bRtmps && !m_strUser.empty() && !m_strPwd.empty()) {
        LOG_INFO(kTag << " RTMPS set username adn passwd... url=" << m_strURL);
        g_object_set(m_pRtmpSrc, "username", m_strUser.c_str(), "password", m_strPwd.c_str(), nullptr);
    }
    if (!m_bRtmps) {
        SetText(m_pRtmpSrc, "secure-token", m_strToken);
    }
    SetNumber(m_pRtmpSrc, "timeout", m_nConTimeout);
    if (!m_bRtmps) {
        SetNumber(m_pRtmpSrc, "idle-timeout", m_nIdleTimeout);
    }
}

CBaseSource::PadMedia CRtmpSource::_ClassifyFlvPad(const GstStructure *structure) {
    const std::string name = gst_structure_get_name(structure);
    if (name == "video/x-h264") {
        return {PadMedia::Kind::Video, "H264"};
    }
    if (name == "audio/mpeg") {
        return {PadMedia::Kind::Audio, _MpegAudioEncode(structure)};
    }
    if (name == "audio/x-mulaw") {
        return {PadMedia::Kind::Audio, "PCMU"};
    }
    if (name == "audio/x-alaw") {
        return {PadMedia::Kind::Audio, "PCMA"};
    }
    PRINT_BY_GLIB("flvdeumx unsupport current media: %s\n", name.c_str());
    return {PadMedia::Kind::None, nullptr};
}

void CRtmpSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CRtmpSource *>(user_data);
    const PadCaps caps = self->_InspectPad(kTag, "flvdemux", " url=", pad);
    if (caps.structure == nullptr) {
        return;
    }
    const PadMedia media = _ClassifyFlvPad(caps.structure);
    if (media.kind == PadMedia::Kind::Video) {
        self->_CreateVideoStream(element, pad, media.encode);
    } else if (media.kind == PadMedia::Kind::Audio) {
        self->_CreateAudioStream(element, pad, media.encode);
    }
}

// ---- Branches ---------------------------------------------------------------------------------------------------------------

bool CRtmpSource::_CreateVideoStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
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
        LOG_ERR(kTag << " flvdemux src_pad link h26xparse sink_pad  faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << " flvdemux src_pad link h26xparse sink_pad  OK.... url=" << GetURL());
    }
    if (!LinkMany(chain)) {
        LOG_ERR(kTag << " Video element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    return true;
}

bool CRtmpSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    if (!_TakesPad(kTag, Medium::Audio, encode)) {
        return true;
    }
    const Chain chain = _MakeAudioBranch(kTag, encode, Unparsed::Taken);
    if (chain.empty()) {
        return false;
    }
    AddMany(m_pPipeline, chain);
    for (GstElement *element : chain) {
        if (SyncState(element) && element == m_pAudioParse) {
            // Some of this branch's messages carry the RTSP tag; hosts match on them.
            LOG_INFO("[CRtspSource] audioparse sync state with parent OK. url=" << GetURL());
        }
    }
    const PadLink link = LinkToSinkPad(pad, m_pAudioQueue);
    if (link == PadLink::Failed) {
        LOG_ERR(kTag << " flvdemux src_pad link audioparse sink_pad  faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << "[INFO] flvdemux src_pad link audioparse sink_pad  ok !!!  url=" << GetURL());
    }
    if (!LinkMany(chain)) {
        LOG_ERR("[CRtspSource] Audio element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (m_pAudioParse != nullptr) {
        LOG_INFO("[CRtspSource] Audio element link many ok !!! url=" << GetURL());
    } else {
        LOG_INFO(kTag << "Audio element link many ok !!!  url=" << GetURL());
    }
    return true;
}

}  // namespace Tessaro
