// The tests' view of a source: its private steps and fields. Every source class befriends it.
#pragma once

#include "CHLSSource.h"
#include "CRtmpSource.h"
#include "CRtspSource.h"
#include "CSrtSource.h"
#include "CUDPSource.h"

#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Tessaro {

// Video and audio, in this order; null where the class has no such element.
struct BranchFields {
    GstElement *depay[2];
    GstElement *queue[2];
    GstElement *parse[2];
    GstElement *filter[2];
    GstElement *sink[2];
};

struct SourceProbe {
    template <typename T>
    static CBaseSource *Create(void *buffer, int channel, int stream) {
        return T::CreateNew(buffer, channel, stream);
    }
    template <typename T>
    static void DestroyHandle(CBaseSource *source) {
        T::DestroyHandle(static_cast<T *>(source));
    }
    template <typename T>
    static bool Build(CBaseSource &source) {
        return static_cast<T &>(source)._CreateGstElements();
    }
    template <typename T>
    static void Destroy(CBaseSource &source) {
        static_cast<T &>(source)._DestroyGstElements();
    }
    template <typename T>
    static bool Play(CBaseSource &source) {
        return static_cast<T &>(source)._PipelinePlay();
    }
    static int PollBus(CBaseSource &source) { return source._PollBus(); }
    template <typename T>
    static bool Stop(CBaseSource &source) {
        return static_cast<T &>(source)._PipelineStop();
    }
    template <typename T>
    static bool Video(CBaseSource &source, GstPad *pad, const char *encode) {
        return static_cast<T &>(source)._CreateVideoStream(nullptr, pad, encode);
    }
    template <typename T>
    static bool Audio(CBaseSource &source, GstPad *pad, const char *encode) {
        return static_cast<T &>(source)._CreateAudioStream(nullptr, pad, encode);
    }
    template <typename T>
    static void PadAdded(GstElement *element, GstPad *pad, gpointer user) {
        T::pad_added_handler(element, pad, user);
    }
    static void HlsPadAdded(GstElement *element, GstPad *pad, gpointer user) {
        CHLSSource::hls_pad_added_handler(element, pad, user);
    }
    static gboolean CallerConnecting(GstElement *element, GSocketAddress *address, char *id, gpointer user) {
        return CSrtSource::caller_connecting_handler(element, address, id, user);
    }
    // All element fields, in the order of release.
    template <typename T>
    static std::vector<GstElement *> Fields(CBaseSource &source) {
        std::vector<GstElement *> elements;
        for (GSTREAMER::ElementRef *field : static_cast<T &>(source)._ElementFields()) {
            elements.push_back(*field);
        }
        return elements;
    }
    template <typename T>
    static BranchFields Branch(CBaseSource &base) {
        T &source = static_cast<T &>(base);
        BranchFields fields{{nullptr, nullptr},
                            {source.m_pVideoQueue, source.m_pAudioQueue},
                            {source.m_pVideoParse, source.m_pAudioParse},
                            {source.m_pVideoCapsFilter, source.m_pAudioCapsFilter},
                            {source.m_pVideoSink, source.m_pAudioSink}};
        if constexpr (std::is_same_v<T, CRtspSource>) {
            fields.depay[0] = source.m_pVideoDepay;
            fields.depay[1] = source.m_pAudioDepay;
        }
        return fields;
    }

    static GstElement *Pipeline(CBaseSource &source) { return source.m_pPipeline; }
    static GstBus *Bus(CBaseSource &source) { return source.m_pBus; }
    static std::atomic<int> &State(CBaseSource &source) { return source.m_nPipelineState; }
    static std::atomic<bool> &MediaChanged(CBaseSource &source) { return source.m_bMediaChanged; }
    static std::atomic<bool> &Exit(CBaseSource &source) { return source.m_bExit; }
    static std::atomic<bool> &Reconnect(CBaseSource &source) { return source.m_bReconnect; }
    static bool ElementsCreated(CBaseSource &source) { return source.m_bElementsCreated; }
    static bool StartWorker(CBaseSource &source, const char *tag, std::function<void()> body) {
        return source._StartWorker(tag, std::move(body));
    }
    static void JoinWorker(CBaseSource &source) { source._JoinWorker(); }
    static bool Joinable(CBaseSource &source) { return source.m_nLoopPthread.joinable(); }
    static void SetUrl(CBaseSource &source, const std::string &url) { source.m_strURL = url; }
    static unsigned int &Caching(CBaseSource &source) { return source.m_nCaching; }
    static GuardedText &VideoEncode(CBaseSource &source) { return source.m_strVideoEncode; }
    static GuardedText &AudioEncode(CBaseSource &source) { return source.m_strAudioEncode; }
    static GuardedText &HlsMediaType(CBaseSource &source) { return static_cast<CHLSSource &>(source).m_strHlsMediaType; }
    static GstElement *HlsTsDemux(CBaseSource &source) { return static_cast<CHLSSource &>(source).m_pTsDemux; }
    static std::string SrtMode(CBaseSource &source) { return static_cast<CSrtSource &>(source).m_strMode; }
    static void SetSrtStreamId(CBaseSource &source, const std::string &id) {
        static_cast<CSrtSource &>(source).m_strStreamId = id;
    }
    static bool IsRtmps(CBaseSource &source) { return static_cast<CRtmpSource &>(source).m_bRtmps; }
    static media_change_callback_t Callback(CBaseSource &source) { return source.m_pfnMediaChange; }
    static void RemoveMany(std::initializer_list<GSTREAMER::ElementRef *> elements) {
        CBaseSource::_RemoveManyElements(elements);
    }

    static void UpdateVideo(CBaseSource &source, const std::string &code, int width, int height, float fps,
                            const std::string &scan_type, int ref_frames) {
        source._UpdateVideoMediaInfo(code, width, height, fps, scan_type, ref_frames);
    }

    static source_status_t Status(CBaseSource &source) {
        source_status_t status{};
        source.GetSourceStatus(&status);
        return status;
    }
    static std::string StateText(CBaseSource &source) {
        const source_status_t status = Status(source);
        return std::string(status.state, strnlen(status.state, sizeof status.state));
    }
};

}  // namespace Tessaro
