#include "CRtspSource.h"

#include "CodecTables.h"
#include "framework/Caps.h"
#include "framework/Properties.h"
#include "Logger.h"
#include "workarounds/SleepingJitterBuffers.h"
#include "workarounds/StalledRtspRequest.h"
#include "workarounds/UnannouncedRtspEnd.h"

#include <memory>

namespace Tessaro {

using namespace GSTREAMER;

namespace {

constexpr char kTag[] = "[CRtspSource]";
constexpr gint kUdpBufferBytes = 2097152;
constexpr gint kSinkDebugLevel = 3;

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

std::vector<ElementRef *> CRtspSource::_ElementFields() {
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
    if (_IsAlreadyLive(kTag, url)) {
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
    if (!_StartWorker(kTag, [this] { _LoopPthread(); })) {
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
            if (_PollSession(kTag) == SessionEnd::Bus) {
                m_nPipelineState = 0;
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

bool CRtspSource::_PipelinePlay() {
    return _PlayPipeline(kTag);
}

bool CRtspSource::_PipelineStop() {
    const StopResult result = _StopPipeline(kTag);
    if (result == StopResult::Stopped) {
        _RemoveManyElements(_ElementFields());
        m_strVideoEncode.Clear();
        m_strAudioEncode.Clear();
        m_nPipelineState = GST_STATE_NULL;
    }
    return result != StopResult::NoPipeline;
}

void CRtspSource::_DestroyGstElements() {
    // Our references first: the pipeline releases its own with it.
    _RemoveManyElements(_ElementFields());
    _ReleasePipeline();
    m_bElementsCreated = false;
    m_nPipelineState = GST_STATE_NULL;
}

bool CRtspSource::CloseLiveStream() {
    LOG_INFO(kTag << " Close live stream ... URL=" << m_strURL);
    _JoinWorker();
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
    m_pRtspSrc = MakeElement("rtspsrc", "Rtspsrc");
    if (m_pRtspSrc != nullptr) {
        if (!m_strUserId.empty() && !m_strUserPw.empty()) {
            LOG_INFO(kTag << " Set user-id and user-pw. URL=" << m_strURL);
            g_object_set(m_pRtspSrc, "user-id", m_strUserId.c_str(), "user-pw", m_strUserPw.c_str(), nullptr);
        }
        LOG_INFO(kTag << " Rtsp latency=" << m_nLatency << ", url=" << m_strURL);
        g_object_set(m_pRtspSrc, "location", m_strURL.c_str(), nullptr);
        SetNumber(m_pRtspSrc, "protocols", static_cast<gint64>(m_nProtocols));
        SetNumber(m_pRtspSrc, "latency", m_nLatency);
        g_object_set(m_pRtspSrc, "tcp-timeout", m_nTcpTimeout, "udp-buffer-size", kUdpBufferBytes, nullptr);
        g_signal_connect(m_pRtspSrc, "pad-added", G_CALLBACK(pad_added_handler), this);
    }
    // rtspsrc has no link that would fail, so the result of AddMany is checked.
    if (m_pPipeline == nullptr || m_pBus == nullptr || m_pRtspSrc == nullptr || !AddMany(m_pPipeline, {m_pRtspSrc})) {
        LOG_ERR(kTag << " Not all elements could be created!!! url=" << m_strURL);
        _DestroyGstElements();
        return false;
    }
    m_workarounds.Add(std::make_unique<StalledRtspRequest>(m_pRtspSrc));
    m_workarounds.Add(std::make_unique<SleepingJitterBuffers>());
    m_workarounds.Add(std::make_unique<UnannouncedRtspEnd>(m_pRtspSrc, m_nLatency, [this] { return _LastReport(); }));
    m_workarounds.Attach(m_pPipeline);
    m_bElementsCreated = true;
    return true;
}

ElementRef CRtspSource::_MakeSink(const char *name) {
    ElementRef sink = MakeElement("shbsink", name);
    if (sink != nullptr) {
        g_object_set(sink, "share-buffer", m_pShareBuffer, "channel", m_nChannel, "stream", m_nStream, "sync", FALSE, "async",
                     FALSE, "debug", kSinkDebugLevel, nullptr);
    }
    return sink;
}

void CRtspSource::pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data) {
    if (user_data == nullptr || pad == nullptr || gst_pad_get_direction(pad) != GST_PAD_SRC) {
        return;
    }
    auto *self = static_cast<CRtspSource *>(user_data);
    const PadCaps caps = self->_InspectPad(kTag, "rtspsrc", "url=", pad);
    if (caps.structure == nullptr) {
        return;
    }
    // Only RTP pads get a branch; other media beside audio and video (metadata,
    // back channels) are left alone without a word.
    if (gst_structure_has_name(caps.structure, "application/x-rtp") == FALSE) {
        return;
    }
    // Each stream's pad comes on a thread of its own. The streams of one medium must see each other's branch.
    const std::lock_guard<std::mutex> lock(self->m_mtxPads);
    const char *media = TextField(caps.structure, "media");
    const char *encode = TextField(caps.structure, "encoding-name");
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
    if (!_TakesPad(kTag, Medium::Video, encode)) {
        return true;
    }
    m_pVideoQueue = _MakeBranchQueue("vqueue");
    m_pVideoSink = _MakeSink("h26xshbsink");
    _ConnectVideoSink(m_pVideoSink);
    if (const VideoCodec *codec = FindVideoCodec(encode); codec != nullptr) {
        m_pVideoDepay = MakeElement(codec->depayloader, codec->depayloaderName);
        m_pVideoParse = MakeVideoParser(codec->parser, codec->parserName);
        m_pVideoCapsFilter = MakeCapsFilter(codec->filterName, codec->caps);
        _SetSinkMedia(m_pVideoSink, codec->media);
    }
    // Recorded before the check: a failed branch counts as this run's video.
    m_strVideoEncode.Set(encode);
    const Chain chain{m_pVideoDepay, m_pVideoQueue, m_pVideoParse, m_pVideoCapsFilter, m_pVideoSink};
    if (!IsComplete(chain)) {
        LOG_ERR(kTag << " Make h26x element faild by name!!! url=" << GetURL());
        _RemoveManyElements({&m_pVideoDepay, &m_pVideoParse, &m_pVideoCapsFilter, &m_pVideoQueue, &m_pVideoSink});
        return false;
    }

    AddAndSync(m_pPipeline, chain);
    const PadLink link = LinkToSinkPad(pad, chain.front());
    if (link == PadLink::Failed) {
        LOG_ERR(kTag << " rtspsrc src_pad link rtph26xdeplay sink_pad faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << " rtspsrc src_pad link rtph26xdeplay sink_pad OK....url=" << GetURL());
    }
    if (!LinkMany(chain)) {
        LOG_ERR(kTag << " Video element link many faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    return true;
}

bool CRtspSource::_CreateAudioStream(GstElement * /*demux*/, GstPad *pad, const char *encode) {
    if (!_TakesPad(kTag, Medium::Audio, encode)) {
        return true;
    }
    m_pAudioQueue = _MakeBranchQueue("aqueue");
    m_pAudioSink = _MakeSink("audioshbsink");
    _ConnectAudioSink(m_pAudioSink);
    const std::string depayloader = Lookup(g_mapDepayElements, encode);
    if (depayloader.empty()) {
        LOG_ERR(kTag << " ~~~~~Not found audio parse element by name!!!aencode=" << encode << ", url=" << GetURL());
        _RemoveManyElements({&m_pAudioQueue, &m_pAudioSink});
        return false;
    }
    const std::string parser = Lookup(g_mapAudioParseElements, encode);
    LOG_INFO(kTag << "~~~~~Found audio parse element by name!!!" << depayloader << "->" << parser);
    m_strAudioEncode.Set(encode);
    _SetSinkMedia(m_pAudioSink, Lookup(g_mapAudioMediaTypes, encode));
    m_pAudioDepay = TryMakeElement(depayloader.c_str(), "adepay");
    if (m_pAudioDepay == nullptr) {
        LOG_ERR(kTag << " Make rtpaudiodeplay element faild by name!!! " << depayloader << ", url=" << GetURL());
        _RemoveManyElements({&m_pAudioQueue, &m_pAudioSink});
        return false;
    }
    const bool parsed = parser != "none";
    if (parsed) {
        m_pAudioParse = TryMakeElement(parser.c_str(), "apaser");
        if (m_pAudioParse == nullptr) {
            LOG_ERR(kTag << " Make audio depay element faild by name!!! aparse=" << parser << ", url=" << GetURL());
            _RemoveManyElements({&m_pAudioQueue, &m_pAudioSink, &m_pAudioDepay});
            return false;
        }
        if (IsAac(encode)) {
            m_pAudioCapsFilter = MakeCapsFilter("aaccapsfilter", kAdtsCaps);
        }
    }

    const Chain chain = _ChainOf({m_pAudioDepay, m_pAudioQueue}, {m_pAudioParse, m_pAudioCapsFilter}, m_pAudioSink);
    AddMany(m_pPipeline, chain);
    for (GstElement *element : chain) {
        const bool started = SyncState(element);
        if (started && element == m_pAudioParse) {
            LOG_INFO(kTag << " audioparse sync state with parent OK. url=" << GetURL());
        } else if (started && element == m_pAudioSink) {
            LOG_INFO(kTag << " audioshbsink sync state with parent OK");
        }
    }
    const PadLink link = LinkToSinkPad(pad, m_pAudioDepay);
    if (link == PadLink::Failed) {
        LOG_ERR(kTag << " rtsp src_pad link rtpaudiodeplay sink_pad faild !!! url=" << GetURL());
        m_nPipelineState = 0;
        return false;
    }
    if (link == PadLink::Done) {
        LOG_INFO(kTag << " rtsp src_pad link rtpaudiodeplay sink_pad ok !!! url=" << GetURL());
    }
    if (!LinkMany(chain)) {
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
