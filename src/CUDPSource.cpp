#include "CUDPSource.h"

#include "framework/Properties.h"
#include "Logger.h"

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CUDPSource]";
constexpr gint kReceiveBufferBytes = 1572864;

}  // namespace

CUDPSource *CUDPSource::CreateNew(void *share_buffer, int channel, int stream) {
    return new CUDPSource(share_buffer, channel, stream);
}

void CUDPSource::DestroyHandle(CUDPSource *source) {
    delete source;
}

CUDPSource::CUDPSource(void *share_buffer, int channel, int stream) : CBaseSource(share_buffer, channel, stream) {}

CUDPSource::~CUDPSource() {
    CUDPSource::CloseLiveStream();
}

std::vector<ElementRef *> CUDPSource::_ElementFields() {
    return {&m_pUdpSrc,     &m_pTsDemux,         &m_pVideoQueue,      &m_pAudioQueue, &m_pVideoParse,
            &m_pAudioParse, &m_pVideoCapsFilter, &m_pAudioCapsFilter, &m_pVideoSink,  &m_pAudioSink};
}

// ---- Open, worker, close ----------------------------------------------------------------------------------------------------

bool CUDPSource::OpenLiveStream(const char *url, unsigned int caching, unsigned int ts_latency, unsigned int mtu) {
    if (m_pShareBuffer == nullptr || url == nullptr) {
        LOG_ERR(kTag << " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=" << m_strURL);
        return false;
    }
    if (_IsAlreadyLive(kTag, url)) {
        return false;
    }
    LOG_INFO(kTag << " Open " << url << "... {Opts:caching=" << caching << ",ts_latency=" << ts_latency << ",mtu=" << mtu
                  << "}");
    m_strURL = url;
    m_nCaching = caching;
    m_nMtu = mtu;
    m_nTsLatency = ts_latency;

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

void CUDPSource::_LoopPthread() {
    const OwnThread own(*this);
    LOG_INFO("UDP source pthread start...");
    _NameThread("CUDPSource");
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
        LOG_INFO(kTag << " UDP source reconnect..." << m_strURL);
        _PipelineStop();
        _DestroyGstElements();
    }
    LOG_INFO("UDP source pthread exit");
}

bool CUDPSource::_PipelinePlay() {
    return _PlayPipeline(kTag);
}

bool CUDPSource::_PipelineStop() {
    const StopResult result = _StopPipeline(kTag);
    if (result == StopResult::Stopped) {
        _RemoveManyElements(_ElementFields());
        m_strVideoEncode.Clear();
        m_strAudioEncode.Clear();
        m_nPipelineState = GST_STATE_NULL;
    }
    return result != StopResult::NoPipeline;
}

void CUDPSource::_DestroyGstElements() {
    if (m_pPipeline != nullptr) {
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
    }
    // Our references first: the pipeline releases its own with it.
    _RemoveManyElements(_ElementFields());
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CUDPSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    _JoinWorker();
    _PipelineStop();
    _DestroyGstElements();
    _SetStatusStopped();
    return true;
}

// ---- Front of the pipeline --------------------------------------------------------------------------------------------------

bool CUDPSource::_CreateGstElements() {
    if (m_bElementsCreated) {
        return true;
    }
    _CreatePipeline();
    m_pUdpSrc = MakeElement("udpsrc", "Udpsrc");
    if (m_pUdpSrc != nullptr) {
        g_object_set(m_pUdpSrc, "uri", m_strURL.c_str(), "timeout", m_nTimeout, "buffer-size", kReceiveBufferBytes, nullptr);
        SetNumber(m_pUdpSrc, "mtu", m_nMtu);
    }
    m_pTsDemux = _MakeTsDemux(m_nTsLatency, G_CALLBACK(pad_added_handler), this);
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pUdpSrc == nullptr || m_pTsDemux == nullptr) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    AddMany(m_pPipeline, {m_pUdpSrc, m_pTsDemux});
    if (!LinkMany({m_pUdpSrc, m_pTsDemux})) {
        LOG_ERR(kTag << " Failed to link udpsrc and tsdemux.!!! url=" << m_strURL);
        TakeOut(m_pPipeline, {m_pUdpSrc, m_pTsDemux});
        _DestroyGstElements();
        return false;
    }
    m_bElementsCreated = true;
    return true;
}

void CUDPSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CUDPSource *>(user_data);
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

bool CUDPSource::_CreateVideoStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
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

bool CUDPSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
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
        // This class takes the branch out again. The caps filter stays in, and the fields
        // go on naming the elements until the next stop.
        TakeOut(m_pPipeline, {m_pAudioQueue, m_pAudioParse, m_pAudioSink});
        return false;
    }
    LOG_INFO(kTag << "Audio element link many ok !!!  url=" << GetURL());
    return true;
}

}  // namespace Tessaro
