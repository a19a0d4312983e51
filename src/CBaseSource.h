// What every source owns: the run fields of its worker, the records handed to the host, the classification of
// bus messages and the handlers of the sinks' signals.
//
// Threads, as named below: host (create, open, close, destroy), worker (one per open source),
// streaming (the framework's: pad handlers, branch builders, sink signal handlers, host
// callback), any (status reads). The worker does not exist while the host builds or tears down,
// and streaming threads exist only between play and stop.
#pragma once

#include "framework/Elements.h"
#include "framework/Reason.h"
#include "framework/ServerContact.h"
#include "gst_source_api.h"
#include "workarounds/Workaround.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Tessaro {

enum BusMsgResult { BUS_MSG_NONE = 0, BUS_MSG_EOS = 1, BUS_MSG_ERROR = 2, BUS_MSG_TIMEOUT = 3 };

// A text written by one thread and read by others.
class GuardedText {
  public:
    std::string Get() const {
        const std::lock_guard<std::mutex> lock(m_mtx);
        return m_str;
    }
    void Set(const std::string &text) {
        const std::lock_guard<std::mutex> lock(m_mtx);
        m_str = text;
    }
    void Clear() { Set(std::string()); }
    bool IsEmpty() const {
        const std::lock_guard<std::mutex> lock(m_mtx);
        return m_str.empty();
    }

  private:
    mutable std::mutex m_mtx;
    std::string m_str;
};

class CBaseSource {
  public:
    CBaseSource(void *share_buffer, int channel, int stream);
    virtual ~CBaseSource();
    // Ends the session and returns true, whatever state the source is in. Host thread.
    virtual bool CloseLiveStream();

    CBaseSource(const CBaseSource &) = delete;
    CBaseSource &operator=(const CBaseSource &) = delete;

    // Copies the status record. `status` is not null. Any thread.
    void GetSourceStatus(source_status_t *status);
    // Copies both media records; false (with a message) for a null argument. Any thread.
    bool GetMediaInfo(media_code_info_t *video, media_code_info_t *audio);
    // Back to the initial media records, so that the next stream is reported again even when it is the same.
    void ClearMediaInfo();
    // Installs the host's callback, best before open. Any thread.
    void SetMediaChangeCallback(media_change_callback_t callback, void *user);
    // Limit of a branch queue in ns. One second for every caching value: a longer
    // queue would only delay what a live host waits for.
    guint64 GetMaxSizeTime(unsigned int caching) const;
    // The location. Written by the host thread only while there is no worker.
    const std::string &GetURL() const { return m_strURL; }
    // Classifies one bus message, which stays the caller's.
    int DoBusMessage(GstMessage *msg);
    // True on a thread that a close has to wait for: the worker, the streaming threads of the pipeline, and
    // whatever thread is calling the host back. A close from there would wait for itself. Any thread.
    bool IsOwnThread() const;

    // Handlers of the sinks' signals. Streaming threads.
    static void shbsink_video_bitrate_handler(GstElement *sink, guint bitrate, gpointer user);
    static void shbsink_audio_bitrate_handler(GstElement *sink, guint bitrate, gpointer user);
    static void shbsink_video_fps_handler(GstElement *sink, guint fps, gpointer user);
    static void shbsink_audio_fps_handler(GstElement *sink, guint fps, gpointer user);
    static void shbsink_video_changed_handler(GstElement *sink, char *code, char *unused1, char *unused2, char *scan_type,
                                              int width, int height, int fps_n, int fps_d, int ref_frames, gpointer user);
    static void shbsink_audio_changed_handler(GstElement *sink, char *code, int sample_rate, int channels, int no_samples,
                                              int extra, int unused1, int unused2, gpointer user);

  protected:
    friend struct SourceProbe;  // the unit tests' view of a source

    // ---- Instruments of the protocol classes' life cycles ----

    // While this lives, IsOwnThread is true on the calling thread.
    class OwnThread {
      public:
        explicit OwnThread(const CBaseSource &source);
        ~OwnThread();
        OwnThread(const OwnThread &) = delete;
        OwnThread &operator=(const OwnThread &) = delete;

        static bool IsOf(const CBaseSource &source);

      private:
        static thread_local const OwnThread *t_pInnermost;

