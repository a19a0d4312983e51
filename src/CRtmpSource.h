// RTMP (rtmp2src) and RTMPS (rtmpsrc, by the scheme of the location) -> flvdemux -> branches.
#pragma once

#include "CBaseSource.h"

#include <vector>

namespace Tessaro {

class CRtmpSource : public CBaseSource {
  public:
    static CRtmpSource *CreateNew(void *share_buffer, int channel, int stream);
    static void DestroyHandle(CRtmpSource *source);
    CRtmpSource(void *share_buffer, int channel, int stream);
    ~CRtmpSource() override;

    // Host thread. True when the front of the pipeline was built and the worker started.
    bool OpenLiveStream(const char *url, unsigned int caching, unsigned int contimeout, unsigned int idle_timeout,
                        const char *user, const char *pwd, const char *token);
    bool CloseLiveStream() override;

  private:
    friend struct SourceProbe;

    // Decides by the scheme whether this is RTMPS; if so appends " live=1" and
    // puts the credentials into the location. Host.
    void _RewriteRtmpsLocation();
    bool _CreateGstElements();   // host (first build), worker (rebuilds)
    void _SetSourceOptions();    // of m_pRtmpSrc, as _CreateGstElements
    void _DestroyGstElements();  // host while there is no worker, worker
    bool _PipelinePlay();        // worker
    bool _PipelineStop();        // as _DestroyGstElements
    void _LoopPthread();         // body of the worker
    // Media of an FLV pad. H.265 is not taken on this path.
    static PadMedia _ClassifyFlvPad(const GstStructure *structure);
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);  // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);          // streaming
    std::vector<GSTREAMER::ElementRef *> _ElementFields();                                // in the order of release

    // Written where the pipeline is built.
    GSTREAMER::ElementRef m_pRtmpSrc;
    GSTREAMER::ElementRef m_pFlvDemux;
    // Options, written by open before the worker exists.
    std::string m_strUser;
    std::string m_strPwd;
    std::string m_strToken;      // secure token of rtmp2src
    guint32 m_nConTimeout = 10;  // s
    guint32 m_nIdleTimeout = 0;  // s without data until rtmp2src gives up, 0 never
    bool m_bRtmps = false;
};

}  // namespace Tessaro
