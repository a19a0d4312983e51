"""Sources: live streams that are kept coming into a buffer. The first one of a process loads GStreamer.

Options have the names, units and defaults of docs/protocols.md. The library writes its log, options included, to standard output.
"""

from __future__ import annotations

import re
import threading
from dataclasses import dataclass
from typing import Any, Callable, ClassVar, Union

from ._handles import U32, Handle, c_text, py_text, whole
from ._shb import ffi as shb_ffi
from .buffer import Buffer, report_from_thread
from .errors import ArgumentError, Busy, Error, OpenFailed
from .records import SCANS, Kind, Scan, track_name


@dataclass(frozen=True)
class VideoInfo:
    """Parameters of a video stream."""

    code: str  #: "H264", "H265"
    width: int  #: pixels
    height: int  #: pixels
    fps: float  #: frames per second as announced, 0 when not
    ref_frames: int
    scan: Scan


@dataclass(frozen=True)
class AudioInfo:
    """Parameters of an audio stream."""

    code: str  #: "AAC", "MP3", "AC3", ...
    sample_rate: int  #: Hz
    channels: int
    samples_per_frame: int  #: of each channel
    nominal_bitrate: int  #: bits per second, 0 when not announced


MediaInfo = Union[VideoInfo, AudioInfo]
MediaChangeHandler = Callable[[MediaInfo], object]


@dataclass(frozen=True)
class SourceStatus:
    """What a source is doing."""

    #: "" before the open, "start", "connected", "reconnect" (SRT: until data flows) or "stop".
    #: "connected" does not say that the peer has answered: `Buffer.stats` has the age of the last frame.
    state: str
    mode: str  #: "live" once a worker has run
    video_code: str  #: encoding name, empty when there is none
    video_bitrate: int  #: measured, bits per second
    width: int  #: pixels
    height: int  #: pixels
    fps: float  #: frames per second as announced
    video_real_fps: float  #: measured
    audio_code: str  #: encoding name, empty when there is none
    audio_bitrate: int  #: measured, bits per second
    sample_rate: int  #: Hz
    channels: int
    audio_real_fps: float  #: measured audio frames per second


def _library() -> Any:
    """Loaded with the first source: who only reads needs no GStreamer."""
    global _loaded
    if _loaded is None:
        from . import _source

        _source.ffi.def_extern(name="gst_source_python_media_changed")(_media_changed)
        _loaded = _source
    return _loaded


_loaded: Any = None


class _Listener:
    """Whom a source calls: one for each source, so that a close can tell whose handler it comes from."""

    def __init__(self, handler: MediaChangeHandler) -> None:
        self.handler = handler


_thread = threading.local()


def _media_changed(user: Any, info: Any) -> None:
    try:
        _thread.listener = _library().ffi.from_handle(user)
        media = _media_of(info)
        if media is not None:
            _thread.listener.handler(media)
    except BaseException:
        report_from_thread()
    finally:
        _thread.listener = None


def _media_of(info: Any) -> MediaInfo | None:
    code = py_text(info.code)
    if not code:
        return None
    if info.type == 0:
        video = info.params.video
        return VideoInfo(code, video.width, video.height, video.fps, video.ref_frames, SCANS[min(video.scan_type, 2)])
    audio = info.params.audio
    return AudioInfo(code, audio.sample_rate, audio.channels, audio.no_samples, audio.extra)


def _public(url: str) -> str:
    """The URL without its password and SRT's passphrase."""
    return re.sub(r"(?<=[?&]passphrase=)[^&#]+", "***", re.sub(r"^(\w+://[^/?#:]*):[^/?#]*@", r"\1:***@", url))


def _authority(url: str) -> str:
    """What stands between the scheme and the path. Raises as `c_text` does."""
    c_text("url", url)
    return re.split("[/?#]", url.partition("://")[2], maxsplit=1)[0]


def _both_or_none(**texts: str) -> None:
    if len({bool(text) for text in texts.values()}) > 1:
        raise ArgumentError(f"{' and '.join(texts)}: one of them alone has no effect")


