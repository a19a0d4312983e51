// RTSP: rtspsrc, which exposes one RTP pad for each medium -> branches that begin with a depayloader.
#pragma once

#include "CBaseSource.h"

#include <mutex>
#include <vector>

namespace Tessaro {

class CRtspSource : public CBaseSource {
  public:
    static CRtspSource *CreateNew(void *share_buffer, int channel, int stream);
    static void DestroyHandle(CRtspSource *source);
    CRtspSource(void *share_buffer, int channel, int stream);
    ~CRtspSource() override;

    // Host thread. True when the front of the pipeline was built and the worker started.
    bool OpenLiveStream(const char *url, unsigned int caching, unsigned long protocols, unsigned int latency,
                        unsigned int contimeout, const char *user, const char *pwd);
    bool CloseLiveStream() override;

  private:
    friend struct SourceProbe;

    bool _CreateGstElements();   // host (first build), worker (rebuilds)
    void _DestroyGstElements();  // host while there is no worker, worker
    bool _PipelinePlay();        // worker
    bool _PipelineStop();        // as _DestroyGstElements
    void _LoopPthread();         // body of the worker
    // This class's sinks run unsynchronised and with their diagnostics on; the
    // media kind follows with the encoding. Streaming.
    GSTREAMER::ElementRef _MakeSink(const char *name);
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);  // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    std::vector<GSTREAMER::ElementRef *> _ElementFields();                                // in the order of release

    std::mutex m_mtxPads;  // one pad at a time; streaming threads
    // The source is written where the pipeline is built, the depayloaders on the streaming thread.
    GSTREAMER::ElementRef m_pRtspSrc;
    GSTREAMER::ElementRef m_pVideoDepay;
    GSTREAMER::ElementRef m_pAudioDepay;
    // Options, written by open before the worker exists.
    std::string m_strUserId;
    std::string m_strUserPw;
    guint64 m_nProtocols = 4;          // GstRTSPLowerTrans bit mask; 4 is interleaved TCP
    guint32 m_nLatency = 2000;         // ms
    guint64 m_nTcpTimeout = 15000000;  // us
};

}  // namespace Tessaro
