// MPEG transport stream over UDP: udpsrc -> tsdemux -> branches.
#pragma once

#include "CBaseSource.h"

#include <vector>

namespace Tessaro {

class CUDPSource : public CBaseSource {
  public:
    static CUDPSource *CreateNew(void *share_buffer, int channel, int stream);
    static void DestroyHandle(CUDPSource *source);
    CUDPSource(void *share_buffer, int channel, int stream);
    ~CUDPSource() override;

    // Host thread. True when the front of the pipeline was built and the worker started.
    bool OpenLiveStream(const char *url, unsigned int caching, unsigned int ts_latency, unsigned int mtu);
    bool CloseLiveStream() override;

  private:
    friend struct SourceProbe;

    bool _CreateGstElements();   // host (first build), worker (rebuilds)
    void _DestroyGstElements();  // host while there is no worker, worker
    bool _PipelinePlay();        // worker
    bool _PipelineStop();        // as _DestroyGstElements
    void _LoopPthread();         // body of the worker
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);  // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    std::vector<GSTREAMER::ElementRef *> _ElementFields();                                // in the order of release

    // Written where the pipeline is built.
    GSTREAMER::ElementRef m_pUdpSrc;
    GSTREAMER::ElementRef m_pTsDemux;
    // Options, written by open before the worker exists.
    guint32 m_nMtu = 1492;            // bytes
    guint32 m_nTsLatency = 700;       // ms
    guint64 m_nTimeout = 5000000000;  // ns of silence until udpsrc posts its time-out message
};

}  // namespace Tessaro