def _claim(buffer: Buffer, channel: int, stream: int) -> tuple[int, int]:
    """Under the lock of the buffer: its tracks, for one source alone. Raises ArgumentError, Busy, UseAfterClose.

    A source on others would never play: it would be built again and again.
    """
    geometry = buffer.geometry
    place = whole("channel", channel, 0, geometry.channels - 1), whole("stream", stream, 0, geometry.streams - 1)
    buffer._check_free(*place)
    kinds: tuple[Kind, ...] = ("video", "audio")
    for kind in kinds:
        if buffer.stats(kind, *place).writer_pid:
            raise Busy(f"{track_name(kind, *place)}: the track has a writer")
    return place


class Source(Handle):
    """A live stream that is kept coming: when it ends or fails, it is connected again, until it is closed.

    Made by `open_source`, `Buffer.open` or one of the classes RtspSource, SrtSource, RtmpSource, UdpSource
    and HlsSource, which open it. That it could be opened says nothing yet of the server. It plays until it,
    or its buffer, is closed, or the interpreter ends, also when no variable holds it. Any thread.
    """

    _what = "source"
    _type: ClassVar[str]
    _place: tuple[int, int] | None

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        channel: int,
        stream: int,
        on_media_change: MediaChangeHandler | None,
        open_function: str,
        *options: int | bytes,
    ) -> None:
        library = _library()
        lib = library.lib
        self._listener = None if on_media_change is None else _Listener(on_media_change)
        user = None if self._listener is None else library.ffi.new_handle(self._listener)
        # Open and close wait for each other.
        self._turn = threading.RLock()

        def destroy(pointer: Any, _until_then: Any = user) -> None:
            lib.gst_source_destroy(pointer)

        location = c_text("url", url)
        with buffer._alone():
            self._place = _claim(buffer, channel, stream)
            pointer = lib.gst_source_create(getattr(lib, self._type), buffer._use(), *self._place)
            if pointer == library.ffi.NULL:
                raise OpenFailed(f"{_public(url)}: no source could be made; standard output says why")
            super().__init__(pointer, destroy)
            self._buffer = buffer
            self._url = _public(url)
            buffer._children.append(self)
        with self._turn:
            if user is not None:
                lib.gst_source_set_media_change_callback(self._use(), lib.gst_source_python_media_changed, user)
            opened = getattr(lib, open_function)(self._use(), location, *options) == 0
        if not opened:
            self.close()
            raise OpenFailed(f"{self._url}: could not be opened; standard output says why")

    @property
    def url(self) -> str:
        """The location, without its password."""
        return self._url

    def status(self) -> SourceStatus:
        """What it is doing."""
        library = _library()
        s = library.ffi.new("source_status_t *")
        if library.lib.gst_source_get_status(self._use(), s) != 0:
            raise Error(f"{self._url}: no status")
        return SourceStatus(
            py_text(s.state),
            py_text(s.source_mode),
            py_text(s.video_code),
            s.video_bitrate,
            s.width,
            s.height,
            s.fps,
            s.video_real_fps,
            py_text(s.audio_code),
            s.audio_bitrate,
            s.sample_rate,
            s.channels,
            s.audio_real_fps,
        )

    def media(self) -> tuple[VideoInfo | None, AudioInfo | None]:
        """Parameters of its video and of its audio, None while there is no such stream."""
        library = _library()
        records = library.ffi.new("media_code_info_t[2]")
        if library.lib.gst_source_get_media_info(self._use(), records, records + 1) != 0:
            raise Error(f"{self._url}: no media")
        records[0].type, records[1].type = 0, 1
        return _media_of(records[0]), _media_of(records[1])  # type: ignore[return-value]

    def _refuse_in_handler(self) -> None:
        if self._listener is not None and getattr(_thread, "listener", None) is self._listener:
            raise Error(f"{self._url}: not from its own on_media_change, for whose end it would wait")

    def close(self) -> None:
        """Ends it: stops its threads and brings its pipeline down, within 0.1 s as a rule.

        docs/protocols.md has the exceptions. Waits for an `on_media_change` that is running. Called in that of the
        same source it changes nothing and raises Error.
        """
        if self._is_inherited():
            super().close()
            return
        self._refuse_in_handler()
        with self._turn:
            pointer, lib = self._pointer, _library().lib
            if pointer is not None and lib.gst_source_close_live_stream(pointer) != 0:
                raise Error(f"{self._url}: not from a thread of its own, for whose end it would wait")
            self._pointer = None
            # Destroyed here, unless another thread is asking for the status.
            del pointer
        with self._buffer._lock:
            if self in self._buffer._children:
                self._buffer._children.remove(self)


