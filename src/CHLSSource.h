// HLS with transport-stream segments: souphttpsrc -> hlsdemux -> tsdemux
// (added when hlsdemux exposes its pad) -> branches.
#pragma once

#include "CBaseSource.h"

#include <vector>

namespace Tessaro {

class CHLSSource : public CBaseSource {
  public:
    static CHLSSource *CreateNew(void *share_buffer, int channel, int stream);
    static void DestroyHandle(CHLSSource *source);
    CHLSSource(void *share_buffer, int channel, int stream);
    ~CHLSSource() override;

    // Host thread. True when the front of the pipeline was built and the worker started.
    bool OpenLiveStream(const char *url, unsigned int caching, bool islive, unsigned int timeout, int retries,
                        const char *proxy, const char *proxy_id, const char *proxy_pwd, const char *user_agent,
                        const char *user_id, const char *user_pw);
    bool CloseLiveStream() override;

  private:
    friend struct SourceProbe;

    bool _CreateGstElements();   // host (first build), worker (rebuilds)
    void _DestroyGstElements();  // host while there is no worker, worker
    bool _PipelinePlay();        // worker
    bool _PipelineStop();        // as _DestroyGstElements
    void _LoopPthread();         // body of the worker
    // Sets what every server gets: proxy and user agent, where the host gave them.
    void _SetRequestOptions(GstElement *source) const;
    void _ListWorkarounds();  // as _CreateGstElements
    // First stage: accepts one transport-stream pad of hlsdemux in a pipeline run. Streaming.
    static void hls_pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);
    void _AddTsDemux(GstPad *pad);  // streaming
    // Second stage: pads of the transport-stream demultiplexer.
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);  // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    std::vector<GSTREAMER::ElementRef *> _ElementFields();                                // in the order of release

    // Media type of the accepted pad of hlsdemux, empty while none.
    // Written by the first stage, cleared by the stop.
    GuardedText m_strHlsMediaType;
    // Written where the pipeline is built, the transport-stream demultiplexer on the streaming thread.
    GSTREAMER::ElementRef m_pSoupSrc;
    GSTREAMER::ElementRef m_pHlsDemux;
    GSTREAMER::ElementRef m_pTsDemux;
    // Options, written by open before the worker exists.
    std::string m_strUserAgent;
    std::string m_strUserId;
    std::string m_strUserPw;
    std::string m_strProxy;  // URI
    std::string m_strProxyId;
    std::string m_strProxyPw;
    gint32 m_nRetries = 3;
    bool m_bIsLive = false;
    guint32 m_nTimeout = 15;    // s
    guint32 m_nTsLatency = 50;  // ms
};

}  // namespace Tessaro