        const CBaseSource &m_source;
        const OwnThread *const m_pOuter;
    };
    // True, with a WARN line, when the source is open. A worker that has ended by
    // itself counts until a close has joined it. Host.
    bool _IsAlreadyLive(const char *tag, const char *url) const;
    // Starts the worker; false, with a line, when there is no thread for it. Host.
    bool _StartWorker(const char *tag, std::function<void()> body);
    // Ends the worker, if there is one, and switches rebuilding off for good. Host.
    void _JoinWorker();
    // Names the calling thread; threads that elements start from it inherit the name.
    static void _NameThread(const char *name);
    // source_mode "live", state "start".
    void _SetStatusStarted();
    void _SetStatusState(const char *state);
    // Bit rates 0, state "reconnect"; then waits 3 s in slices of 100 ms, less when a stop is requested.
    void _PrepareRebuild();
    // Bit rates 0, codec texts empty, state "stop".
    void _SetStatusStopped();
    // Tells the pipeline to play, or says why not. True when it plays, also when it did before. Worker.
    bool _PlayPipeline(const char *tag);
    enum class StopResult { NoPipeline, StoppedBefore, Stopped };
    // Tells the pipeline to stop, or says why not. The elements are still there. As _PipelineStop.
    StopResult _StopPipeline(const char *tag);
    enum class SessionEnd { Exit, Bus, MediaChange };
    // Polls the bus until the session ends, and logs why. Worker.
    SessionEnd _PollSession(const char *tag);
    // Waits up to 100 ms for one bus message of any type, logs the
    // reason that it gives, if any, and classifies it.
    int _PollBus();
    // The line of why the pipeline could not be started, before the class's own. Worker.
    void _LogPlayFailure();
    // The line of a session that ends because a pad has brought other media. Worker.
    void _LogMediaChange();
    // When a sink last reported media that flow, as g_get_monotonic_time; 0: never. Any thread.
    gint64 _LastReport() const { return m_nLastReport; }
    // Makes m_pPipeline and m_pBus; each stays null when it cannot be made. False, with
    // neither, when file descriptors or threads are short. The worker waits for them
    // until the close; a host that opens does not wait.
    bool _CreatePipeline();
    bool _AwaitResource(bool (*left)(size_t), size_t needed, const char *missing, const char *again);
    // Drops the pipeline and the bus, which takes the elements in it along.
    void _ReleasePipeline();
    // Notes on each streaming thread which pipeline it works for. Runs on the thread that posts the message.
    static GstBusSyncReply stream_status_handler(GstBus *bus, GstMessage *message, gpointer run);

    // ---- Instruments of the pad handlers and branch builders ----

    struct PadMedia {
        enum class Kind { None, Video, Audio } kind;
        const char *encode;
    };
    // Media of a transport-stream pad by the first structure of its
    // caps; says so when it is one that is not carried.
    static PadMedia _ClassifyTsPad(const GstStructure *structure);
    // "audio/mpeg" by its mpegversion, taken as 4 when absent: 1 is "MP3", everything else "AAC".
    static const char *_MpegAudioEncode(const GstStructure *structure);

    enum class Medium { Video, Audio };
    struct PadCaps {
        GSTREAMER::CapsPtr caps;                  // keeps the structure
        const GstStructure *structure = nullptr;  // null when there is nothing to look into
    };
    // The caps of a new pad, with the lines that every pad handler writes. `element` is
    // what exposed the pad, by the name that the lines give it; `url_label` is what
    // stands before the URL in the lines of a failure.
    PadCaps _InspectPad(const char *tag, const char *element, const char *url_label, GstPad *pad) const;
    // Whether a pad gets a branch: the first of its medium does. Another encoding
    // than that one's raises the media-changed flag.
    bool _TakesPad(const char *tag, Medium medium, const char *encode);

    // Demultiplexer of a transport stream, null when it cannot be made. `latency` in ms, in force unless caching is off.
    GSTREAMER::ElementRef _MakeTsDemux(guint latency, GCallback pad_added, gpointer self) const;
    // Queue of a branch with its limit, null when it cannot be made.
    GSTREAMER::ElementRef _MakeBranchQueue(const char *name);
    // Sinks of the four demultiplexing classes, with target, media kind, clock
    // behaviour and signals. Null when they cannot be made.
    GSTREAMER::ElementRef _MakeVideoSink();
    GSTREAMER::ElementRef _MakeAudioSink();
    static void _SetSinkMedia(GstElement *sink, int media);
    void _ConnectVideoSink(GstElement *sink);
    void _ConnectAudioSink(GstElement *sink);
    // Drops the references. Elements that no bin holds end with them.
    static void _RemoveManyElements(const std::vector<GSTREAMER::ElementRef *> &elements);

    // The branch in the pipeline's order: `front`, those of `middle` that there are, `sink`.
    static GSTREAMER::Chain _ChainOf(GSTREAMER::Chain front, const GSTREAMER::Chain &middle, GstElement *sink);
    // Queue, parser, caps filter and sink behind a demultiplexer. When one is missing, this is
    // logged, none is kept, and the chain is empty.
    GSTREAMER::Chain _MakeVideoBranch(const char *tag, const char *encode);
    // The same for audio. An encoding that needs no parser is taken without
    // one, or refused because "none" is no element.
    enum class Unparsed { Taken, Refused };
    GSTREAMER::Chain _MakeAudioBranch(const char *tag, const char *encode, Unparsed unparsed);