class RtspSource(Source):
    """rtsp://, rtsps:// (TLS), rtspt:// (TCP only), rtspu:// (UDP only), and what else rtspsrc takes."""

    _type = "SOURCE_TYPE_RTSP"

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        *,
        channel: int = 0,
        stream: int = 0,
        on_media_change: MediaChangeHandler | None = None,
        caching: int = 200,
        protocols: int = 4,
        latency: int = 2000,
        contimeout: int = 15,
        user: str = "",
        pwd: str = "",
    ) -> None:
        """Opens `url` into the tracks of `channel` and `stream`.

        on_media_change  called with a VideoInfo or AudioInfo when one has changed, on a thread of the source:
                         it must return soon, must not close this source, and must not wait for a thread that
                         does
        caching          without effect on this protocol
        protocols        transports that may be used, a bit mask: 1 UDP, 2 UDP multicast, 4 TCP (interleaved),
                         16 HTTP tunnel, which does not play alone, 32 TLS
        latency          ms of jitter buffer, up to 2147483647
        contimeout       s to wait for the server over TCP, up to 4294
        user, pwd        credentials, both or none

        Raises ArgumentError; Busy: a writer or another source has the tracks; OpenFailed: no pipeline or thread
        could be made; UseAfterClose: the buffer is closed.
        """
        _both_or_none(user=user, pwd=pwd)
        if protocols == 16:
            raise ArgumentError("protocols: nothing plays with 16 alone")
        super().__init__(
            buffer,
            url,
            channel,
            stream,
            on_media_change,
            "gst_rtsp_source_open_live_stream",
            whole("caching", caching, 0, U32),
            whole("protocols", protocols, 1, U32),
            whole("latency", latency, 0, 2**31 - 1),
            whole("contimeout", contimeout, 0, 4294),
            c_text("user", user),
            c_text("pwd", pwd),
        )


