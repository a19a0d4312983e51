// The exported functions: argument checks, dispatch, and nothing thrown out.
#include "gst_source_api.h"

#include "CHLSSource.h"
#include "CRtmpSource.h"
#include "CRtspSource.h"
#include "CSrtSource.h"
#include "CUDPSource.h"
#include "Logger.h"

#include <cstdio>
#include <exception>

using Tessaro::CBaseSource;

namespace {

void PrintDiagnostic(const char *function, const char *text) {
    PRINT_BY_STDIO("%s: %s\n", function, text);
}

// Runs the body of an exported function; an exception becomes a line and the function's failure result.
template <typename Result, typename Body>
Result Guarded(const char *function, Result failure, Body &&body) {
    try {
        return body();
    } catch (const std::exception &error) {
        LOG_ERR(function << ": " << error.what());
    } catch (...) {
        LOG_ERR(function << ": unknown exception");
    }
    return failure;
}

// The common part of the open functions: null arguments, then the class behind the handle, then its own open.
template <typename Class, typename Open>
int OpenAs(const char *function, void *handle, std::initializer_list<const char *> texts, Open &&open) {
    bool complete = handle != nullptr;
    for (const char *text : texts) {
        complete = complete && text != nullptr;
    }
    if (!complete) {
        PrintDiagnostic(function, "Input args error!!!");
        return -1;
    }
    return Guarded(function, -1, [&] {
        auto *source = dynamic_cast<Class *>(static_cast<CBaseSource *>(handle));
        if (source == nullptr) {
            PrintDiagnostic(function, "The source handle is of another protocol!!!");
            return -1;
        }
        return open(*source) ? 0 : -1;
    });
}

// A close waits for the threads of its source: on one of them it would wait for itself, for ever.
bool RefusedOnOwnThread(const char *function, const CBaseSource &source) {
    if (!source.IsOwnThread()) {
        return false;
    }
    PrintDiagnostic(function, "Called from the source's own callback!!!");
    LOG_ERR(function << ": called on a thread of the source itself (in its callback or a handler of its sink), refused!!! URL="
                     << source.GetURL());
    return true;
}

}  // namespace

void *gst_source_create(int type, void *share_buffer, int channel, int stream) {
    if (share_buffer == nullptr) {
        PrintDiagnostic(__func__, "Input buffer args error!!!");
        return nullptr;
    }
    return Guarded(__func__, static_cast<void *>(nullptr), [&]() -> void * {
        CBaseSource *source = nullptr;
        switch (type) {
            case SOURCE_TYPE_RTSP:
                source = Tessaro::CRtspSource::CreateNew(share_buffer, channel, stream);
                break;
            case SOURCE_TYPE_RTMP:
                source = Tessaro::CRtmpSource::CreateNew(share_buffer, channel, stream);
                break;
            case SOURCE_TYPE_SRT:
                source = Tessaro::CSrtSource::CreateNew(share_buffer, channel, stream);
                break;
            case SOURCE_TYPE_UDP:
                source = Tessaro::CUDPSource::CreateNew(share_buffer, channel, stream);
                break;
            case SOURCE_TYPE_HLS:
                source = Tessaro::CHLSSource::CreateNew(share_buffer, channel, stream);
                break;
            default:
                break;
        }
        return source;
    });
}

int gst_rtsp_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int protocols,
                                     unsigned int latency, unsigned int contimeout, const char *user, const char *pwd) {
    return OpenAs<Tessaro::CRtspSource>(__func__, handle, {url, user, pwd}, [&](Tessaro::CRtspSource &source) {
        constexpr unsigned int kMicrosecondsPerSecond = 1000000;
        return source.OpenLiveStream(url, caching, protocols, latency, contimeout * kMicrosecondsPerSecond, user, pwd);
    });
}

int gst_srt_source_open_live_stream(void *handle, const char *url, unsigned int caching, const char *mode, const char *streamid,
                                    const char *passphrase, unsigned int keylen, unsigned int latency, unsigned int tslatency,
                                    const char *localaddress) {
    return OpenAs<Tessaro::CSrtSource>(
        __func__, handle, {url, mode, streamid, passphrase, localaddress}, [&](Tessaro::CSrtSource &source) {
            return source.OpenLiveStream(url, caching, mode, streamid, passphrase, keylen, latency, tslatency, localaddress);
        });
}

int gst_rtmp_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int contimeout,
                                     unsigned int idle_timeout, const char *user, const char *pwd, const char *token) {
    return OpenAs<Tessaro::CRtmpSource>(__func__, handle, {url, user, pwd, token}, [&](Tessaro::CRtmpSource &source) {
        return source.OpenLiveStream(url, caching, contimeout, idle_timeout, user, pwd, token);
    });
}

int gst_udp_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int ts_latency,
                                    unsigned int mtu) {
    return OpenAs<Tessaro::CUDPSource>(__func__, handle, {url}, [&](Tessaro::CUDPSource &source) {
        return source.OpenLiveStream(url, caching, ts_latency, mtu);
    });
}

int gst_hls_source_open_live_stream(void *handle, const char *url, unsigned int caching, unsigned int islive,
                                    unsigned int timeout, int retries, const char *proxy, const char *proxy_id,
                                    const char *proxy_pwd, const char *user_agent, const char *user_id, const char *user_pw) {
    return OpenAs<Tessaro::CHLSSource>(__func__, handle, {url, proxy, proxy_id, proxy_pwd, user_agent, user_id, user_pw},
                                       [&](Tessaro::CHLSSource &source) {
                                           return source.OpenLiveStream(url, caching, islive != 0, timeout, retries, proxy,
                                                                        proxy_id, proxy_pwd, user_agent, user_id, user_pw);
                                       });
}

int gst_source_close_live_stream(void *handle) {
    if (handle == nullptr) {
        return -1;
    }
    auto *source = static_cast<CBaseSource *>(handle);
    if (RefusedOnOwnThread(__func__, *source)) {
        return -1;
    }
    return Guarded(__func__, 0, [&] {
        source->CloseLiveStream();
        return 0;
    });
}

int gst_source_get_status(void *handle, source_status_t *status) {
    if (handle == nullptr || status == nullptr) {
        PrintDiagnostic(__func__, "Input args error!!!");
        return -1;
    }
    return Guarded(__func__, -1, [&] {
        static_cast<CBaseSource *>(handle)->GetSourceStatus(status);
        return 0;
    });
}

int gst_source_get_media_info(void *handle, media_code_info_t *video_info, media_code_info_t *audio_info) {
    if (handle == nullptr || video_info == nullptr || audio_info == nullptr) {
        PrintDiagnostic(__func__, "Input args error!!!");
        return -1;
    }
    return Guarded(__func__, -1, [&] {
        static_cast<CBaseSource *>(handle)->GetMediaInfo(video_info, audio_info);
        return 0;
    });
}

void gst_source_set_media_change_callback(void *handle, media_change_callback_t callback, void *user) {
    if (handle == nullptr || callback == nullptr) {
        PrintDiagnostic(__func__, "Input args error!!!");
        return;
    }
    Guarded(__func__, 0, [&] {
        static_cast<CBaseSource *>(handle)->SetMediaChangeCallback(callback, user);
        return 0;
    });
}

void gst_source_destroy(void *handle) {
    auto *source = static_cast<CBaseSource *>(handle);
    if (source != nullptr && !RefusedOnOwnThread(__func__, *source)) {
        delete source;
    }
}
