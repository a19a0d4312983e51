#include "CSrtSource.h"

#include "framework/Properties.h"
#include "Logger.h"
#include "workarounds/HammeringSrtCaller.h"
#include "workarounds/LostSrtStop.h"
#include "workarounds/MixedUnwinders.h"

#include <memory>

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CSrtSource]";

// Values of srtsrc's "mode".
constexpr gint kModeCaller = 1;
constexpr gint kModeListener = 2;
constexpr gint kModeRendezvous = 3;

// Three spellings each; everything else is a caller.
gint ConnectionMode(const std::string &mode) {
    if (mode == "listener" || mode == "LISTENER" || mode == "Listener") {
        return kModeListener;
    }
    if (mode == "rendezvous" || mode == "RENDEZVOUS" || mode == "Rendezvous") {
        return kModeRendezvous;
    }
    return kModeCaller;
}

}  // namespace

CSrtSource *CSrtSource::CreateNew(void *share_buffer, int channel, int stream) {
    return new CSrtSource(share_buffer, channel, stream);
}

void CSrtSource::DestroyHandle(CSrtSource *source) {
    delete source;
}

CSrtSource::CSrtSource(void *share_buffer, int channel, int stream) : CBaseSource(share_buffer, channel, stream) {}

CSrtSource::~CSrtSource() {
    CSrtSource::CloseLiveStream();
}

std::vector<ElementRef *> CSrtSource::_ElementFields() {
    return {&m_pSrtSrc,     &m_pTsDemux,         &m_pVideoQueue,      &m_pAudioQueue, &m_pVideoParse,
            &m_pAudioParse, &m_pVideoCapsFilter, &m_pAudioCapsFilter, &m_pVideoSink,  &m_pAudioSink};
}

// ---- Open, worker, close ----------------------------------------------------------------------------------------------------