class SrtSource(Source):
    """srt://HOST:PORT with mode="caller", srt://:PORT with mode="listener", srt://HOST:PORT?localport=N with
    mode="rendezvous" and a localaddress. A mode in the location has no effect.
    """

    _type = "SOURCE_TYPE_SRT"

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        *,
        channel: int = 0,
        stream: int = 0,
        on_media_change: MediaChangeHandler | None = None,
        caching: int = 200,
        mode: str = "caller",
        streamid: str = "",
        passphrase: str = "",
        keylen: int = 0,
        latency: int = 125,
        tslatency: int = 50,
        localaddress: str = "",
    ) -> None:
        """Opens `url` into the tracks of `channel` and `stream`; the first three options as for RtspSource.

        caching       0 sets the demultiplexer latency to 0, everything else leaves it at 50 ms
        mode          "caller", "listener" or "rendezvous"
        streamid      shown to the peer; a listener admits only callers with exactly this id
        passphrase    10 to 79 characters, together with keylen
        keylen        bytes of the encryption key: 16, 24, 32, or 0 for none
        latency       ms of SRT latency, up to 2147483647
        tslatency     logged only
        localaddress  address to bind; mode="rendezvous" needs one

        Raises as RtspSource does.
        """
        if mode not in ("caller", "listener", "rendezvous"):
            raise ArgumentError(f"mode: {mode!r} is not caller, listener or rendezvous")
        if keylen not in (0, 16, 24, 32):
            raise ArgumentError(f"keylen: {keylen} is not 0, 16, 24 or 32")
        if bool(passphrase) != bool(keylen):
            raise ArgumentError("passphrase and keylen: one of them alone has no effect, and the stream would not be encrypted")
        if passphrase and not 10 <= len(passphrase.encode()) <= 79:
            raise ArgumentError("passphrase: not 10 to 79 characters")
        has_host = _authority(url)[:1] not in ("", ":")
        has_port = re.search("[?&]localport=", url) is not None
        # srtsrc binds a random port.
        if mode == "listener" and has_host and not has_port:
            raise ArgumentError("url: a listener's has no host, or a localport as well")
        if mode != "listener" and not has_host:
            raise ArgumentError('url: no host, which needs mode="listener"')
        if mode == "rendezvous" and not has_port:
            raise ArgumentError("url: rendezvous needs a localport in it")
        if mode == "rendezvous" and not localaddress and not re.search("[?&]localaddress=", url):
            raise ArgumentError("localaddress: rendezvous needs one")
        super().__init__(
            buffer,
            url,
            channel,
            stream,
            on_media_change,
            "gst_srt_source_open_live_stream",
            whole("caching", caching, 0, U32),
            c_text("mode", mode),
            c_text("streamid", streamid),
            c_text("passphrase", passphrase),
            keylen,
            whole("latency", latency, 0, 2**31 - 1),
            whole("tslatency", tslatency, 0, U32),
            c_text("localaddress", localaddress),
        )


class RtmpSource(Source):
    """rtmp:// and rtmps://. A process that plays rtmps:// needs a policy for GnuTLS (docs/protocols.md)."""

    _type = "SOURCE_TYPE_RTMP"

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        *,
        channel: int = 0,
        stream: int = 0,
        on_media_change: MediaChangeHandler | None = None,
        caching: int = 200,
        contimeout: int = 10,
        idle_timeout: int = 0,
        user: str = "",
        pwd: str = "",
        token: str = "",
    ) -> None:
        """Opens `url` into the tracks of `channel` and `stream`; the first three options as for RtspSource.

        caching       without effect on this protocol
        contimeout    s to wait for the server
        idle_timeout  s without data after which the session ends, 0 never; RTMPS needs 0. gst-source takes 30
        user, pwd     credentials, both or none; none for RTMPS, which does not connect with them
        token         secure token; none for RTMPS

        Raises as RtspSource does.
        """
        _both_or_none(user=user, pwd=pwd)
        # The library compares it as it stands.
        if c_text("url", url).startswith(b"rtmps://"):
            for name, given in (("user and pwd", user), ("token", token), ("idle_timeout", idle_timeout)):
                if given:
                    raise ArgumentError(f"{name}: not for rtmps")
        super().__init__(
            buffer,
            url,
            channel,
            stream,
            on_media_change,
            "gst_rtmp_source_open_live_stream",
            whole("caching", caching, 0, U32),
            whole("contimeout", contimeout, 0, 2**31 - 1),
            whole("idle_timeout", idle_timeout, 0, 2**31 - 1),
            c_text("user", user),
            c_text("pwd", pwd),
            c_text("token", token),
        )


class UdpSource(Source):
    """udp://ADDRESS:PORT of an MPEG transport stream; a multicast address joins the group."""

    _type = "SOURCE_TYPE_UDP"

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        *,
        channel: int = 0,
        stream: int = 0,
        on_media_change: MediaChangeHandler | None = None,
        caching: int = 200,
        ts_latency: int = 700,
        mtu: int = 1492,
    ) -> None:
        """Opens `url` into the tracks of `channel` and `stream`; the first three options as for RtspSource.

        caching     0 sets the demultiplexer latency to 0
        ts_latency  ms of demultiplexer latency, up to 2147483647
        mtu         bytes of the largest datagram, up to 2147483647

        Five seconds without a datagram end the session; it is connected again about three seconds later.
        Raises as RtspSource does.
        """
        port = re.fullmatch(r".*:([0-9]{1,5})", _authority(url), re.S)
        # udpsrc takes its default port for a location without one.
        if port is None or not 1 <= int(port[1]) <= 65535:
            raise ArgumentError("url: no port from 1 to 65535")
        super().__init__(
            buffer,
            url,
            channel,
            stream,
            on_media_change,
            "gst_udp_source_open_live_stream",
            whole("caching", caching, 0, U32),
            whole("ts_latency", ts_latency, 0, 2**31 - 1),
            whole("mtu", mtu, 0, 2**31 - 1),
        )


