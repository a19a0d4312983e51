// MPEG transport stream over SRT, as caller, listener or rendezvous: srtsrc -> tsdemux -> branches.
#pragma once

#include "CBaseSource.h"

#include <gio/gio.h>

#include <vector>

namespace Tessaro {

class CSrtSource : public CBaseSource {
  public:
    static CSrtSource *CreateNew(void *share_buffer, int channel, int stream);
    static void DestroyHandle(CSrtSource *source);
    CSrtSource(void *share_buffer, int channel, int stream);
    ~CSrtSource() override;

    // Host thread. True when the front of the pipeline was built and the worker started.
    bool OpenLiveStream(const char *url, unsigned int caching, const char *mode, const char *streamid, const char *passphrase,
                        unsigned int keylen, unsigned int latency, unsigned int tslatency, const char *localaddress);
    bool CloseLiveStream() override;

  private:
    friend struct SourceProbe;

    bool _CreateGstElements();   // host (first build), worker (rebuilds)
    void _DestroyGstElements();  // host while there is no worker, worker
    bool _PipelinePlay();        // worker
    bool _PipelineStop();        // as _DestroyGstElements
    void _LoopPthread();         // body of the worker
    // Admits a caller of a listener: TRUE or FALSE. Streaming (the source element's thread).
    static gboolean caller_connecting_handler(GstElement *element, GSocketAddress *address, char *stream_id,
                                              gpointer user_data);
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);  // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    std::vector<GSTREAMER::ElementRef *> _ElementFields();                                // in the order of release

    // Written where the pipeline is built.
    GSTREAMER::ElementRef m_pSrtSrc;
    GSTREAMER::ElementRef m_pTsDemux;
    // Options, written by open before the worker exists.
    std::string m_strStreamId;  // non-empty switches authentication on
    std::string m_strPassphrase;
    std::string m_strMode = "caller";
    std::string m_strLocalAddress;
    guint32 m_nLatency = 125;   // ms
    guint32 m_nKeyLen = 0;      // bytes
    guint32 m_nTsLatency = 50;  // ms
};

}  // namespace Tessaro
