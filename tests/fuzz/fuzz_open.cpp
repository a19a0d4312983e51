// Locations and options of every open function, through the exported interface. The elements are real and
// take their properties; the pipeline is never started, so that nothing goes out to a network.
#include "../unit/support/Fixture.h"
#include "support.h"

#include <gst_source_api.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

using unit::SourceProbe;

constexpr int kTypes[] = {SOURCE_TYPE_RTSP, SOURCE_TYPE_RTMP, SOURCE_TYPE_SRT, SOURCE_TYPE_UDP, SOURCE_TYPE_HLS};

// A text of the host's: any bytes, seldom none at all.
class Option {
  public:
    Option(fuzz::Input &in, std::initializer_list<const char *> likely)
        : m_null(in.ConsumeIntegralInRange(0, 63) == 63), m_text(fuzz::Text(in, likely)) {}
    const char *Get() const { return m_null ? nullptr : m_text.c_str(); }

  private:
    bool m_null;
    std::string m_text;
};

unsigned Number(fuzz::Input &in) {
    return in.ConsumeBool() ? in.ConsumeIntegralInRange(0U, 64U) : in.ConsumeIntegral<unsigned>();
}

int OpenRtsp(fuzz::Input &in, void *handle) {
    const Option url(in, {"rtsp://127.0.0.1/s", "rtsps://u:p@[::1]:8554/s?x=1", "rtsp-sdp://x", ""});
    const Option user(in, {"", "u"});
    const Option password(in, {"", "p"});
    const unsigned caching = Number(in);
    const unsigned protocols = Number(in);
    const unsigned latency = Number(in);
    return gst_rtsp_source_open_live_stream(handle, url.Get(), caching, protocols, latency, Number(in), user.Get(),
                                            password.Get());
}

int OpenRtmp(fuzz::Input &in, void *handle) {
    const Option url(in, {"rtmp://127.0.0.1/live/s", "rtmps://127.0.0.1:443/live/s", "rtmps:/", "RTMPS://x/y/z", ""});
    const Option user(in, {"", "u"});
    const Option password(in, {"", "p"});
    const Option token(in, {"", "t"});
    const unsigned caching = Number(in);
    const unsigned contimeout = Number(in);
    return gst_rtmp_source_open_live_stream(handle, url.Get(), caching, contimeout, Number(in), user.Get(), password.Get(),
                                            token.Get());
}

int OpenSrt(fuzz::Input &in, void *handle) {
    const Option url(in, {"srt://127.0.0.1:9", "srt://:9?mode=listener", "srt://[::1]:9?mode=rendezvous&localport=9", ""});
    const Option mode(in, {"", "caller", "Listener", "RENDEZVOUS"});
    const Option streamid(in, {"", "id"});
    const Option passphrase(in, {"", "a long enough secret"});
    const Option localaddress(in, {"", "127.0.0.1"});
    const unsigned caching = Number(in);
    const unsigned keylen = Number(in);
    const unsigned latency = Number(in);
    return gst_srt_source_open_live_stream(handle, url.Get(), caching, mode.Get(), streamid.Get(), passphrase.Get(), keylen,
                                           latency, Number(in), localaddress.Get());
}

int OpenUdp(fuzz::Input &in, void *handle) {
    const Option url(in, {"udp://127.0.0.1:9", "udp://239.255.0.1:9", "udp://[ff02::1]:9", "http://x", ""});
    const unsigned caching = Number(in);
    const unsigned latency = Number(in);
    return gst_udp_source_open_live_stream(handle, url.Get(), caching, latency, Number(in));
}

int OpenHls(fuzz::Input &in, void *handle) {
    const Option url(in, {"http://127.0.0.1/l.m3u8", "https://u:p@[::1]/l.m3u8", "file:///x", ""});
    const Option proxy(in, {"", "http://127.0.0.1:9", "127.0.0.1:9", "socks5://x"});
    const Option proxy_id(in, {"", "u"});
    const Option proxy_pwd(in, {"", "p"});
    const Option agent(in, {"", "Agent/1"});
    const Option user(in, {"", "u"});
    const Option password(in, {"", "p"});
    const unsigned caching = Number(in);
    const unsigned islive = Number(in);
    const unsigned timeout = in.ConsumeBool() ? 15 : Number(in);
    return gst_hls_source_open_live_stream(handle, url.Get(), caching, islive, timeout, static_cast<int>(Number(in)),
                                           proxy.Get(), proxy_id.Get(), proxy_pwd.Get(), agent.Get(), user.Get(),
                                           password.Get());
}

void Open(fuzz::Input &in, unit::Faults &faults, int type, void *handle) {
    // The source that asks for the playlist's headers beforehand would go out:
    // the third element of an HLS session is not made.
    faults.FailNthMake(type == SOURCE_TYPE_HLS ? 3 : 0);
    using OpenFunction = int (*)(fuzz::Input &, void *);
    static constexpr OpenFunction kOpens[] = {OpenRtsp, OpenRtmp, OpenSrt, OpenUdp, OpenHls};
    // Mostly the function that belongs to the handle.
    std::size_t which = in.ConsumeIntegralInRange<std::size_t>(0, 63);
    while (which > 4) {
        which = static_cast<std::size_t>(std::find(std::begin(kTypes), std::end(kTypes), type) - std::begin(kTypes));
    }
    const int result = kOpens[which](in, handle);
    fuzz::Require(result == 0 || result == -1, "0 or -1");
    fuzz::Require(result == -1 || kTypes[which] == type, "no open of another protocol succeeds");
}

void Run(fuzz::Input &in) {
    unit::Faults faults;
    faults.SetPlay(unit::Play::Pretend);
    faults.PollFast();
    const int type = in.PickValueInArray(kTypes);
    int buffer = 0;
    void *handle = gst_source_create(type, &buffer, in.ConsumeIntegral<int>(), in.ConsumeIntegral<int>());
    fuzz::Require(handle != nullptr, "a source of each kind can be made");
    for (int number = in.ConsumeIntegralInRange(1, 2); number > 0; --number) {
        Open(in, faults, type, handle);
        fuzz::Require(gst_source_close_live_stream(handle) == 0, "close");
        source_status_t status{};
        fuzz::Require(gst_source_get_status(handle, &status) == 0 && std::strcmp(status.state, "stop") == 0,
                      "closed means stop");
    }
    gst_source_destroy(handle);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    fuzz::Prepare();
    fuzz::Input in(data, size);
    Run(in);
    fuzz::RequireNothingLeft();
    return 0;
}