bool CSrtSource::OpenLiveStream(const char *url, unsigned int caching, const char *mode, const char *streamid,
                                const char *passphrase, unsigned int keylen, unsigned int latency, unsigned int tslatency,
                                const char *localaddress) {
    if (m_pShareBuffer == nullptr || url == nullptr) {
        LOG_ERR(kTag << " Share buffer not init or location is invaild!");
        return false;
    }
    if (_IsAlreadyLive(kTag, url)) {
        return false;
    }
    LOG_INFO(kTag << " Open " << url << "... {Opts:caching=" << caching << ",mode=" << mode << ",streamid=" << streamid
                  << ",passphrase=" << passphrase << ",keylen=" << keylen << ",latency=" << latency
                  << ",tslatency=" << tslatency << ",localaddress=" << localaddress << "}");
    m_strURL = url;
    m_nCaching = caching;
    m_nLatency = latency;
    m_strStreamId = streamid;
    m_strPassphrase = passphrase;
    m_strMode = mode;
    m_nKeyLen = keylen;
    m_strLocalAddress = localaddress;
    // tslatency is only logged: the demultiplexer keeps its 50 ms.

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

void CSrtSource::_LoopPthread() {
    const OwnThread own(*this);
    LOG_INFO("Srt source pthread start...version=1.0");
    _NameThread("CSrtSource");
    _SetStatusStarted();
    for (;;) {
        if (!_CreateGstElements()) {
            LOG_ERR(kTag << " _CreateGstElements error!!! URL=" << m_strURL);
            break;
        }
        if (_PipelinePlay()) {
            // A caller reaches PLAYING without a peer. The first bit-rate report sets "connected".
            _SetStatusState("reconnect");
            _PollSession(kTag);
        } else {
            LOG_INFO(kTag << " _PipelinePlay faild!!! URL=" << m_strURL);
        }
        if (!m_bReconnect) {
            break;  // the pipeline is left for the close
        }
        _PrepareRebuild();
        LOG_INFO(kTag << " Srt source reconnect..." << m_strURL);
        _PipelineStop();
        _DestroyGstElements();
    }
    LOG_INFO("Srt source pthread exit");
}

bool CSrtSource::_PipelinePlay() {
    return _PlayPipeline(kTag);
}

bool CSrtSource::_PipelineStop() {
    const StopResult result = _StopPipeline(kTag);
    if (result == StopResult::Stopped) {
        _RemoveManyElements(_ElementFields());
        m_strVideoEncode.Clear();
        m_strAudioEncode.Clear();
        m_nPipelineState = GST_STATE_NULL;
    }
    return result != StopResult::NoPipeline;
}

void CSrtSource::_DestroyGstElements() {
    // Our references first: the pipeline releases its own with it.
    _RemoveManyElements(_ElementFields());
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CSrtSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    _JoinWorker();
    _PipelineStop();
    _DestroyGstElements();
    _SetStatusStopped();
    return true;
}

// ---- Front of the pipeline --------------------------------------------------------------------------------------------------

bool CSrtSource::_CreateGstElements() {
    PRINT_BY_GLIB(" Srt debug version 1.00\n");
    if (m_bElementsCreated) {
        return true;
    }
    UseOneUnwinder();
    _CreatePipeline();
    m_pSrtSrc = MakeElement("srtsrc", "Srtsrc");
    if (m_pSrtSrc != nullptr) {
        g_object_set(m_pSrtSrc, "uri", m_strURL.c_str(), nullptr);
        SetNumber(m_pSrtSrc, "latency", m_nLatency);
        g_object_set(m_pSrtSrc, "mode", ConnectionMode(m_strMode), nullptr);
        if (!m_strPassphrase.empty() && m_nKeyLen != 0) {
            SetNumber(m_pSrtSrc, "pbkeylen", m_nKeyLen);
            g_object_set(m_pSrtSrc, "passphrase", m_strPassphrase.c_str(), nullptr);
        }
        if (!m_strStreamId.empty()) {
            g_object_set(m_pSrtSrc, "authentication", TRUE, "streamid", m_strStreamId.c_str(), nullptr);
            g_signal_connect(m_pSrtSrc, "caller-connecting", G_CALLBACK(caller_connecting_handler), this);
        }
        SetText(m_pSrtSrc, "localaddress", m_strLocalAddress);
    }
    m_pTsDemux = _MakeTsDemux(m_nTsLatency, G_CALLBACK(pad_added_handler), this);
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pSrtSrc == nullptr || m_pTsDemux == nullptr) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    AddMany(m_pPipeline, {m_pSrtSrc, m_pTsDemux});
    if (!LinkMany({m_pSrtSrc, m_pTsDemux})) {
        LOG_ERR(kTag << " Failed to link srtsrc and tsdemux.!!! url=" << m_strURL);
        TakeOut(m_pPipeline, {m_pSrtSrc, m_pTsDemux});
        _DestroyGstElements();
        return false;
    }
    m_workarounds.Add(std::make_unique<LostSrtStop>(m_pSrtSrc));
    m_workarounds.Add(std::make_unique<HammeringSrtCaller>(m_pSrtSrc));
    m_workarounds.Attach(m_pPipeline);
    m_bElementsCreated = true;
    return true;
}

gboolean CSrtSource::caller_connecting_handler(GstElement *element, GSocketAddress *address, char *stream_id,
                                               gpointer user_data) {
    const auto *self = static_cast<CSrtSource *>(user_data);
    if (element == nullptr || address == nullptr || self == nullptr) {
        LOG_ERR("[CSrtSource] Srt caller connecting...But args invalid. url=" << (self != nullptr ? self->GetURL()
                                                                                                  : std::string()));
        return FALSE;
    }
    // A caller without an id presents an empty one.
    const bool admitted = self->m_strStreamId.empty() || self->m_strStreamId == (stream_id != nullptr ? stream_id : "");
    return admitted ? TRUE : FALSE;
}

void CSrtSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CSrtSource *>(user_data);
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

bool CSrtSource::_CreateVideoStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
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
        m_nPipelineState = 0;
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

bool CSrtSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
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
