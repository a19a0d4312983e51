// RTSP: rtspsrc, which exposes one RTP pad for each medium -> branches that begin with a depayloader.
#pragma once

#include "CBaseSource.h"

#include <array>
#include <atomic>

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
    // rtspsrc warns that the server has closed the connection, and ends its streams. The end gets lost when there is no pad yet, or a
    // jitter buffer does not let it through: then nothing else ever ends the session.
    void _NoteMessage(GstMessage *message) override;  // worker
    bool _IsForsaken() const;                         // worker
    // This class's sinks run unsynchronised and with their diagnostics on; the media kind follows with the encoding.
    void _SetSinkTarget(GstElement *sink);
    // Notes the thread that talks to the server.
    static gboolean before_send_handler(GstElement *element, gpointer message, gpointer user_data);  // rtspsrc's
    static void pad_added_handler(GstElement *element, GstPad *pad, gpointer user_data);             // streaming
    bool _CreateVideoStream(GstElement *demux, GstPad *pad, const char *encode);                     // streaming
    bool _CreateAudioStream(GstElement *demux, GstPad *pad, const char *encode);                     // streaming
    std::array<GstElement **, 11> _ElementFields();                                                  // in the order of release

    // Views of elements that sit in the pipeline; owned only while they do not (see GSTREAMER::ReleaseElement). The front is
    // written where the pipeline is built, the branches on the streaming thread.
    GstElement *m_pRtspSrc = nullptr;
    GstElement *m_pVideoDepay = nullptr;
    GstElement *m_pAudioDepay = nullptr;
    GstElement *m_pVideoQueue = nullptr;
    GstElement *m_pAudioQueue = nullptr;
    GstElement *m_pVideoParse = nullptr;
    GstElement *m_pAudioParse = nullptr;
    GstElement *m_pVideoCapsFilter = nullptr;
    GstElement *m_pAudioCapsFilter = nullptr;
    GstElement *m_pVideoSink = nullptr;
    GstElement *m_pAudioSink = nullptr;
    // Options, written by open before the worker exists.
    std::string m_strUserId;
    std::string m_strUserPw;
    guint64 m_nProtocols = 4;          // GstRTSPLowerTrans bit mask; 4 is interleaved TCP
    guint32 m_nLatency = 2000;         // ms
    guint64 m_nTcpTimeout = 15000000;  // us
    gint64 m_nServerLeft = 0;          // when, as g_get_monotonic_time; 0: it has not. Worker
    // rtspsrc's own thread, once it has sent something; 0: none.
    std::atomic<pid_t> m_nTaskThread{0};
};

}  // namespace Tessaro
