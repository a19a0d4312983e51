#include "SourceClasses.h"

#include <gtest/gtest.h>

#include <ostream>

namespace unit {

using namespace Tessaro;

namespace {

template <typename T>
SourceClass Members(int type, const char *name) {
    SourceClass row{};
    row.type = type;
    row.name = name;
    row.create = SourceProbe::Create<T>;
    row.destroyHandle = SourceProbe::DestroyHandle<T>;
    row.build = SourceProbe::Build<T>;
    row.destroy = SourceProbe::Destroy<T>;
    row.play = SourceProbe::Play<T>;
    row.stop = SourceProbe::Stop<T>;
    row.video = SourceProbe::Video<T>;
    row.audio = SourceProbe::Audio<T>;
    row.padAdded = SourceProbe::PadAdded<T>;
    row.fields = SourceProbe::Fields<T>;
    row.branch = SourceProbe::Branch<T>;

    // What most classes have in common; the exceptions are set below.
    const std::string tag = row.Tag();
    row.loopBuildFailure = Err(tag + " _CreateGstElements error!!! URL=");
    row.loopBuildFailureHasUrl = true;
    row.stateAfterPlay = "connected";
    row.stateAfterBusError = GST_STATE_PLAYING;
    row.videoCaps = "video/x-h264, stream-format=(string)byte-stream";
    row.audioCaps = "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts";
    row.padDemuxText = tag + " tsdeumx A new ";
    row.padCapsFailure = tag + " Unable to get tsdeumx current caps by source pad!!! url=";
    row.padStructureFailure = tag + " Unable to get tsdeumx current structure by caps!!! url=";
    row.videoLinkFailure = tag + " tsdemux src_pad link h26xqueue sink_pad  faild !!! url=";
    row.videoLinkSuccess = tag + " tsdemux src_pad link h26xqueue sink_pad  OK.... url=";
    row.audioLinkFailure = tag + " tsdemux src_pad link audioqueue sink_pad  faild !!! url=";
    row.audioLinkSuccess = tag + "[INFO] tsdemux src_pad link audioqueue sink_pad  ok !!!  url=";
    row.videoSinkSets = {"share-buffer=POINTER", "media=48", "channel=7", "stream=3", "async=false", "sync=true"};
    row.audioSinkSets = {"share-buffer=POINTER", "media=21", "channel=7", "stream=3", "async=false", "sync=false"};
    return row;
}

std::vector<SourceClass> MakeClasses() {
    SourceClass rtsp = Members<CRtspSource>(SOURCE_TYPE_RTSP, "CRtspSource");
    rtsp.url = "rtsp://127.0.0.1:9/none";
    rtsp.open = [](CBaseSource &source, const char *url) {
        return static_cast<CRtspSource &>(source).OpenLiveStream(url, 200, 4, 2000, 15000000, "", "");
    };
    rtsp.openOptions = "... {Opts:caching=200,protocols=4,latency=2000,contimeout=15000000,user=,pwd=}";
    rtsp.front = {"rtspsrc Rtspsrc"};
    rtsp.startMessage = "Rtsp source pthread start...";
    rtsp.reconnectMessage = "[CRtspSource] Rtsp source reconnect...";
    rtsp.exitMessage = "Rtsp source pthread exit";
    rtsp.stateAfterBusError = 0;
    rtsp.clearsMediaInfo = true;
    rtsp.videoCaps = "application/x-rtp, media=(string)video, encoding-name=(string)H264, clock-rate=(int)90000";
    rtsp.audioCaps = "application/x-rtp, media=(string)audio, encoding-name=(string)MPEG4-GENERIC, clock-rate=(int)48000";
    rtsp.padDemuxText = "[CRtspSource] rtspsrc A new ";
    rtsp.padCapsFailure = "[CRtspSource] Unable to get rtspsrc current caps by source pad!!!url=";
    rtsp.padStructureFailure = "[CRtspSource] Unable to get rtspsrc current structure by caps!!!url=";
    rtsp.videoLinkFailure = "[CRtspSource] rtspsrc src_pad link rtph26xdeplay sink_pad faild !!! url=";
    rtsp.videoLinkSuccess = "[CRtspSource] rtspsrc src_pad link rtph26xdeplay sink_pad OK....url=";
    rtsp.stateAfterVideoPadLinkFailure = 0;
    rtsp.audioLinkFailure = "[CRtspSource] rtsp src_pad link rtpaudiodeplay sink_pad faild !!! url=";
    rtsp.audioLinkSuccess = "[CRtspSource] rtsp src_pad link rtpaudiodeplay sink_pad ok !!! url=";
    rtsp.videoSinkSets = {"share-buffer=POINTER", "channel=7", "stream=3", "sync=false", "async=false", "debug=3"};
    rtsp.audioSinkSets = rtsp.videoSinkSets;
    rtsp.depays = true;
    rtsp.acceptsUnparsed = true;

    SourceClass rtmp = Members<CRtmpSource>(SOURCE_TYPE_RTMP, "CRtmpSource");
    rtmp.url = "rtmp://127.0.0.1:9/live/none";
    rtmp.open = [](CBaseSource &source, const char *url) {
        return static_cast<CRtmpSource &>(source).OpenLiveStream(url, 200, 10, 0, "", "", "");
    };
    rtmp.openOptions = "... {Opts:caching=200,contimeout=10,idle_timeout=0,user=,pwd=,token=}";
    rtmp.front = {"rtmp2src Rtmp2src", "flvdemux Flvdemux"};
    rtmp.frontLinkFailure = "[CRtmpSource] Failed to link rtmpsrc and flvdemux.!!! url=";
    rtmp.startMessage = "Rtmp source pthread start...";
    rtmp.reconnectMessage = "[CRtmpSource] RTMP source reconnect...";
    rtmp.exitMessage = "Rtmp source pthread exit";
    rtmp.loopBuildFailure = Info("Rtmp source _CreateGstElements error.");
    rtmp.loopBuildFailureHasUrl = false;
    rtmp.videoCaps = "video/x-h264, stream-format=(string)avc";
    rtmp.audioCaps = "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw";
    rtmp.padDemuxText = "[CRtmpSource] flvdemux A new ";
    rtmp.padCapsFailure = "[CRtmpSource] Unable to get flvdemux current caps by source pad!!! url=";
    rtmp.padStructureFailure = "[CRtmpSource] Unable to get flvdemux current structure by caps!!! url=";
    rtmp.videoLinkFailure = "[CRtmpSource] flvdemux src_pad link h26xparse sink_pad  faild !!! url=";
    rtmp.videoLinkSuccess = "[CRtmpSource] flvdemux src_pad link h26xparse sink_pad  OK.... url=";
    rtmp.stateAfterVideoPadLinkFailure = 0;
    rtmp.audioLinkFailure = "[CRtmpSource] flvdemux src_pad link audioparse sink_pad  faild !!! url=";
    rtmp.audioLinkSuccess = "[CRtmpSource][INFO] flvdemux src_pad link audioparse sink_pad  ok !!!  url=";
    rtmp.acceptsUnparsed = true;

    SourceClass srt = Members<CSrtSource>(SOURCE_TYPE_SRT, "CSrtSource");
    srt.url = "srt://127.0.0.1:9";
    srt.open = [](CBaseSource &source, const char *url) {
        return static_cast<CSrtSource &>(source).OpenLiveStream(url, 200, "caller", "", "", 0, 125, 50, "");
    };
    srt.openOptions =
        "... {Opts:caching=200,mode=caller,streamid=,passphrase=,keylen=0,latency=125,tslatency=50,localaddress=}";
    srt.front = {"srtsrc Srtsrc", "tsdemux Tsdemux"};
    srt.frontLinkFailure = "[CSrtSource] Failed to link srtsrc and tsdemux.!!! url=";
    srt.startMessage = "Srt source pthread start...version=1.0";
    srt.reconnectMessage = "[CSrtSource] Srt source reconnect...";
    srt.exitMessage = "Srt source pthread exit";
    srt.stateAfterPlay = "reconnect";
    srt.stateAfterVideoPadLinkFailure = 0;

    SourceClass udp = Members<CUDPSource>(SOURCE_TYPE_UDP, "CUDPSource");
    udp.url = "udp://127.0.0.1:0";
    udp.open = [](CBaseSource &source, const char *url) {
        return static_cast<CUDPSource &>(source).OpenLiveStream(url, 200, 700, 1492);
    };
    udp.openOptions = "... {Opts:caching=200,ts_latency=700,mtu=1492}";
    udp.pipelineWording = true;
    udp.front = {"udpsrc Udpsrc", "tsdemux Tsdemux"};
    udp.frontLinkFailure = "[CUDPSource] Failed to link udpsrc and tsdemux.!!! url=";
    udp.startMessage = "UDP source pthread start...";
    udp.reconnectMessage = "[CUDPSource] UDP source reconnect...";
    udp.exitMessage = "UDP source pthread exit";
    udp.stateAfterVideoPadLinkFailure = GST_STATE_PLAYING;

    SourceClass hls = Members<CHLSSource>(SOURCE_TYPE_HLS, "CHLSSource");
    hls.url = "http://127.0.0.1:9/none.m3u8";
    hls.open = [](CBaseSource &source, const char *url) {
        return static_cast<CHLSSource &>(source).OpenLiveStream(url, 200, false, 15, 3, "", "", "", "", "", "");
    };
    hls.openOptions = " { Opts: caching=200,islive=0,timeout=15,retries=3,proxy=,proxy_id=,proxy_pwd=,user_agent= }";
    hls.pipelineWording = true;
    hls.front = {"souphttpsrc Souphttpsrc", "hlsdemux Hlsdemux"};
    hls.frontLinkFailure = "[CHLSSource] Failed to link souphttpsrc and hlsdemux.!!! url=";
    hls.startMessage = "HLS source pthread start...";
    hls.reconnectMessage = "[CHLSSource] HLS source reconnect...";
    hls.exitMessage = "HLS source pthread exit";
    hls.stateAfterVideoPadLinkFailure = GST_STATE_PLAYING;

    return {rtsp, rtmp, srt, udp, hls};
}

}  // namespace

std::string SourceClass::UrlAt(int port) const {
    const std::string at = "127.0.0.1:" + std::to_string(port);
    switch (type) {
        case SOURCE_TYPE_RTSP:
            return "rtsp://" + at + "/live";
        case SOURCE_TYPE_RTMP:
            return "rtmp://" + at + "/live/stream";
        case SOURCE_TYPE_SRT:
            return "srt://" + at;
        case SOURCE_TYPE_UDP:
            return "udp://" + at;
        default:
            return "http://" + at + "/live.m3u8";
    }
}

Lines SourceClass::BuildLines(const std::string &location) const {
    if (type == SOURCE_TYPE_RTSP) {
        return {Info("[CRtspSource] Rtsp latency=2000, url=" + location)};
    }
    return SkippedBuildLines();
}

Lines SourceClass::SkippedBuildLines() const {
    return type == SOURCE_TYPE_SRT ? Lines{Raw(" Srt debug version 1.00")} : Lines{};
}

Lines SourceClass::PlayLines() const {
    return type == SOURCE_TYPE_HLS ? Lines{Raw("~~~~~~~_PipelinePlay 4")} : Lines{};
}

Lines SourceClass::StartLines() const {
    return Lines{Info(startMessage)} + SkippedBuildLines() + PlayLines();
}

Lines SourceClass::RebuildLines(const std::string &location) const {
    return Lines{Info(reconnectMessage + location)} + BuildLines(location) + PlayLines();
}

Lines SourceClass::IdleCloseLines(const std::string &location) const {
    Lines lines{Info(Tag() + " Close live stream ... URL=" + location)};
    const bool joins = type == SOURCE_TYPE_HLS;
    if (joins) {
        lines.push_back(Info("[CHLSSource] m_nLoopPthread .join.. URL=" + location));
    }
    lines.push_back(
        Warn(Tag() + " Unable to set the pipeline to the GST_STATE_NULL state! (pipeline is nullptr) URL=" + location));
    if (joins) {
        lines.push_back(Info("[CHLSSource] _PipelineStop .join.. URL=" + location));
        lines.push_back(Info("[CHLSSource] _DestroyGstElements .join.. URL=" + location));
    }
    return lines;
}

Lines SourceClass::CloseLines(const std::string &location, const Lines &worker) const {
    Lines lines = Lines{Info(Tag() + " Close live stream ... URL=" + location)} + worker;
    if (type == SOURCE_TYPE_HLS) {
        lines.push_back(Info("[CHLSSource] m_nLoopPthread .join.. URL=" + location));
        lines.push_back(Info("[CHLSSource] _PipelineStop .join.. URL=" + location));
        lines.push_back(Info("[CHLSSource] _DestroyGstElements .join.. URL=" + location));
    }
    return lines;
}

Line SourceClass::NotAllElements(const std::string &location) const {
    return Err(Tag() + " Not all elements could be created!!! url=" + location);
}

Line SourceClass::BuildFailure(const std::string &location) const {
    return Err(Tag() + " _CreateGstElements error!!! URL=" + location);
}

Line SourceClass::MediaChanged(const std::string &medium, const std::string &encode) const {
    return Warn(Tag() + " " + medium + " media data chanage !!!  new encode= " + encode + ", url=" + url);
}

Line SourceClass::BadArguments(const std::string &stored) const {
    if (pipelineWording) {
        return Err(Tag() + " Unable to set the pipeline to the GST_STATE_PLAYING! (pipeline is nullptr) URL=" + stored);
    }
    return Err(Tag() + " Share buffer not init or location is invaild!");
}

Line SourceClass::AlreadyLive(const std::string &location) const {
    return Warn(Tag() + " The current source is already live! url=" + location);
}

void PrintTo(const SourceClass &row, std::ostream *out) {
    *out << row.name;
}

const std::vector<SourceClass> &SourceClasses() {
    static const std::vector<SourceClass> classes = MakeClasses();
    return classes;
}

const SourceClass &ClassOf(int type) {
    for (const SourceClass &row : SourceClasses()) {
        if (row.type == type) {
            return row;
        }
    }
    ADD_FAILURE() << "no class of type " << type;
    return SourceClasses().front();
}

std::string FactoryName(const std::string &factory_and_name) {
    return factory_and_name.substr(0, factory_and_name.find(' '));
}

std::string InstanceName(const std::string &factory_and_name) {
    return factory_and_name.substr(factory_and_name.find(' ') + 1);
}

Line NotMade(const std::string &factory_and_name) {
    return Err("[GSTREAMER] Unable to make element \"" + InstanceName(factory_and_name) + "\" of factory \"" +
               FactoryName(factory_and_name) + "\"!!! Is its plug-in installed?");
}

}  // namespace unit