class HlsSource(Source):
    """http:// and https:// of an HLS playlist whose segments are MPEG transport streams."""

    _type = "SOURCE_TYPE_HLS"

    def __init__(
        self,
        buffer: Buffer,
        url: str,
        *,
        channel: int = 0,
        stream: int = 0,
        on_media_change: MediaChangeHandler | None = None,
        caching: int = 200,
        islive: bool = False,
        timeout: int = 15,
        retries: int = 3,
        proxy: str = "",
        proxy_id: str = "",
        proxy_pwd: str = "",
        user_agent: str = "",
        user_id: str = "",
        user_pw: str = "",
    ) -> None:
        """Opens `url` into the tracks of `channel` and `stream`; the first three options as for RtspSource.

        caching              0 sets the demultiplexer latency to 0, everything else leaves it at 50 ms
        islive               the playlist's source behaves as a live source
        timeout              s until a silent request is given up, up to 3600
        retries              attempts of a failed request, -1 for no end
        proxy                URI of an HTTP proxy
        proxy_id, proxy_pwd  credentials for it, both or none
        user_agent           HTTP user agent
        user_id, user_pw     credentials for the web server of url, sent when it asks

        Raises as RtspSource does, OpenFailed also for a proxy that is no URI.
        """
        _both_or_none(proxy_id=proxy_id, proxy_pwd=proxy_pwd)
        if proxy_id and not proxy:
            raise ArgumentError("proxy_id and proxy_pwd have no effect without proxy")
        super().__init__(
            buffer,
            url,
            channel,
            stream,
            on_media_change,
            "gst_hls_source_open_live_stream",
            whole("caching", caching, 0, U32),
            int(islive),
            whole("timeout", timeout, 0, 3600),
            whole("retries", retries, -1, 2**31 - 1),
            c_text("proxy", proxy),
            c_text("proxy_id", proxy_id),
            c_text("proxy_pwd", proxy_pwd),
            c_text("user_agent", user_agent),
            c_text("user_id", user_id),
            c_text("user_pw", user_pw),
        )


_CLASSES: dict[str, Callable[..., Source]] = {
    "udp": UdpSource,
    "rtsp": RtspSource,
    "rtsps": RtspSource,
    "rtspt": RtspSource,
    "rtspu": RtspSource,
    "srt": SrtSource,
    "rtmp": RtmpSource,
    "rtmps": RtmpSource,
    "http": HlsSource,
    "https": HlsSource,
}


def open_source(
    buffer: Buffer,
    url: str,
    *,
    channel: int = 0,
    stream: int = 0,
    on_media_change: MediaChangeHandler | None = None,
    **options: Any,
) -> Source:
    """Opens a live stream by the class that its scheme stands for: `open_source(buffer,
    "rtsp://camera.example/live", latency=500)`.

    `options` are those of the class: RtspSource, SrtSource, RtmpSource, UdpSource, HlsSource. Raises as they
    do; ArgumentError also for another scheme, TypeError for an option that the class does not have.
    """
    scheme, separator, _ = url.partition("://")
    if not separator or scheme.lower() not in _CLASSES:
        raise ArgumentError(f"{_public(url)}: not a stream URL; known are {', '.join(_CLASSES)}")
    return _CLASSES[scheme.lower()](buffer, url, channel=channel, stream=stream, on_media_change=on_media_change, **options)