    // GstState of the pipeline, and 0 after a failed play, a failed link
    // or (RTSP) a bus error. Worker, host, streaming.
    std::atomic<int> m_nPipelineState{GST_STATE_NULL};
    GstBus *m_pBus = nullptr;                  // owned; host before the worker runs and after it has ended, else worker
    GstElement *m_pPipeline = nullptr;         // owned; as m_pBus, and read by streaming threads, which a stop ends first
    GSTREAMER::Workarounds m_workarounds;      // of that pipeline; as m_pBus
    bool m_bElementsCreated = false;           // as m_pBus
    std::atomic<bool> m_bMediaChanged{false};  // set by streaming threads, taken by the worker
    std::string m_strURL;                      // written by open before the worker exists
    unsigned int m_nCaching = 200;             // as m_strURL
    std::thread m_nLoopPthread;                // host
    std::atomic<bool> m_bExit{false};          // written by the host, polled by the worker
    // Rebuild after a session end. Close clears it for good: a source that was
    // closed and opened again plays one session only.
    std::atomic<bool> m_bReconnect{true};
    GuardedText m_strAudioEncode;  // written by streaming threads, cleared by the stop
    GuardedText m_strVideoEncode;
    // The branches. Written by streaming threads, emptied by the
    // stop, empty where a branch has no such element.
    GSTREAMER::ElementRef m_pVideoQueue;
    GSTREAMER::ElementRef m_pAudioQueue;
    GSTREAMER::ElementRef m_pVideoParse;
    GSTREAMER::ElementRef m_pAudioParse;
    GSTREAMER::ElementRef m_pVideoCapsFilter;
    GSTREAMER::ElementRef m_pAudioCapsFilter;
    GSTREAMER::ElementRef m_pVideoSink;
    GSTREAMER::ElementRef m_pAudioSink;
    void *const m_pShareBuffer;  // the host's
    const int m_nChannel;
    const int m_nStream;

  private:
    void _LogReason(GstMessage *message);
    void _LogReason(const GSTREAMER::Reason &reason);
    // For a source element that says no more than that it failed: by how far its connection has come.
    void _ExplainByContact(GstMessage *message, GSTREAMER::Reason &reason) const;
    bool _IsRepeated(const std::string &line, unsigned &repeats);
    bool _HasMedia() const { return !m_strVideoEncode.IsEmpty() || !m_strAudioEncode.IsEmpty(); }
    void _UpdateVideoMediaInfo(const std::string &code, int width, int height, float fps, const std::string &scan_type,
                               int ref_frames);
    void _UpdateAudioMediaInfo(const std::string &code, int sample_rate, int channels, int no_samples, int extra);
    void _StoreBitrate(uint32_t source_status_t::*field, guint bitrate);
    void _StoreRealFps(float source_status_t::*field, guint fps);
    void _CallHost(media_code_info_t *info);

    // Number of the pipeline, new for each in the process, 0 while there is
    // none. Written as m_pPipeline, read by any thread.
    std::atomic<std::size_t> m_nRun{0};
    std::atomic<gint64> m_nLastReport{0};
    std::unique_ptr<GSTREAMER::ServerContact> m_pContact;  // as m_pPipeline
    // Of what the worker asks the resolver; cancelled by a close.
    const std::unique_ptr<GCancellable, GSTREAMER::GObjectUnref> m_pClosing{g_cancellable_new()};
    // The last warning and since when it is repeated without a line. Worker.
    std::string m_strWarning;
    gint64 m_nWarningAt = 0;
    unsigned m_nWarningRepeats = 0;
    std::mutex m_mtxStatus;     // guards m_stStatus
    std::mutex m_mtxMediaInfo;  // guards the two media records; never held together with m_mtxStatus
    media_code_info_t m_stAudioInfo{};
    media_code_info_t m_stVideoInfo{};
    source_status_t m_stStatus{};
    std::mutex m_mtxCallback;  // guards the two below; not held while the host is called
    media_change_callback_t m_pfnMediaChange = nullptr;
    void *m_pMediaChangeUser = nullptr;
    // What the host is shown during a callback. A place of its own for each medium, written by that medium's
    // streaming thread alone: the host reads it without a lock, while a rebuild may be clearing the records.
    media_code_info_t m_stVideoShown{};
    media_code_info_t m_stAudioShown{};
};

}  // namespace Tessaro
