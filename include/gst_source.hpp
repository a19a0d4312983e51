// gst_source.hpp - live network streams and their shared buffer for C++17 and later, header-only.
//
// It wraps the two C interfaces gst_source_api.h (library gst_source) and shb.h (library shb). Their rules
// hold here as well. This header adds ownership, results with a reason, typed times, and checks before an
// open.
//
//     auto buffer = gst_source::Buffer::create("camera");
//     auto source = gst_source::Source::open(*buffer, "udp://239.1.2.3:5000");
//     if (!source) std::fputs(source.message().c_str(), stderr);
//
// Any process then reads the frames:
//
//     auto map = gst_source::Map::attach("camera");
//     auto reader = gst_source::Reader::open(*map, {});          // video of channel 0, stream 0
//     for (const gst_source::Frame &frame : reader->frames())    // until the host is gone
//         std::fwrite(frame.data.data(), 1, frame.data.size(), stdout);
//
// Compile with `pkg-config --cflags --libs gst-source-cpp`. A program that uses no Source links libshb alone.
// The guide is docs/cpp.md.
//
// RESULTS. Whatever can fail returns a Result: a value, or an Error with a code and a text. No function
// throws, with two exceptions: access to the value of a failed Result throws BadResult, and the containers of
// the standard library throw std::bad_alloc. Every function of an object that was closed, moved from or made
// by its default constructor fails with Errc::not_open; "Errors" in a comment names what else can happen.
//
// OWNERSHIP. Buffer, Source, Writer, Map, Reader, BorrowedFrame, Set and Follow close what they own, and can
// be moved but not copied. They can go in any order: a source keeps its buffer, a reader keeps its map.
//
// THREADS. Different objects are independent. Buffer, Map and the const functions of Source may be used by
// several threads at once. Writer, Reader, Set and Follow belong to one thread at a time; a Set and its
// readers to the same one. No object may be closed, assigned to or destroyed while another thread uses it.
//
// NAMES. Types are in CamelCase; everything else is in snake_case. Options have the names of the C interface.
#ifndef GST_SOURCE_HPP
#define GST_SOURCE_HPP

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "gst_source_api.h"
#include "shb.h"

namespace gst_source {

// ---- Results ----------------------------------------------------------------------------------------------

enum class Errc {
    ok = 0,
    not_open,          // the object was closed, moved from, or never opened
    invalid_argument,  // the text says which one and what it may be
    unknown_scheme,    // no protocol plays a URL of this scheme
    no_such_track,     // channel or stream outside of the buffer's geometry
    track_in_use,      // the track has a writer, or a Source that will write it
    refused,           // libgst_source did not open; its ERR line on standard output says why
    own_thread,        // called on a thread of the source itself, which would wait for itself
    exists,            // a buffer of this name has a creator that is alive
    not_found,         // no such buffer, or no description yet
    no_space,          // not enough shared memory; room_for() says how much there is
    wrong_version,     // the buffer has another layout, or the file is no shared buffer
    wrong_owner,       // the buffer belongs to another user than the one demanded
    corrupt,           // the buffer contradicts itself
    too_big,           // the frame is larger than the track, or than the memory given
    timeout,           // nothing came within the time given
    closed,            // the creator has closed the buffer or is gone, and everything held has been read
    overrun,           // the frame was overwritten while it was in use
    system             // a system call failed: Error::system_error()
};

// Why something failed. A default-made one says Errc::ok.
class Error {
  public:
    Error() = default;
    Error(Errc code, std::string text, int system_error = 0)
        : code_(code), system_error_(system_error), text_(std::move(text)) {}

    Errc code() const noexcept { return code_; }
    // One line for people: what was asked for, and what is wrong with it. It never holds a password.
    std::string message() const { return text_; }
    // errno of the system call that failed, 0 when none did.
    int system_error() const noexcept { return system_error_; }

  private:
    Errc code_ = Errc::ok;
    int system_error_ = 0;
    std::string text_;
};

// Thrown by access to the value of a failed Result, and by nothing else.
class BadResult : public std::runtime_error {
  public:
    explicit BadResult(Error error) : std::runtime_error(error.message()), error_(std::move(error)) {}
    const Error &error() const noexcept { return error_; }

  private:
    Error error_;
};

// A value, or the reason why there is none. `if (result)` asks; value(), * and -> give the value or throw
// BadResult.
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : value_(std::move(value)) {}
    Result(Error error) : error_(std::move(error)) {}

    bool has_value() const noexcept { return value_.has_value(); }
    explicit operator bool() const noexcept { return has_value(); }
    T &value() & { return *checked(this); }
    const T &value() const & { return *checked(this); }
    T &&value() && { return std::move(*checked(this)); }
    T &operator*() & { return value(); }
    const T &operator*() const & { return value(); }
    T &&operator*() && { return std::move(*this).value(); }
    T *operator->() { return &value(); }
    const T *operator->() const { return &value(); }

    // Errc::ok when there is a value.
    Errc code() const noexcept { return error_.code(); }
    const Error &error() const noexcept { return error_; }
    std::string message() const { return error_.message(); }

  private:
    template <typename Self>
    static auto checked(Self *self) -> decltype(&self->value_.value()) {
        if (!self->value_) {
            throw BadResult(self->error_);
        }
        return &*self->value_;
    }

    std::optional<T> value_;
    Error error_;
};

// Done, or the reason why not. value() throws BadResult when it was not done.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : error_(std::move(error)) {}

    bool has_value() const noexcept { return error_.code() == Errc::ok; }
    explicit operator bool() const noexcept { return has_value(); }
    void value() const {
        if (!has_value()) {
            throw BadResult(error_);
        }
    }

    Errc code() const noexcept { return error_.code(); }
    const Error &error() const noexcept { return error_; }
    std::string message() const { return error_.message(); }

  private:
    Error error_;
};

// ---- Times, bytes, tracks ---------------------------------------------------------------------------------

// A time of CLOCK_MONOTONIC, which is std::chrono::steady_clock on Linux.
using MonotonicTime = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;
// A time of CLOCK_REALTIME: nanoseconds since 1970-01-01 UTC.
using WallTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// How long a call may wait. Less than 0 ms is no_wait, 2^31 ms and more are forever.
using Timeout = std::chrono::milliseconds;
inline constexpr Timeout no_wait = Timeout::zero();
inline constexpr Timeout forever = Timeout::max();

// Bytes that belong to somebody else. C++20's std::span<const std::uint8_t> can be made of it.
class ByteView {
  public:
    constexpr ByteView() = default;
    constexpr ByteView(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}
    // Of a container of bytes: a vector, an array, a span.
    template <typename Container, typename = std::enable_if_t<std::is_convertible_v<
                                      decltype(std::declval<const Container &>().data()), const std::uint8_t *>>>
    constexpr ByteView(const Container &bytes) : data_(bytes.data()), size_(bytes.size()) {}

    constexpr const std::uint8_t *data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr const std::uint8_t *begin() const noexcept { return data_; }
    constexpr const std::uint8_t *end() const noexcept { return data_ + size_; }
    // `index` is below size().
    constexpr const std::uint8_t &operator[](std::size_t index) const { return data_[index]; }

  private:
    const std::uint8_t *data_ = nullptr;
    std::size_t size_ = 0;
};

enum class Kind { video = SHB_VIDEO, audio = SHB_AUDIO };

// One track of a buffer.
struct Track {
    std::uint32_t channel = 0;  // below Geometry::channels
    std::uint32_t stream = 0;   // below Geometry::streams
    Kind kind = Kind::video;
};

// Size of a buffer.
struct Geometry {
    std::uint32_t channels = 1;               // 1 to 1024
    std::uint32_t streams = 1;                // of each channel, 1 to 64
    std::uint32_t video_frames = 1024;        // frames that a video track can hold; a power of two, 16 to 65536
    std::uint32_t audio_frames = 1024;        // the same for an audio track
    std::uint64_t video_bytes = 8U << 20U;    // bytes that a video track can hold; a power of two, 64 KiB to 1 GiB
    std::uint64_t audio_bytes = 512U << 10U;  // the same for an audio track
};

// Whether a track has a stream.
enum class Presence {
    unknown = SHB_PRESENCE_UNKNOWN,    // the source does not know its streams yet
    expected = SHB_PRESENCE_EXPECTED,  // there is such a stream
    absent = SHB_PRESENCE_ABSENT       // nothing will come unless the source changes
};

// Counters of a track since its writer opened it, unless noted.
struct TrackStats {
    std::optional<std::int32_t> writer_pid;  // in the creator's PID namespace; empty while no writer has the track open
    std::uint64_t epoch = 0;                 // 0 when the track never had a writer
    std::uint64_t frames = 0, bytes = 0, key_frames = 0;
    std::uint64_t left_out = 0;  // frames larger than the track, which were not written
    std::uint64_t held = 0;      // frames that a reader can have now
    std::uint64_t total_frames = 0, total_bytes = 0, total_left_out = 0;  // since the buffer was made
    std::optional<std::chrono::nanoseconds> age;                          // of the last frame; empty when there is none
    std::uint32_t bitrate = 0;                             // bits per second over the last second in which data came
    double fps = 0;                                        // frames per second over the same time
    std::optional<std::chrono::nanoseconds> clock_offset;  // as in Frame, for the next frame
    Presence presence = Presence::unknown;
};

enum class ScanType { progressive, interlaced, other };

// What a track carries, as the writer read it from the stream.
struct Description {
    std::uint32_t serial = 0;                    // 0 while unknown; rises by one at every change within one epoch
    std::int32_t media = 0;                      // number of the codec: 48 H.264, 64 H.265, 21 AAC, ... (docs/embedding.md)
    std::string code{};                          // encoding name: "H264", "AAC", ...
    std::string profile{};                       // may be empty
    std::string level{};                         // may be empty
    std::string format{};                        // "byte-stream", "adts", "raw", "loas"; empty where a codec has only one
    std::int32_t width = 0, height = 0;          // video: pixels
    std::int32_t fps_n = 0, fps_d = 1;           // video: announced frame rate as a fraction, 0/1 when not announced
    ScanType scan_type = ScanType::progressive;  // video
    std::int32_t ref_frames = 0;                 // video: reference frames
    // Video: how many frames can come before one that is shown earlier; 0: in order; empty: not known.
    std::optional<std::int32_t> reorder_frames{};
    std::int32_t sample_rate = 0;        // audio: Hz
    std::int32_t channels = 0;           // audio
    std::int32_t samples_per_frame = 0;  // audio: of each channel
    std::int32_t nominal_bitrate = 0;    // audio: bits per second as announced, 0 when not
    // What a decoder or a muxer needs before the first frame. Its form by codec: docs/shared-buffer.md.
    std::vector<std::uint8_t> codec_data{};
};

// One frame: an access unit of video, or an audio frame.
struct Frame {
    ByteView data;               // valid as long as what it was read into, or as it is borrowed
    std::uint64_t sequence = 0;  // number of the frame within the epoch, from 0
    std::uint64_t epoch = 0;     // rises whenever a new writer opens the track; sequence begins anew
    // Times of the host's pipeline, which restart with each epoch.
    std::optional<std::chrono::nanoseconds> pts, dts, duration;
    // pts + clock_offset and dts + clock_offset are times of CLOCK_MONOTONIC; empty when not known.
    std::optional<std::chrono::nanoseconds> clock_offset;
    MonotonicTime arrival;          // when the frame was written
    WallTime wall;                  // the same moment by the calendar
    std::uint64_t lost = 0;         // frames that this reader did not get since its previous frame
    std::uint64_t lost_before = 0;  // how many of them belong to earlier epochs
    std::uint64_t left_out = 0;     // frames larger than the track, which were never written, since the previous frame
    std::uint32_t description = 0;  // serial of the description that the frame belongs to, 0 for none
    bool key = false;               // decoding can start here; true for every audio frame
    bool discont = false;           // the stream has a gap right before this frame
    bool header = false;            // headers only, no picture or sound

    // The one time axis of video and audio, of all epochs and of all sources of a machine. Empty when not
    // known.
    std::optional<MonotonicTime> pts_time() const { return on_clock(pts); }
    std::optional<MonotonicTime> dts_time() const { return on_clock(dts); }

  private:
    std::optional<MonotonicTime> on_clock(const std::optional<std::chrono::nanoseconds> &time) const {
        return time && clock_offset ? std::optional(MonotonicTime(*time + *clock_offset)) : std::nullopt;
    }
};

// Counters of one reader since it was opened. frames + lost + waiting = offered, at any time.
struct ReaderStats {
    std::uint64_t frames = 0, bytes = 0, key_frames = 0;  // delivered
    std::uint64_t lost = 0;                               // the sum of Frame::lost
    std::uint64_t losses = 0;                             // frames delivered with a `lost` above 0
    std::uint64_t left_out = 0;                           // the sum of Frame::left_out
    std::uint64_t epochs = 0;                             // epochs begun, the first included
    std::uint64_t waiting = 0;                            // frames written that this reader has not read yet
    std::uint64_t offered = 0;                            // frames written since the reader began
};

// A buffer of this machine.
struct BufferInfo {
    std::uint32_t version = 0;     // of its layout; `heartbeat_age` and what follows is empty unless it is this library's
    std::int32_t creator_pid = 0;  // in the creator's PID namespace
    bool pid_is_ours = false;      // creator_pid means the same to the caller
    bool alive = false;            // the creator runs and has the buffer open
    std::uint32_t owner = 0;       // user that the buffer belongs to
    std::uint32_t group = 0;       // group of the file
    std::uint32_t mode = 0;        // permissions of the file
    std::string name;              // with its leading "/"
    std::chrono::nanoseconds heartbeat_age{};  // since the creator's last heartbeat (every 250 ms while it runs)
    std::uint64_t total_bytes = 0;             // shared memory that the buffer takes
    Geometry geometry;
};

// ---- The creator's side: Buffer ---------------------------------------------------------------------------

namespace detail {
struct BufferCore;
struct SourceCore;
struct WriterCore;
struct CloseSource {
    void operator()(SourceCore *state) const noexcept;
};
struct Release {
    void operator()(shb_map_t *map) const noexcept { shb_detach(map); }
    void operator()(shb_reader_t *reader) const noexcept { shb_reader_close(reader); }
    void operator()(shb_set_t *set) const noexcept { shb_set_close(set); }
    void operator()(shb_follow_t *follow) const noexcept { shb_follow_close(follow); }
};
}  // namespace detail

// Who may read a buffer. Nobody but its user can write it.
struct Access {
    std::uint32_t mode = 0600;             // 0600, and 0040 and 0004 for readers of the group and of all others
    std::optional<std::uint32_t> group{};  // of the files; the creator must be a member. Empty: the process's own
};

// A shared buffer that this process made. Sources and writers fill it, readers of any process attach to its
// name.
class Buffer {
  public:
    Buffer() = default;
    Buffer(Buffer &&) noexcept = default;
    Buffer &operator=(Buffer &&) noexcept = default;
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() = default;

    // Makes the buffer. `name` is 1 to 200 characters of [A-Za-z0-9._-]. The memory is reserved at once. A
    // buffer of the same name whose creator has died is replaced.
    // Errors: invalid_argument, exists, no_space, system.
    static Result<Buffer> create(const std::string &name, const Geometry &geometry = {}, const Access &access = {});

    bool is_open() const noexcept { return state_ != nullptr; }
    // Gives the buffer up, as the destructor does. Name and memory go at once, or, while sources and writers
    // are open in it, together with the last one of them.
    void close() noexcept { state_.reset(); }

    // With its leading "/"; empty when the buffer is not open.
    std::string name() const;
    Result<Geometry> geometry() const;
    // Errors: no_such_track.
    Result<TrackStats> stats(const Track &track) const;
    // The newest description, without its codec data: Map::description has them.
    // Errors: no_such_track; not_found: none yet.
    Result<Description> description(const Track &track) const;
    // Says whether a track will have a stream, as far as the host knows. A writer that opens it makes it
    // `expected`.
    // Errors: no_such_track, invalid_argument.
    Result<void> set_presence(const Track &track, Presence presence);
    // A session whose track has carried data and gets none for `silence` ends, and its source connects again.
    // 0 is off, the largest is 2^31 ms. Meant for peers whose end no protocol notices.
    // Errors: invalid_argument.
    Result<void> set_stall_watch(std::chrono::milliseconds silence);
    Result<std::chrono::milliseconds> stall_watch() const;

    // For the C interface; stays this object's. Null when the buffer is not open.
    shb_buffer_t *native_handle() const noexcept;

  private:
    friend class Source;
    friend class Writer;
    explicit Buffer(std::shared_ptr<detail::BufferCore> state) : state_(std::move(state)) {}
    std::shared_ptr<detail::BufferCore> state_;
};

// Shared memory that a buffer takes, and how much is free.
struct Room {
    std::uint64_t needed = 0;                // bytes
    std::optional<std::uint64_t> available;  // bytes; empty: the file system has no limit of its own
};
// Errors: invalid_argument, system.
Result<Room> room_for(const Geometry &geometry = {});

// ---- Sources ----------------------------------------------------------------------------------------------

enum class Protocol { rtsp, rtmp, srt, udp, hls };

// The protocol that plays a URL, by its scheme in any case: udp; rtsp, rtsps, rtspt, rtspu; srt; rtmp, rtmps;
// http and https (HLS). Empty for other schemes, and for a URL with nothing behind its scheme.
std::optional<Protocol> protocol_of(std::string_view url);

// Transports that RTSP may use; joined by |.
namespace rtsp_transport {
inline constexpr std::uint32_t udp = 1;
inline constexpr std::uint32_t udp_multicast = 2;
inline constexpr std::uint32_t tcp = 4;  // interleaved in the connection of the requests
inline constexpr std::uint32_t http = 16;
inline constexpr std::uint32_t tls = 32;
}  // namespace rtsp_transport

// The options of each protocol. What they do, as measured: docs/protocols.md.
struct RtspOptions {
    std::uint32_t protocols = rtsp_transport::tcp;  // not 0 and not `http` alone, with which nothing plays
    std::chrono::milliseconds latency{2000};        // jitter buffer; 0 to 2^31 - 1 ms
    std::chrono::seconds contimeout{15};            // for the server's answers over TCP; 0 (without end) to 4294 s
};

enum class SrtMode { caller, listener, rendezvous };

struct SrtOptions {
    SrtMode mode = SrtMode::caller;           // a listener's URL is srt://:PORT
    std::string streamid{};                   // shown to the peer; a listener admits callers of this id only
    std::string passphrase{};                 // 10 to 79 characters, together with keylen
    std::uint32_t keylen = 0;                 // bytes: 16, 24 or 32; 0 without a passphrase
    std::chrono::milliseconds latency{125};   // SRT's receive buffer; 0 to 2^31 - 1 ms
    std::chrono::milliseconds tslatency{50};  // logged only
    std::string localaddress{};               // address to bind; rendezvous needs one, and ?localport=N in its URL
};

struct RtmpOptions {
    std::chrono::seconds contimeout{10};  // to connect; 0 to 2^31 - 1 s
    // Without data until the session ends; 0: never, which rtmps needs. The tool gst-source takes 30 s.
    std::chrono::seconds idle_timeout{0};
    std::string token{};  // secure token; none for rtmps
};

struct UdpOptions {
    std::chrono::milliseconds ts_latency{700};  // of the demultiplexer; 0 to 2^31 - 1 ms
    std::uint32_t mtu = 1492;                   // largest datagram, bytes; below 2^31
};

struct HlsOptions {
    bool islive = false;                  // the playlist's HTTP source behaves as a live source
    std::chrono::seconds timeout{15};     // until a silent request is given up; 0 to 3600 s
    std::int32_t retries = 3;             // attempts of a failed request, -1 without end
    std::string proxy{};                  // URI of an HTTP proxy
    std::string proxy_id{}, proxy_pwd{};  // for the proxy: both, or none
    std::string user_agent{};
};

// What the media-change callback gets, and what Source::media() reads.
struct VideoInfo {
    std::string code;                    // encoding name: "H264", "H265"; empty while unknown
    std::int32_t width = 0, height = 0;  // pixels
    double fps = 0;                      // as announced, 0 when not
    std::uint8_t ref_frames = 0;
    ScanType scan_type = ScanType::progressive;
};
struct AudioInfo {
    std::string code;              // encoding name: "AAC", "OPUS", ...; empty while unknown
    std::int32_t sample_rate = 0;  // Hz
    std::int32_t channels = 0;
    std::int32_t samples_per_frame = 0;  // of each channel
    std::int32_t nominal_bitrate = 0;    // bits per second as announced, 0 when not
};
struct MediaInfo {
    VideoInfo video;
    AudioInfo audio;
};
// One side of the media has changed: exactly one of the two is there.
struct MediaChange {
    std::optional<VideoInfo> video;
    std::optional<AudioInfo> audio;
};

// Called when the parameters of video or audio have changed. Runs on a streaming thread of the source, with
// no lock held; video and audio may call at the same time. It must return soon and must not wait for a thread
// that closes this source. Source::close() fails there with own_thread. An exception that leaves it is
// caught: the stream goes on, and Source::take_exception() hands it to the host.
using MediaCallback = std::function<void(const MediaChange &)>;

// How a source is opened. Only the options of the URL's protocol count.
struct SourceOptions {
    std::uint32_t channel = 0, stream = 0;  // the tracks that the source writes: video and audio of this stream
    std::uint32_t caching = 200;            // 0 sets the demultiplexer latency of UDP, SRT and HLS to 0
    std::string user{}, password{};         // RTSP, RTMP: both, or none. RTMPS: none. HLS: each by itself
    RtspOptions rtsp{};
    SrtOptions srt{};
    RtmpOptions rtmp{};
    UdpOptions udp{};
    HlsOptions hls{};
    MediaCallback on_media_change{};  // may be empty; stays the same as long as the source is open
};

enum class SourceState {
    none,       // nothing has run yet
    start,      // the worker has started
    connected,  // the pipeline plays. It does not say that data comes: look at TrackStats::age
    reconnect,  // the session has ended and is built again; SRT also until its first data
    stop        // closed
};

struct SourceStatus {
    SourceState state = SourceState::none;
    std::string video_code;              // empty while unknown
    std::uint32_t video_bitrate = 0;     // measured, bits per second
    std::int32_t width = 0, height = 0;  // pixels
    double fps = 0;                      // as announced
    double video_real_fps = 0;           // measured
    std::string audio_code;              // empty while unknown
    std::uint32_t audio_bitrate = 0;     // measured, bits per second
    std::int32_t sample_rate = 0;        // Hz
    std::int32_t channels = 0;
    double audio_real_fps = 0;  // measured audio frames per second
};

// One stream that is kept coming: it connects again and again until it is closed.
class Source {
  public:
    Source() = default;

    // Opens `url` into the tracks options.channel and options.stream of `buffer`. Returns as soon as the
    // pipeline is built; the network is not waited for. The first source of a process initialises GStreamer.
    //
    // Before anything is opened, this checks the scheme, that the buffer has the tracks, that nobody else
    // writes them, and the options as the structs above describe them.
    // Errors: unknown_scheme; no_such_track; track_in_use; invalid_argument; refused; not_open: of the
    // buffer.
    static Result<Source> open(const Buffer &buffer, const std::string &url, const SourceOptions &options = {});

    bool is_open() const noexcept { return state_ != nullptr; }
    // Ends the stream and frees its tracks. Waits for the pipeline (5 to 300 ms as a rule, docs/protocols.md)
    // and for a callback that is running.
    // Errors: own_thread: nothing has changed.
    //
    // The destructor does the same. On a thread of the source itself it hands the work to a thread of its own
    // and returns at once. From then on no callback begins; one that runs goes on. The end of the process
    // waits for that thread, up to 5 s.
    Result<void> close();

    // Errors: none but not_open.
    Result<SourceStatus> status() const;
    Result<MediaInfo> media() const;
    // Of its video or audio track.
    Result<TrackStats> stats(Kind kind) const;
    // The first exception that has left the callback since the last call; null when there was none. Any
    // thread.
    std::exception_ptr take_exception() const;

    // For the C interface; stays this object's, and must not be opened, closed or given another callback
    // there. Null when the source is not open.
    void *native_handle() const noexcept;

  private:
    using State = std::unique_ptr<detail::SourceCore, detail::CloseSource>;
    explicit Source(State state) : state_(std::move(state)) {}
    State state_;
};

// ---- Writing one's own frames -----------------------------------------------------------------------------

// What goes with a frame that is written.
struct FrameInfo {
    // Not negative; empty when not known.
    std::optional<std::chrono::nanoseconds> pts{}, dts{}, duration{};

    bool key = true;       // decoding can start here; true for every audio frame
    bool discont = false;  // the stream has a gap right before this frame
    bool header = false;   // headers only
};

// A track that this process writes itself, without a Source.
class Writer {
  public:
    Writer();
    Writer(Writer &&) noexcept;
    Writer &operator=(Writer &&) noexcept;
    ~Writer();

    // Begins a new epoch of the track.
    // Errors: no_such_track; track_in_use; system; not_open: of the buffer.
    static Result<Writer> open(const Buffer &buffer, const Track &track);
    bool is_open() const noexcept { return state_ != nullptr; }
    // Closes the track; what was written stays readable. Waits for a stall handler that is running.
    void close() noexcept;

    // What the frames from now on are. `serial` is ignored. The same as before is no change.
    // Errors: invalid_argument: a text that is too long; too_big: more than 8192 bytes of codec data.
    Result<void> describe(const Description &description);
    // How the time stamps of the frames from now on relate to CLOCK_MONOTONIC; empty: not known.
    Result<void> set_clock(std::optional<std::chrono::nanoseconds> clock_offset);
    // Writes one frame. Never waits.
    // Errors: too_big: the frame is left out, which readers see; invalid_argument: no bytes, a time below 0.
    Result<void> write(ByteView data, const FrameInfo &info = {});
    // Publishes measured rates: bits per second, frames per second.
    Result<void> set_rates(std::uint32_t bitrate, double fps);
    // What to call when the stall watch finds this track without data; empty: nothing. Runs on a thread of
    // its own; it must not close or assign this writer or set another handler. An exception that leaves it is
    // caught and dropped. When this function has returned, the handler before is not running any more.
    Result<void> on_stall(std::function<void(std::chrono::milliseconds)> handler);

    // For the C interface; stays this object's.
    shb_writer_t *native_handle() const noexcept;

  private:
    explicit Writer(std::unique_ptr<detail::WriterCore> state);
    std::unique_ptr<detail::WriterCore> state_;
};

// ---- The readers' side: Map, Reader -----------------------------------------------------------------------

// A buffer as a reader sees it, of this process or of another one. Read-only.
class Map {
  public:
    Map() = default;

    // Attaches to the buffer `name`; with `owner` only to one of that user.
    // Errors: invalid_argument, not_found, wrong_version, wrong_owner, corrupt, system.
    static Result<Map> attach(const std::string &name, std::optional<std::uint32_t> owner = std::nullopt);
    bool is_open() const noexcept { return map_ != nullptr; }
    // Readers that are open go on.
    void close() noexcept { map_.reset(); }

    // These look at the memory alone, without a system call while the creator's heartbeat is young.
    // Errors: corrupt.
    Result<Geometry> geometry() const;
    Result<BufferInfo> info() const;
    // Errors: no_such_track, corrupt.
    Result<TrackStats> stats(const Track &track) const;
    // The newest description of a track, with its codec data.
    // Errors: no_such_track; not_found: none yet; corrupt.
    Result<Description> description(const Track &track) const;
    // The creator has the buffer open. A creator that was killed counts as alive for up to half a second, one
    // in another PID namespace for up to five. False when the map is not open.
    bool alive() const noexcept;

    // For the C interface; stays this object's.
    shb_map_t *native_handle() const noexcept { return map_.get(); }

  private:
    explicit Map(shb_map_t *map) : map_(map) {}
    std::unique_ptr<shb_map_t, detail::Release> map_;
};

// Where a reader starts, and where it goes on after it has lost frames.
enum class Start {
    oldest = SHB_START_OLDEST,  // at the oldest frame held; after a loss again at the oldest
    newest = SHB_START_NEWEST,  // at the next frame to be written; after a loss at the newest one held
    key = SHB_START_KEY         // at the newest key frame held, or the next one to come; after a loss the same
};

// A place in a track. Times are those of arrival.
class Position {
  public:
    static Position oldest() { return {SHB_SEEK_OLDEST, {}}; }  // the oldest frame held
    static Position newest() { return {SHB_SEEK_NEWEST, {}}; }  // the next frame to be written
    static Position key() { return {SHB_SEEK_KEY, {}}; }        // the newest key frame held, or the next one to come
    // The newest key frame that arrived at least so long ago, at or before this time. When none is held from
    // so long ago, the oldest one held; when none is held at all, the next one to come.
    static Position back(std::chrono::nanoseconds time) { return {SHB_SEEK_BACK, time}; }
    static Position at(MonotonicTime time) { return {SHB_SEEK_MONOTONIC, time.time_since_epoch()}; }
    static Position at(WallTime time) { return {SHB_SEEK_WALL, time.time_since_epoch()}; }

    shb_seek_t native_seek() const noexcept { return seek_; }
    std::chrono::nanoseconds time() const noexcept { return time_; }

  private:
    Position(shb_seek_t seek, std::chrono::nanoseconds time) : seek_(seek), time_(time) {}
    shb_seek_t seek_;
    std::chrono::nanoseconds time_;
};

// A frame that is read where it lies. The writer does not wait: the bytes may change while they are looked
// at. What was made of them counts only when give_back() has said so.
class BorrowedFrame {
  public:
    BorrowedFrame() = default;
    BorrowedFrame(BorrowedFrame &&other) noexcept = default;
    BorrowedFrame &operator=(BorrowedFrame &&other) noexcept;
    BorrowedFrame(const BorrowedFrame &) = delete;
    BorrowedFrame &operator=(const BorrowedFrame &) = delete;
    // Gives the frame back.
    ~BorrowedFrame();

    // Writing through its data is a SIGSEGV. Must not be used after give_back().
    const Frame &frame() const noexcept { return frame_; }
    const Frame &operator*() const noexcept { return frame_; }
    const Frame *operator->() const noexcept { return &frame_; }

    // Ends the use of the frame. The reader moves on.
    // Errors: overrun: the frame was not whole all the time, and is in the `lost` of the next one; corrupt;
    // not_open: it has been given back already.
    Result<void> give_back();

  private:
    friend class Reader;
    BorrowedFrame(std::shared_ptr<shb_reader_t> reader, const Frame &frame) : reader_(std::move(reader)), frame_(frame) {}
    std::shared_ptr<shb_reader_t> reader_;
    Frame frame_;
};

// The frames of a reader for a range-based for, which ends at the first error: error() says which one. Owns
// the memory of the frame that it stands at.
class FrameRange {
  public:
    class Sentinel {};
    class Iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Frame;
        using difference_type = std::ptrdiff_t;
        using pointer = const Frame *;
        using reference = const Frame &;

        Iterator() = default;
        reference operator*() const { return range_->frame_; }
        pointer operator->() const { return &range_->frame_; }
        Iterator &operator++() {
            range_->next();
            return *this;
        }
        void operator++(int) { range_->next(); }
        friend bool operator==(const Iterator &it, Sentinel) { return it.at_end(); }
        friend bool operator!=(const Iterator &it, Sentinel) { return !it.at_end(); }
        friend bool operator==(Sentinel, const Iterator &it) { return it.at_end(); }
        friend bool operator!=(Sentinel, const Iterator &it) { return !it.at_end(); }

      private:
        friend class FrameRange;
        explicit Iterator(FrameRange *range) : range_(range) {}
        bool at_end() const { return range_->error_.code() != Errc::ok; }
        FrameRange *range_ = nullptr;
    };

    FrameRange(FrameRange &&) noexcept = default;
    FrameRange &operator=(FrameRange &&) noexcept = default;
    FrameRange(const FrameRange &) = delete;
    FrameRange &operator=(const FrameRange &) = delete;
    ~FrameRange() = default;

    // Reads the next frame. A range goes on where it stood, also after a timeout.
    Iterator begin() {
        next();
        return Iterator(this);
    }
    Sentinel end() const { return {}; }
    // Why the loop ended: closed once everything has been read, timeout, corrupt. Errc::ok after a `break`.
    const Error &error() const noexcept { return error_; }

  private:
    friend class Reader;
    FrameRange(std::shared_ptr<shb_reader_t> reader, Timeout timeout) : reader_(std::move(reader)), timeout_(timeout) {}
    void next();

    std::shared_ptr<shb_reader_t> reader_;
    Timeout timeout_;
    std::vector<std::uint8_t> memory_;
    Frame frame_;
    Error error_;
};

struct AvReaders;

// Reads one track. It follows the track into new epochs by itself.
class Reader {
  public:
    Reader() = default;
    Reader(Reader &&) noexcept = default;
    Reader &operator=(Reader &&) noexcept = default;
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;
    ~Reader() = default;

    // Opens a reader on a track, which may not have a writer yet.
    // Errors: no_such_track; corrupt; system; not_open: of the map.
    static Result<Reader> open(const Map &map, const Track &track, Start start = Start::key);
    bool is_open() const noexcept { return reader_ != nullptr; }
    // A frame that is borrowed, and a FrameRange, keep the reader open until they are gone.
    void close() noexcept { reader_.reset(); }

    // Copies the next frame into `memory`, which grows when the frame needs it and never shrinks. Frame::data
    // is a view of it. Use one vector for all frames.
    // Errors: timeout; closed; corrupt; invalid_argument: while a frame is borrowed.
    Result<Frame> read(std::vector<std::uint8_t> &memory, Timeout timeout = forever);
    // Copies the next frame to `data`. A frame above `capacity` bytes fails with too_big and stays unread.
    Result<Frame> read(void *data, std::size_t capacity, Timeout timeout = forever);
    // The next frame where it lies, without a copy. One at a time.
    // Errors: timeout; closed; corrupt; invalid_argument: while another frame is borrowed.
    Result<BorrowedFrame> borrow(Timeout timeout = forever);
    // For a range-based for. It ends when no frame comes within `timeout`, and when the buffer is closed.
    FrameRange frames(Timeout timeout = forever) { return {reader_, timeout}; }
    // Waits until a read has a frame or its end.
    // Errors: timeout; closed; corrupt; invalid_argument: while a frame is borrowed.
    Result<void> wait(Timeout timeout = forever);
    // Moves the reader, forward or back, as often as wanted. What is jumped over is not lost.
    // Errors: corrupt; invalid_argument: a time below 0, or while a frame is borrowed.
    Result<void> seek(const Position &position);

    // What the last frame read belongs to, with its codec data.
    // Errors: not_found: no frame yet, a frame without a description, or codec data that was overwritten
    // since.
    Result<Description> description() const;
    Result<ReaderStats> stats() const;

    // For the C interface; stays this object's.
    shb_reader_t *native_handle() const noexcept { return reader_.get(); }

  private:
    friend class Set;
    friend Result<AvReaders> open_av(const Map &map, std::uint32_t channel, std::uint32_t stream, const Position &position);
    explicit Reader(shb_reader_t *reader) : reader_(reader, detail::Release()) {}
    std::shared_ptr<shb_reader_t> reader_;
};

struct AvReaders {
    Reader video, audio;
};
// Opens both tracks of a source at one moment: video at `position`, audio at its first frame that is not
// before that picture. After a loss video goes on at a key frame, audio at the oldest frame held. A recording
// that begins ten seconds before its event begins with Position::back(10s).
// Errors: no_such_track; invalid_argument: a time below 0; corrupt; system; not_open: of the map.
Result<AvReaders> open_av(const Map &map, std::uint32_t channel, std::uint32_t stream, const Position &position);

// ---- Waiting for several ----------------------------------------------------------------------------------

inline constexpr std::size_t no_index = std::numeric_limits<std::size_t>::max();

// Waits until one of 1 to 1024 readers, of any tracks and buffers, has a frame or its end to read. `readers`
// is a range of Reader, of Reader * or of std::reference_wrapper<Reader>. The result is the index of one of
// them. Give the last index as `last`, so that the readers take turns.
// Errors: timeout; system; invalid_argument: none or too many readers, or one with a borrowed frame;
// not_open: of one of them.
template <typename Readers>
Result<std::size_t> wait_any(const Readers &readers, Timeout timeout = forever, std::size_t last = no_index);
inline Result<std::size_t> wait_any(std::initializer_list<const Reader *> readers, Timeout timeout = forever,
                                    std::size_t last = no_index);

// Readers with one file descriptor, for an event loop: poll, epoll, GLib, asio.
//
// When fd() is readable, call next() and read from the reader that it names, again and again until it fails
// with timeout. Only then the descriptor waits for what comes next.
class Set {
  public:
    Set() = default;

    // Errors: system.
    static Result<Set> create();
    bool is_open() const noexcept { return set_ != nullptr; }
    // The readers stay open.
    void close() noexcept;

    // Adds a reader under a number of the caller's: an index, say. The reader may be moved, and leaves the
    // set by itself when it is closed.
    // Errors: invalid_argument: the reader is in a set; system; not_open: also of the reader.
    Result<void> add(const Reader &reader, std::size_t tag);
    // Errors: invalid_argument: the reader is not in this set; not_open: also of the reader.
    Result<void> remove(const Reader &reader);
    // The descriptor, which stays the set's; -1 when the set is not open.
    int fd() const noexcept { return shb_set_fd(set_.get()); }
    // The tag of a reader that has something to read, in turns. A reader whose buffer is closed is named
    // again and again until it is closed or removed.
    // Errors: timeout, system.
    Result<std::size_t> next(Timeout timeout = no_wait);

    // For the C interface; stays this object's.
    shb_set_t *native_handle() const noexcept { return set_.get(); }

  private:
    struct Entry {
        std::weak_ptr<shb_reader_t> reader;
        std::size_t tag;
    };
    explicit Set(shb_set_t *set) : set_(set) {}
    std::unique_ptr<shb_set_t, detail::Release> set_;
    std::unordered_map<const shb_reader_t *, Entry> entries_;
};

// ---- Following a name -------------------------------------------------------------------------------------

struct FollowOptions {
    Track track{};
    Start start = Start::oldest;           // in the first buffer and in each later one
    std::optional<std::uint32_t> owner{};  // only buffers of this user
};

// What has happened since the last read, any number of them at once.
struct FollowEvents {
    bool attached = false;   // a buffer of the name is there, the first or one more
    bool restarted = false;  // with `attached`: it is not the first one, its host was started again
    bool gone = false;       // the host has gone, and everything that it wrote has been read
    bool epoch = false;      // with a frame: the first one of another writer; the source has connected again
    bool media = false;      // with a frame: another description, or the first one
    bool any() const noexcept { return attached || restarted || gone || epoch || media; }
};

// A frame, events, or both.
struct FollowStep {
    std::optional<Frame> frame;
    FollowEvents events;
};

// One track of whatever buffer has a name, through every restart of its host.
class Follow {
  public:
    Follow() = default;

    // The buffer need not exist yet.
    // Errors: invalid_argument, system.
    static Result<Follow> open(const std::string &name, const FollowOptions &options = {});
    bool is_open() const noexcept { return follow_ != nullptr; }
    void close() noexcept { follow_.reset(); }

    // Copies the next frame into `memory` as Reader::read does. Returns before the time is over when there
    // are events without a frame. While there is no buffer, it waits for one.
    // Errors: timeout; no_such_track: the buffer has none like it; corrupt: the next call looks for another
    // buffer; system. Events of a call that failed come with the next one.
    Result<FollowStep> read(std::vector<std::uint8_t> &memory, Timeout timeout = forever);

    // What the last frame belongs to, with its codec data. Errors: as Reader::description; not_found: no
    // buffer.
    Result<Description> description() const;
    // Of the reader of the buffer in use. Errors: not_found: no buffer.
    Result<ReaderStats> stats() const;
    // The statistics of the track. Errors: not_found: no buffer; corrupt.
    Result<TrackStats> track_stats() const;

    // For the C interface; stays this object's.
    shb_follow_t *native_handle() const noexcept { return follow_.get(); }

  private:
    Follow(shb_follow_t *follow, const Track &track) : follow_(follow), track_(track) {}
    std::unique_ptr<shb_follow_t, detail::Release> follow_;
    Track track_;
    std::uint32_t pending_ = 0;
};

// ---- The buffers of this machine --------------------------------------------------------------------------

// The buffers that this user may read, sorted by name, those of dead creators and of other versions included.
// Errors: system.
Result<std::vector<BufferInfo>> list_buffers();
// Removes the buffer that a creator has left behind; with `force` also the name of one whose creator is
// alive.
// Errors: invalid_argument; not_found; exists: its creator is alive; wrong_version: something else has the
// name; system.
Result<void> remove_buffer(const std::string &name, bool force = false);
// The owner of a buffer can cut its file short, and readers then die of SIGBUS. After guard(true) they get
// `corrupt` instead. That installs a handler of SIGBUS. Call it before other threads attach.
// Errors: system.
Result<void> guard(bool on);

// ---- Implementation: nothing below is part of the interface -----------------------------------------------

namespace detail {

inline Errc errc_of(int result) {
    switch (result) {
        case SHB_OK:
            return Errc::ok;
        case SHB_ERR_EXISTS:
            return Errc::exists;
        case SHB_ERR_NOT_FOUND:
            return Errc::not_found;
        case SHB_ERR_SYSTEM:
            return Errc::system;
        case SHB_ERR_NO_SPACE:
            return Errc::no_space;
        case SHB_ERR_VERSION:
            return Errc::wrong_version;
        case SHB_ERR_CORRUPT:
            return Errc::corrupt;
        case SHB_ERR_BUSY:
            return Errc::track_in_use;
        case SHB_ERR_TOO_BIG:
            return Errc::too_big;
        case SHB_ERR_TIMEOUT:
            return Errc::timeout;
        case SHB_ERR_CLOSED:
            return Errc::closed;
        case SHB_ERR_OVERRUN:
            return Errc::overrun;
        case SHB_ERR_OWNER:
            return Errc::wrong_owner;
        default:
            return Errc::invalid_argument;
    }
}

// Of a call to libshb that has just failed; `subject` is what it was about, and may be empty.
inline Error error_of(int result, const std::string &subject = {}) {
    const int system_error = result == SHB_ERR_SYSTEM || result == SHB_ERR_NO_SPACE ? errno : 0;
    std::string text = subject.empty() ? std::string() : subject + ": ";
    text += shb_strerror(result);
    if (system_error != 0) {
        text += ": " + std::generic_category().message(system_error);
    }
    return {errc_of(result), std::move(text), system_error};
}

inline Error not_open(const char *what) {
    return {Errc::not_open, std::string(what) + " is not open"};
}

inline Error invalid(std::string text) {
    return {Errc::invalid_argument, std::move(text)};
}

inline Result<void> done(int result, const char *subject = "") {
    return result == SHB_OK ? Result<void>() : error_of(result, subject);
}

// The C interfaces end a text at its first NUL.
inline bool has_nul(const std::string &text) {
    return text.find('\0') != std::string::npos;
}

// The texts of the records fill their field without a terminator when they are as long as it.
template <std::size_t Size>
std::string text_of(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

inline std::optional<std::chrono::nanoseconds> time_of(std::uint64_t ns) {
    return ns == SHB_TIME_NONE ? std::nullopt
                               : std::optional(std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(ns)));
}

inline std::optional<std::chrono::nanoseconds> offset_of(std::int64_t ns) {
    return ns == SHB_OFFSET_NONE ? std::nullopt : std::optional(std::chrono::nanoseconds(ns));
}

inline ScanType scan_of(std::int32_t value) {
    return value == 0 ? ScanType::progressive : value == 1 ? ScanType::interlaced : ScanType::other;
}

inline shb_kind_t native(Kind kind) {
    return static_cast<shb_kind_t>(kind);
}

// Milliseconds for libshb: -1 waits without end, as it also does for times that do not fit.
inline int native(Timeout timeout) {
    if (timeout > std::chrono::milliseconds(std::numeric_limits<int>::max())) {
        return -1;
    }
    return timeout < no_wait ? 0 : static_cast<int>(timeout.count());
}

inline shb_geometry_t native(const Geometry &geometry) {
    shb_geometry_t result{};
    result.channels = geometry.channels;
    result.streams = geometry.streams;
    result.video_frames = geometry.video_frames;
    result.audio_frames = geometry.audio_frames;
    result.video_bytes = geometry.video_bytes;
    result.audio_bytes = geometry.audio_bytes;
    return result;
}

inline Geometry from(const shb_geometry_t &geometry) {
    return {geometry.channels,     geometry.streams,     geometry.video_frames,
            geometry.audio_frames, geometry.video_bytes, geometry.audio_bytes};
}

inline TrackStats from(const shb_stats_t &stats) {
    TrackStats result;
    if (stats.writer_pid != 0) {
        result.writer_pid = stats.writer_pid;
    }
    result.epoch = stats.epoch;
    result.frames = stats.frames;
    result.bytes = stats.bytes;
    result.key_frames = stats.key_frames;
    result.left_out = stats.left_out;
    result.held = stats.held;
    result.total_frames = stats.total_frames;
    result.total_bytes = stats.total_bytes;
    result.total_left_out = stats.total_left_out;
    result.age = time_of(stats.age_ns);
    result.bitrate = stats.bitrate;
    result.fps = stats.fps_milli / 1000.0;
    result.clock_offset = offset_of(stats.clock_offset);
    result.presence = stats.presence == SHB_PRESENCE_EXPECTED ? Presence::expected
                      : stats.presence == SHB_PRESENCE_ABSENT ? Presence::absent
                                                              : Presence::unknown;
    return result;
}

inline Description from(const shb_description_t &description) {
    Description result;
    result.serial = description.serial;
    result.media = description.media;
    result.code = text_of(description.code);
    result.profile = text_of(description.profile);
    result.level = text_of(description.level);
    result.format = text_of(description.format);
    result.width = description.width;
    result.height = description.height;
    result.fps_n = description.fps_n;
    result.fps_d = description.fps_d;
    result.scan_type = scan_of(description.scan_type);
    result.ref_frames = description.ref_frames;
    if (description.reorder_frames >= 0) {
        result.reorder_frames = description.reorder_frames;
    }
    result.sample_rate = description.sample_rate;
    result.channels = description.channels;
    result.samples_per_frame = description.samples_per_frame;
    result.nominal_bitrate = description.nominal_bitrate;
    return result;
}

// False for a text that does not fit with its terminator.
template <std::size_t Size>
bool put_text(char (&field)[Size], const std::string &text) {
    if (text.size() >= Size || has_nul(text)) {
        return false;
    }
    std::memcpy(field, text.c_str(), text.size() + 1);
    return true;
}

inline std::optional<shb_description_t> native(const Description &description) {
    shb_description_t result{};
    if (!put_text(result.code, description.code) || !put_text(result.profile, description.profile) ||
        !put_text(result.level, description.level) || !put_text(result.format, description.format)) {
        return std::nullopt;
    }
    result.media = description.media;
    result.width = description.width;
    result.height = description.height;
    result.fps_n = description.fps_n;
    result.fps_d = description.fps_d;
    result.scan_type = static_cast<int>(description.scan_type);
    result.ref_frames = description.ref_frames;
    result.reorder_frames = description.reorder_frames.value_or(-1);
    result.sample_rate = description.sample_rate;
    result.channels = description.channels;
    result.samples_per_frame = description.samples_per_frame;
    result.nominal_bitrate = description.nominal_bitrate;
    return result;
}

inline Frame from(const shb_frame_t &frame, const void *data) {
    Frame result;
    result.data = ByteView(static_cast<const std::uint8_t *>(data), frame.size);
    result.sequence = frame.sequence;
    result.epoch = frame.epoch;
    result.pts = time_of(frame.pts);
    result.dts = time_of(frame.dts);
    result.duration = time_of(frame.duration);
    result.clock_offset = offset_of(frame.clock_offset);
    result.arrival = MonotonicTime(std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(frame.arrival_ns)));
    result.wall = WallTime(std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(frame.wall_ns)));
    result.lost = frame.lost;
    result.lost_before = frame.lost_before;
    result.left_out = frame.left_out;
    result.description = frame.description;
    result.key = (frame.flags & SHB_FRAME_KEY) != 0;
    result.discont = (frame.flags & SHB_FRAME_DISCONT) != 0;
    result.header = (frame.flags & SHB_FRAME_HEADER) != 0;
    return result;
}

inline ReaderStats from(const shb_reader_stats_t &stats) {
    return {stats.frames,   stats.bytes,  stats.key_frames, stats.lost,   stats.losses,
            stats.left_out, stats.epochs, stats.waiting,    stats.offered};
}

inline BufferInfo from(const shb_info_t &info) {
    BufferInfo result;
    result.version = info.version;
    result.creator_pid = info.creator_pid;
    result.pid_is_ours = info.pid_is_ours != 0;
    result.alive = info.alive != 0;
    result.owner = info.owner;
    result.group = info.group;
    result.mode = info.mode;
    result.name = text_of(info.name);
    result.heartbeat_age = std::chrono::nanoseconds(static_cast<std::chrono::nanoseconds::rep>(info.heartbeat_age_ns));
    result.total_bytes = info.total_bytes;
    result.geometry = from(info.geometry);
    return result;
}

inline VideoInfo video_of(const media_code_info_t &info) {
    const video_params_t &video = info.params.video;
    return {text_of(info.code),      video.width, video.height, static_cast<double>(video.fps), video.ref_frames,
            scan_of(video.scan_type)};
}

inline AudioInfo audio_of(const media_code_info_t &info) {
    const audio_params_t &audio = info.params.audio;
    return {text_of(info.code), audio.sample_rate, audio.channels, audio.no_samples, audio.extra};
}

inline SourceState state_of(const std::string &text) {
    return text == "start"       ? SourceState::start
           : text == "connected" ? SourceState::connected
           : text == "reconnect" ? SourceState::reconnect
           : text == "stop"      ? SourceState::stop
                                 : SourceState::none;
}

inline SourceStatus from(const source_status_t &status) {
    SourceStatus result;
    result.state = state_of(text_of(status.state));
    result.video_code = text_of(status.video_code);
    result.video_bitrate = status.video_bitrate;
    result.width = status.width;
    result.height = status.height;
    result.fps = static_cast<double>(status.fps);
    result.video_real_fps = static_cast<double>(status.video_real_fps);
    result.audio_code = text_of(status.audio_code);
    result.audio_bitrate = status.audio_bitrate;
    result.sample_rate = status.sample_rate;
    result.channels = status.channels;
    result.audio_real_fps = static_cast<double>(status.audio_real_fps);
    return result;
}

// The record that a call has filled in, or why it did not.
template <typename Record>
auto filled(int result, const Record &record, const char *subject = "") -> Result<decltype(from(record))> {
    if (result != SHB_OK) {
        return error_of(result, subject);
    }
    return from(record);
}

inline std::string name_of(const Track &track) {
    return "channel " + std::to_string(track.channel) + ", stream " + std::to_string(track.stream);
}

inline Result<void> check_track(const shb_geometry_t &geometry, const Track &track) {
    if (track.channel < geometry.channels && track.stream < geometry.streams) {
        return {};
    }
    return Error(Errc::no_such_track, name_of(track) + ": the buffer has channels 0 to " +
                                          std::to_string(geometry.channels - 1) + " and streams 0 to " +
                                          std::to_string(geometry.streams - 1));
}

inline Result<void> check_track(const shb_map_t *map, const Track &track) {
    shb_geometry_t geometry{};
    const int result = shb_map_geometry(map, &geometry);
    return result == SHB_OK ? check_track(geometry, track) : error_of(result);
}

// What the owner of a buffer and its sources and writers share.
struct BufferCore {
    explicit BufferCore(shb_buffer_t *opened) : handle(opened) {}
    BufferCore(const BufferCore &) = delete;
    BufferCore &operator=(const BufferCore &) = delete;
    ~BufferCore() { shb_destroy(handle); }

    Result<void> check(const Track &track) const {
        shb_geometry_t geometry{};
        const int result = shb_get_geometry(handle, &geometry);
        return result == SHB_OK ? check_track(geometry, track) : error_of(result);
    }

    shb_buffer_t *const handle;
    std::mutex mutex;
    // Channel and stream of each Source: one that has not connected yet has no writer to be found.
    std::set<std::pair<std::uint32_t, std::uint32_t>> sources;
};

// The first exception of a callback, until the host takes it.
class KeptException {
  public:
    void keep(std::exception_ptr exception) noexcept {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (exception_ == nullptr) {
            exception_ = std::move(exception);
        }
    }
    std::exception_ptr take() noexcept {
        const std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(exception_, nullptr);
    }

  private:
    std::mutex mutex_;
    std::exception_ptr exception_;
};

// What stays at its place while the Source is moved: the library holds a pointer to it.
struct SourceCore {
    SourceCore(std::shared_ptr<BufferCore> of, const SourceOptions &options)
        : buffer(std::move(of)), channel(options.channel), stream(options.stream), on_media_change(options.on_media_change) {}
    SourceCore(const SourceCore &) = delete;
    SourceCore &operator=(const SourceCore &) = delete;
    ~SourceCore() {
        if (claimed) {
            const std::lock_guard<std::mutex> lock(buffer->mutex);
            buffer->sources.erase({channel, stream});
        }
    }

    // Takes the tracks for this source, unless somebody writes them.
    Result<void> claim() {
        const std::lock_guard<std::mutex> lock(buffer->mutex);
        for (const Kind kind : {Kind::video, Kind::audio}) {
            shb_stats_t stats{};
            const int result = shb_buffer_stats(buffer->handle, channel, stream, native(kind), &stats);
            if (result != SHB_OK) {
                return error_of(result);
            }
            if (stats.writer_pid != 0) {
                return Error(Errc::track_in_use, name_of({channel, stream, kind}) + ": the " +
                                                     (kind == Kind::video ? "video" : "audio") + " track has a writer");
            }
        }
        claimed = buffer->sources.emplace(channel, stream).second;
        return claimed ? Result<void>()
                       : Error(Errc::track_in_use, name_of({channel, stream, Kind::video}) + ": another source is open there");
    }

    static void media_changed(void *user, media_code_info_t *info) {
        SourceCore &state = *static_cast<SourceCore *>(user);
        if (state.abandoned) {
            return;
        }
        try {
            MediaChange change;
            if (info->type == 0) {
                change.video = video_of(*info);
            } else {
                change.audio = audio_of(*info);
            }
            state.on_media_change(change);
        } catch (...) {
            state.exception.keep(std::current_exception());
        }
    }

    const std::shared_ptr<BufferCore> buffer;
    const std::uint32_t channel;
    const std::uint32_t stream;
    const MediaCallback on_media_change;
    KeptException exception;
    void *handle = nullptr;
    bool claimed = false;
    std::atomic<bool> abandoned{false};  // its Source is gone, and another thread closes it
};

// On none of the source's own threads.
inline void destroy(SourceCore *source) noexcept {
    gst_source_destroy(source->handle);
    delete source;
}

// Sources that threads of their own are closing.
inline std::atomic<int> closing_sources{0};

// Such a thread may be the last user of a buffer. If the process ended first, the buffer's files would stay.
struct WaitForClosingSources {
    WaitForClosingSources() = default;
    WaitForClosingSources(const WaitForClosingSources &) = delete;
    WaitForClosingSources &operator=(const WaitForClosingSources &) = delete;
    ~WaitForClosingSources() {
        // Bounded: the process may be ended in a callback, for whose end the close waits.
        constexpr std::chrono::seconds patience{5};
        const auto end = std::chrono::steady_clock::now() + patience;
        while (closing_sources > 0 && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

inline void CloseSource::operator()(SourceCore *source) const noexcept {
    // Only a close says that this thread is one which it would have to wait for.
    if (source->handle == nullptr || gst_source_close_live_stream(source->handle) == 0) {
        destroy(source);
        return;
    }
    static const WaitForClosingSources at_exit;
    source->abandoned = true;
    ++closing_sources;
    try {
        std::thread([source] {
            destroy(source);
            --closing_sources;
        }).detach();
    } catch (const std::system_error &) {
        // Without a thread that could wait, the source stays as it is.
        --closing_sources;
    }
}

// ---- Options ----------------------------------------------------------------------------------------------

inline constexpr std::string_view scheme_end = "://";

// The location with its scheme in small letters: rtmp2src plays rtmps and rtmpsrc does not, by how it is
// written.
inline std::string with_small_scheme(std::string url) {
    const auto end = url.begin() + static_cast<std::string::difference_type>(url.find(scheme_end));
    std::transform(url.begin(), end, url.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return url;
}

// udpsrc takes its default port for a location without one.
inline bool has_port(const std::string &url) {
    const std::size_t host = url.find(scheme_end) + scheme_end.size();
    const std::size_t end = std::min(url.find_first_of("/?#", host), url.size());
    const std::size_t colon = url.rfind(':', end);
    const std::string port =
        colon == std::string::npos || colon < host ? std::string() : url.substr(colon + 1, end - colon - 1);
    constexpr std::size_t longest = 5;
    constexpr int largest = 65535;
    return !port.empty() && port.size() <= longest && port.find_first_not_of("0123456789") == std::string::npos &&
           std::stoi(port) > 0 && std::stoi(port) <= largest;
}

// srtsrc listens where the location has none.
inline bool has_host(const std::string &url) {
    const std::size_t host = url.find(scheme_end) + scheme_end.size();
    return host < url.size() && std::string_view(":/?#").find(url[host]) == std::string_view::npos;
}

inline bool has_parameter(const std::string &url, const std::string &name) {
    return url.find('?' + name + '=') != std::string::npos || url.find('&' + name + '=') != std::string::npos;
}

// Collects what is wrong with the options: the first finding counts.
class Check {
  public:
    void that(bool holds, const char *otherwise) {
        if (!holds && failure_.empty()) {
            failure_ = otherwise;
        }
    }
    template <typename Duration>
    unsigned number(const char *name, Duration value, std::int64_t largest) {
        const bool fits = value.count() >= 0 && value.count() <= largest;
        if (!fits && failure_.empty()) {
            failure_ = std::string(name) + " is not 0 to " + std::to_string(largest) +
                       (std::is_same_v<Duration, std::chrono::seconds> ? " s" : " ms");
        }
        return fits ? static_cast<unsigned>(value.count()) : 0;
    }
    const std::string &failure() const { return failure_; }

  private:
    std::string failure_;
};

inline constexpr std::int64_t largest_int = std::numeric_limits<std::int32_t>::max();
inline constexpr const char *credentials_text = "user and password: give both or none";

// Opens the library's source; `url` and `options` are those of the function that made it.
using OpenCall = std::function<int(void *handle)>;

inline OpenCall prepare_rtsp(const std::string &url, const SourceOptions &options, Check &check) {
    constexpr std::int64_t longest_contimeout = 4294;
    const RtspOptions &rtsp = options.rtsp;
    const unsigned latency = check.number("rtsp.latency", rtsp.latency, largest_int);
    const unsigned contimeout = check.number("rtsp.contimeout", rtsp.contimeout, longest_contimeout);
    check.that(rtsp.protocols != 0 && rtsp.protocols != rtsp_transport::http, "rtsp.protocols: nothing plays with this alone");
    check.that(options.user.empty() == options.password.empty(), credentials_text);
    return [&, latency, contimeout](void *handle) {
        return gst_rtsp_source_open_live_stream(handle, url.c_str(), options.caching, options.rtsp.protocols, latency,
                                                contimeout, options.user.c_str(), options.password.c_str());
    };
}

inline OpenCall prepare_rtmp(const std::string &url, const SourceOptions &options, Check &check) {
    const unsigned contimeout = check.number("rtmp.contimeout", options.rtmp.contimeout, largest_int);
    const unsigned idle_timeout = check.number("rtmp.idle_timeout", options.rtmp.idle_timeout, largest_int);
    check.that(options.user.empty() == options.password.empty(), credentials_text);
    const bool tls = url.rfind("rtmps", 0) == 0;
    check.that(!tls || options.user.empty(), "user and password: rtmps does not connect with them");
    check.that(!tls || options.rtmp.token.empty(), "rtmp.token has no effect on rtmps");
    check.that(!tls || options.rtmp.idle_timeout.count() == 0, "rtmp.idle_timeout has no effect on rtmps");
    return [&, contimeout, idle_timeout](void *handle) {
        return gst_rtmp_source_open_live_stream(handle, url.c_str(), options.caching, contimeout, idle_timeout,
                                                options.user.c_str(), options.password.c_str(), options.rtmp.token.c_str());
    };
}

inline OpenCall prepare_srt(const std::string &url, const SourceOptions &options, Check &check) {
    constexpr std::size_t shortest_passphrase = 10;
    constexpr std::size_t longest_passphrase = 79;
    const SrtOptions &srt = options.srt;
    const unsigned latency = check.number("srt.latency", srt.latency, largest_int);
    const unsigned tslatency = check.number("srt.tslatency", srt.tslatency, largest_int);
    check.that(srt.keylen == 0 || srt.keylen == 16 || srt.keylen == 24 || srt.keylen == 32,
               "srt.keylen is not 0, 16, 24 or 32");
    check.that(srt.passphrase.empty() == (srt.keylen == 0),
               "srt.passphrase and srt.keylen: the stream is encrypted with both only");
    check.that(
        srt.passphrase.empty() || (srt.passphrase.size() >= shortest_passphrase && srt.passphrase.size() <= longest_passphrase),
        "srt.passphrase is not 10 to 79 characters");
    const bool listener = srt.mode == SrtMode::listener;
    const bool rendezvous = srt.mode == SrtMode::rendezvous;
    const bool localport = has_parameter(url, "localport");
    // srtsrc binds a random port.
    check.that(!listener || !has_host(url) || localport, "srt.mode: a listener's URL has no host, or a localport as well");
    check.that(listener || has_host(url), "srt.mode: the URL has no host, which is a listener's");
    check.that(!rendezvous || localport, "srt.mode: rendezvous needs a localport in the URL");
    check.that(!rendezvous || !srt.localaddress.empty() || has_parameter(url, "localaddress"),
               "srt.localaddress: rendezvous needs one");
    return [&, latency, tslatency](void *handle) {
        const SrtOptions &of = options.srt;
        const char *mode = of.mode == SrtMode::listener ? "listener" : of.mode == SrtMode::rendezvous ? "rendezvous" : "caller";
        return gst_srt_source_open_live_stream(handle, url.c_str(), options.caching, mode, of.streamid.c_str(),
                                               of.passphrase.c_str(), of.keylen, latency, tslatency, of.localaddress.c_str());
    };
}

inline OpenCall prepare_udp(const std::string &url, const SourceOptions &options, Check &check) {
    const unsigned ts_latency = check.number("udp.ts_latency", options.udp.ts_latency, largest_int);
    check.that(options.udp.mtu <= largest_int, "udp.mtu is 2^31 or more");
    check.that(has_port(url), "the udp URL has no port from 1 to 65535");
    return [&, ts_latency](void *handle) {
        return gst_udp_source_open_live_stream(handle, url.c_str(), options.caching, ts_latency, options.udp.mtu);
    };
}

inline OpenCall prepare_hls(const std::string &url, const SourceOptions &options, Check &check) {
    constexpr std::int64_t longest_timeout = 3600;
    const HlsOptions &hls = options.hls;
    const unsigned timeout = check.number("hls.timeout", hls.timeout, longest_timeout);
    check.that(hls.retries >= -1, "hls.retries is below -1");
    check.that(hls.proxy_id.empty() == hls.proxy_pwd.empty(), "hls.proxy_id and hls.proxy_pwd: give both or none");
    check.that(hls.proxy_id.empty() || !hls.proxy.empty(), "hls.proxy_id has no effect without hls.proxy");
    return [&, timeout](void *handle) {
        const HlsOptions &of = options.hls;
        return gst_hls_source_open_live_stream(handle, url.c_str(), options.caching, of.islive ? 1 : 0, timeout, of.retries,
                                               of.proxy.c_str(), of.proxy_id.c_str(), of.proxy_pwd.c_str(),
                                               of.user_agent.c_str(), options.user.c_str(), options.password.c_str());
    };
}

inline OpenCall prepare(Protocol protocol, const std::string &url, const SourceOptions &options, Check &check) {
    for (const std::string *text :
         {&url, &options.user, &options.password, &options.srt.streamid, &options.srt.passphrase, &options.srt.localaddress,
          &options.rtmp.token, &options.hls.proxy, &options.hls.proxy_id, &options.hls.proxy_pwd, &options.hls.user_agent}) {
        check.that(!has_nul(*text), "a NUL in the URL or in a text of the options");
    }
    switch (protocol) {
        case Protocol::rtsp:
            return prepare_rtsp(url, options, check);
        case Protocol::rtmp:
            return prepare_rtmp(url, options, check);
        case Protocol::srt:
            return prepare_srt(url, options, check);
        case Protocol::udp:
            return prepare_udp(url, options, check);
        case Protocol::hls:
            break;
    }
    return prepare_hls(url, options, check);
}

inline int source_type(Protocol protocol) {
    switch (protocol) {
        case Protocol::rtsp:
            return SOURCE_TYPE_RTSP;
        case Protocol::rtmp:
            return SOURCE_TYPE_RTMP;
        case Protocol::srt:
            return SOURCE_TYPE_SRT;
        case Protocol::udp:
            return SOURCE_TYPE_UDP;
        case Protocol::hls:
            break;
    }
    return SOURCE_TYPE_HLS;
}

// ---- Readers ----------------------------------------------------------------------------------------------

// Calls `read` (data, capacity, milliseconds, frame) until the memory is large enough.
template <typename Read>
int read_growing(std::vector<std::uint8_t> &memory, Timeout timeout, shb_frame_t &frame, const Read &read) {
    const int whole = native(timeout);
    const auto begun = whole > 0 ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point();
    for (int left = whole;;) {
        const int result = read(memory.data(), memory.size(), left, &frame);
        if (result != SHB_ERR_TOO_BIG) {
            return result;
        }
        memory.resize(std::max<std::size_t>(frame.size, memory.size() * 2));
        if (whole > 0) {
            const auto spent = std::chrono::steady_clock::now() - begun;
            left = native(timeout - std::chrono::duration_cast<Timeout>(spent));
        }
    }
}

inline Result<Frame> read(shb_reader_t *reader, std::vector<std::uint8_t> &memory, Timeout timeout) {
    if (reader == nullptr) {
        return not_open("the reader");
    }
    shb_frame_t frame{};
    const int result =
        read_growing(memory, timeout, frame, [reader](void *data, std::size_t capacity, int ms, shb_frame_t *out) {
            return shb_reader_read(reader, data, capacity, ms, out);
        });
    if (result != SHB_OK) {
        return error_of(result);
    }
    return from(frame, memory.data());
}

inline Result<Description> description(shb_reader_t *reader) {
    shb_description_t native_description{};
    int result = shb_reader_description(reader, &native_description);
    if (result != SHB_OK) {
        return error_of(result, "description of the last frame");
    }
    Description found = from(native_description);
    found.codec_data.resize(native_description.codec_data_bytes);
    std::size_t size = 0;
    if (!found.codec_data.empty()) {
        result = shb_reader_codec_data(reader, found.codec_data.data(), found.codec_data.size(), &size);
        if (result != SHB_OK) {
            return error_of(result, "codec data of the last frame");
        }
    }
    found.codec_data.resize(size);
    return found;
}

inline Result<ReaderStats> stats(const shb_reader_t *reader) {
    shb_reader_stats_t stats{};
    return filled(shb_reader_get_stats(reader, &stats), stats);
}

inline Result<TrackStats> stats(const shb_map_t *map, const Track &track) {
    if (const auto checked = check_track(map, track); !checked) {
        return checked.error();
    }
    shb_stats_t stats{};
    return filled(shb_map_stats(map, track.channel, track.stream, native(track.kind), &stats), stats);
}

inline Result<void> check_position(const Position &position) {
    return position.time().count() >= 0 ? Result<void>() : invalid("position: a time below 0");
}

inline shb_reader_t *reader_of(const Reader &reader) {
    return reader.native_handle();
}
inline shb_reader_t *reader_of(const Reader *reader) {
    return reader == nullptr ? nullptr : reader->native_handle();
}

struct WriterCore {
    explicit WriterCore(std::shared_ptr<BufferCore> of) : buffer(std::move(of)) {}
    WriterCore(const WriterCore &) = delete;
    WriterCore &operator=(const WriterCore &) = delete;
    ~WriterCore() { shb_writer_close(handle); }

    static void stalled(void *user, std::uint64_t silent_ms) {
        try {
            static_cast<WriterCore *>(user)->on_stall(std::chrono::milliseconds(static_cast<std::int64_t>(silent_ms)));
        } catch (...) {
            // The thread is the library's: nobody there could do anything about it.
        }
    }

    const std::shared_ptr<BufferCore> buffer;
    std::function<void(std::chrono::milliseconds)> on_stall;
    shb_writer_t *handle = nullptr;
};

inline std::optional<std::uint64_t> native_time(const std::optional<std::chrono::nanoseconds> &time) {
    if (!time) {
        return SHB_TIME_NONE;
    }
    return time->count() < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(time->count()));
}

}  // namespace detail

// ---- Buffer -----------------------------------------------------------------------------------------------

inline Result<Buffer> Buffer::create(const std::string &name, const Geometry &geometry, const Access &access) {
    if (detail::has_nul(name)) {
        return detail::invalid("the name of the buffer has a NUL");
    }
    const shb_geometry_t size = detail::native(geometry);
    shb_create_options_t options{};
    options.mode = access.mode;
    options.group_given = access.group ? 1 : 0;
    options.group = access.group.value_or(0);
    shb_buffer_t *handle = nullptr;
    const int result = shb_create_with(name.c_str(), &size, &options, &handle);
    if (result != SHB_OK) {
        return detail::error_of(result, name);
    }
    return Buffer(std::make_shared<detail::BufferCore>(handle));
}

inline std::string Buffer::name() const {
    return state_ == nullptr ? std::string() : shb_name(state_->handle);
}

inline Result<Geometry> Buffer::geometry() const {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    shb_geometry_t geometry{};
    return detail::filled(shb_get_geometry(state_->handle, &geometry), geometry);
}

inline Result<TrackStats> Buffer::stats(const Track &track) const {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    if (const auto checked = state_->check(track); !checked) {
        return checked.error();
    }
    shb_stats_t stats{};
    return detail::filled(shb_buffer_stats(state_->handle, track.channel, track.stream, detail::native(track.kind), &stats),
                          stats);
}

inline Result<Description> Buffer::description(const Track &track) const {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    if (const auto checked = state_->check(track); !checked) {
        return checked.error();
    }
    shb_description_t description{};
    return detail::filled(
        shb_buffer_description(state_->handle, track.channel, track.stream, detail::native(track.kind), &description),
        description, "description");
}

inline Result<void> Buffer::set_presence(const Track &track, Presence presence) {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    if (const auto checked = state_->check(track); !checked) {
        return checked.error();
    }
    return detail::done(shb_set_presence(state_->handle, track.channel, track.stream, detail::native(track.kind),
                                         static_cast<shb_presence_t>(presence)),
                        "presence");
}

inline Result<void> Buffer::set_stall_watch(std::chrono::milliseconds silence) {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    constexpr std::int64_t longest = std::int64_t{1} << 31;
    if (silence.count() < 0 || silence.count() > longest) {
        return detail::invalid("stall watch: not 0 to 2^31 ms");
    }
    return detail::done(shb_set_stall_watch(state_->handle, static_cast<std::uint32_t>(silence.count())), "stall watch");
}

inline Result<std::chrono::milliseconds> Buffer::stall_watch() const {
    if (!is_open()) {
        return detail::not_open("the buffer");
    }
    return std::chrono::milliseconds(shb_get_stall_watch(state_->handle));
}

inline shb_buffer_t *Buffer::native_handle() const noexcept {
    return state_ == nullptr ? nullptr : state_->handle;
}

inline Result<Room> room_for(const Geometry &geometry) {
    const shb_geometry_t size = detail::native(geometry);
    Room room;
    std::uint64_t available = 0;
    const int result = shb_room(&size, &room.needed, &available);
    if (result != SHB_OK) {
        return detail::error_of(result, "room for a buffer");
    }
    if (available != std::numeric_limits<std::uint64_t>::max()) {
        room.available = available;
    }
    return room;
}

// ---- Source -----------------------------------------------------------------------------------------------

inline std::optional<Protocol> protocol_of(std::string_view url) {
    constexpr std::pair<std::string_view, Protocol> schemes[] = {
        {"udp", Protocol::udp},    {"rtsp", Protocol::rtsp}, {"rtsps", Protocol::rtsp}, {"rtspt", Protocol::rtsp},
        {"rtspu", Protocol::rtsp}, {"srt", Protocol::srt},   {"rtmp", Protocol::rtmp},  {"rtmps", Protocol::rtmp},
        {"http", Protocol::hls},   {"https", Protocol::hls}};
    const std::size_t end = url.find(detail::scheme_end);
    if (end == std::string_view::npos || end + detail::scheme_end.size() == url.size()) {
        return std::nullopt;
    }
    const std::string small = detail::with_small_scheme(std::string(url));
    for (const auto &[name, protocol] : schemes) {
        if (name == std::string_view(small).substr(0, end)) {
            return protocol;
        }
    }
    return std::nullopt;
}

inline Result<Source> Source::open(const Buffer &buffer, const std::string &url, const SourceOptions &options) {
    if (!buffer.is_open()) {
        return detail::not_open("the buffer");
    }
    const std::optional<Protocol> protocol = protocol_of(url);
    if (!protocol) {
        return Error(Errc::unknown_scheme,
                     "not a stream URL; known are udp, rtsp, rtsps, rtspt, rtspu, srt, rtmp, rtmps, http and https");
    }
    if (const auto checked = buffer.state_->check({options.channel, options.stream, Kind::video}); !checked) {
        return checked.error();
    }
    const std::string location = detail::with_small_scheme(url);
    detail::Check check;
    const detail::OpenCall open_handle = detail::prepare(*protocol, location, options, check);
    if (!check.failure().empty()) {
        return detail::invalid(check.failure());
    }
    State state(new detail::SourceCore(buffer.state_, options));
    if (const auto claimed = state->claim(); !claimed) {
        return claimed.error();
    }
    state->handle = gst_source_create(detail::source_type(*protocol), buffer.native_handle(), static_cast<int>(options.channel),
                                      static_cast<int>(options.stream));
    if (state->handle != nullptr && state->on_media_change) {
        gst_source_set_media_change_callback(state->handle, detail::SourceCore::media_changed, state.get());
    }
    if (state->handle == nullptr || open_handle(state->handle) != 0) {
        return Error(Errc::refused, "the library did not open the stream; its log on standard output says why");
    }
    return Source(std::move(state));
}

inline Result<void> Source::close() {
    if (!is_open()) {
        return detail::not_open("the source");
    }
    if (gst_source_close_live_stream(state_->handle) != 0) {
        return Error(Errc::own_thread, "a source cannot be closed on a thread of its own, such as that of its callback");
    }
    detail::destroy(state_.release());
    return {};
}

inline Result<SourceStatus> Source::status() const {
    if (!is_open()) {
        return detail::not_open("the source");
    }
    source_status_t status{};
    gst_source_get_status(state_->handle, &status);
    return detail::from(status);
}

inline Result<MediaInfo> Source::media() const {
    if (!is_open()) {
        return detail::not_open("the source");
    }
    media_code_info_t video{};
    media_code_info_t audio{};
    gst_source_get_media_info(state_->handle, &video, &audio);
    return MediaInfo{detail::video_of(video), detail::audio_of(audio)};
}

inline Result<TrackStats> Source::stats(Kind kind) const {
    if (!is_open()) {
        return detail::not_open("the source");
    }
    shb_stats_t stats{};
    return detail::filled(
        shb_buffer_stats(state_->buffer->handle, state_->channel, state_->stream, detail::native(kind), &stats), stats);
}

inline std::exception_ptr Source::take_exception() const {
    return is_open() ? state_->exception.take() : nullptr;
}

inline void *Source::native_handle() const noexcept {
    return is_open() ? state_->handle : nullptr;
}

// ---- Writer -----------------------------------------------------------------------------------------------

inline Writer::Writer() = default;
inline Writer::Writer(Writer &&) noexcept = default;
inline Writer &Writer::operator=(Writer &&) noexcept = default;
inline Writer::~Writer() = default;
inline Writer::Writer(std::unique_ptr<detail::WriterCore> state) : state_(std::move(state)) {}

inline Result<Writer> Writer::open(const Buffer &buffer, const Track &track) {
    if (!buffer.is_open()) {
        return detail::not_open("the buffer");
    }
    if (const auto checked = buffer.state_->check(track); !checked) {
        return checked.error();
    }
    const std::lock_guard<std::mutex> lock(buffer.state_->mutex);
    if (buffer.state_->sources.count({track.channel, track.stream}) != 0) {
        return Error(Errc::track_in_use, detail::name_of(track) + ": a source is open there");
    }
    auto state = std::make_unique<detail::WriterCore>(buffer.state_);
    const int result =
        shb_writer_open(buffer.native_handle(), track.channel, track.stream, detail::native(track.kind), &state->handle);
    if (result != SHB_OK) {
        return detail::error_of(result, detail::name_of(track));
    }
    return Writer(std::move(state));
}

inline void Writer::close() noexcept {
    state_.reset();
}

inline Result<void> Writer::describe(const Description &description) {
    if (!is_open()) {
        return detail::not_open("the writer");
    }
    const auto native_description = detail::native(description);
    if (!native_description) {
        return detail::invalid("description: code, level and format have at most 15 characters, profile 23");
    }
    return detail::done(shb_writer_describe(state_->handle, &*native_description,
                                            description.codec_data.empty() ? nullptr : description.codec_data.data(),
                                            description.codec_data.size()),
                        "description");
}

inline Result<void> Writer::set_clock(std::optional<std::chrono::nanoseconds> clock_offset) {
    if (!is_open()) {
        return detail::not_open("the writer");
    }
    return detail::done(shb_writer_set_clock(state_->handle, clock_offset ? clock_offset->count() : SHB_OFFSET_NONE), "clock");
}

inline Result<void> Writer::write(ByteView data, const FrameInfo &info) {
    if (!is_open()) {
        return detail::not_open("the writer");
    }
    const auto pts = detail::native_time(info.pts);
    const auto dts = detail::native_time(info.dts);
    const auto duration = detail::native_time(info.duration);
    if (!pts || !dts || !duration) {
        return detail::invalid("frame: a time below 0");
    }
    const std::uint32_t flags = (info.key ? std::uint32_t{SHB_FRAME_KEY} : 0) |
                                (info.discont ? std::uint32_t{SHB_FRAME_DISCONT} : 0) |
                                (info.header ? std::uint32_t{SHB_FRAME_HEADER} : 0);
    return detail::done(shb_writer_write(state_->handle, data.data(), data.size(), *pts, *dts, *duration, flags), "frame");
}

inline Result<void> Writer::set_rates(std::uint32_t bitrate, double fps) {
    if (!is_open()) {
        return detail::not_open("the writer");
    }
    constexpr double milli = 1000;
    if (!(fps >= 0 && fps * milli <= std::numeric_limits<std::uint32_t>::max())) {
        return detail::invalid("rates: frames per second out of range");
    }
    shb_writer_set_rates(state_->handle, bitrate, static_cast<std::uint32_t>(fps * milli));
    return {};
}

inline Result<void> Writer::on_stall(std::function<void(std::chrono::milliseconds)> handler) {
    if (!is_open()) {
        return detail::not_open("the writer");
    }
    // The one before may be running, and is waited for here.
    auto removed = detail::done(shb_writer_on_stall(state_->handle, nullptr, nullptr));
    state_->on_stall = std::move(handler);
    if (!removed || !state_->on_stall) {
        return removed;
    }
    return detail::done(shb_writer_on_stall(state_->handle, detail::WriterCore::stalled, state_.get()));
}

inline shb_writer_t *Writer::native_handle() const noexcept {
    return is_open() ? state_->handle : nullptr;
}

// ---- Map --------------------------------------------------------------------------------------------------

inline Result<Map> Map::attach(const std::string &name, std::optional<std::uint32_t> owner) {
    if (detail::has_nul(name)) {
        return detail::invalid("the name of the buffer has a NUL");
    }
    shb_attach_options_t options{};
    options.owner_given = owner ? 1 : 0;
    options.owner = owner.value_or(0);
    shb_map_t *map = nullptr;
    const int result = shb_attach_with(name.c_str(), &options, &map);
    if (result != SHB_OK) {
        return detail::error_of(result, name);
    }
    return Map(map);
}

inline Result<Geometry> Map::geometry() const {
    if (!is_open()) {
        return detail::not_open("the map");
    }
    shb_geometry_t geometry{};
    return detail::filled(shb_map_geometry(map_.get(), &geometry), geometry);
}

inline Result<BufferInfo> Map::info() const {
    if (!is_open()) {
        return detail::not_open("the map");
    }
    shb_info_t info{};
    return detail::filled(shb_map_info(map_.get(), &info), info);
}

inline Result<TrackStats> Map::stats(const Track &track) const {
    return is_open() ? detail::stats(map_.get(), track) : detail::not_open("the map");
}

inline Result<Description> Map::description(const Track &track) const {
    if (!is_open()) {
        return detail::not_open("the map");
    }
    if (const auto checked = detail::check_track(map_.get(), track); !checked) {
        return checked.error();
    }
    shb_description_t description{};
    std::array<std::uint8_t, SHB_CODEC_DATA_MAX> data;
    std::size_t size = 0;
    const int result = shb_map_codec_data(map_.get(), track.channel, track.stream, detail::native(track.kind), &description,
                                          data.data(), data.size(), &size);
    if (result != SHB_OK) {
        return detail::error_of(result, "description");
    }
    Description found = detail::from(description);
    found.codec_data.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size));
    return found;
}

inline bool Map::alive() const noexcept {
    return is_open() && shb_map_alive(map_.get()) == 1;
}

// ---- Reader -----------------------------------------------------------------------------------------------

inline BorrowedFrame &BorrowedFrame::operator=(BorrowedFrame &&other) noexcept {
    if (this != &other) {
        if (reader_ != nullptr) {
            shb_reader_return(reader_.get());
        }
        reader_ = std::move(other.reader_);
        frame_ = other.frame_;
    }
    return *this;
}

inline BorrowedFrame::~BorrowedFrame() {
    if (reader_ != nullptr) {
        shb_reader_return(reader_.get());
    }
}

inline Result<void> BorrowedFrame::give_back() {
    if (reader_ == nullptr) {
        return detail::not_open("the borrowed frame");
    }
    const std::shared_ptr<shb_reader_t> reader = std::exchange(reader_, nullptr);
    return detail::done(shb_reader_return(reader.get()));
}

inline void FrameRange::next() {
    Result<Frame> read = detail::read(reader_.get(), memory_, timeout_);
    error_ = read.error();
    frame_ = read ? *read : Frame();
}

inline Result<Reader> Reader::open(const Map &map, const Track &track, Start start) {
    if (!map.is_open()) {
        return detail::not_open("the map");
    }
    if (const auto checked = detail::check_track(map.native_handle(), track); !checked) {
        return checked.error();
    }
    shb_reader_t *reader = nullptr;
    const int result = shb_reader_open(map.native_handle(), track.channel, track.stream, detail::native(track.kind),
                                       static_cast<shb_start_t>(start), &reader);
    if (result != SHB_OK) {
        return detail::error_of(result, "reader");
    }
    return Reader(reader);
}

inline Result<Frame> Reader::read(std::vector<std::uint8_t> &memory, Timeout timeout) {
    return detail::read(reader_.get(), memory, timeout);
}

inline Result<Frame> Reader::read(void *data, std::size_t capacity, Timeout timeout) {
    if (!is_open()) {
        return detail::not_open("the reader");
    }
    shb_frame_t frame{};
    const int result = shb_reader_read(reader_.get(), data, capacity, detail::native(timeout), &frame);
    if (result == SHB_ERR_TOO_BIG) {
        return Error(Errc::too_big, "frame too big: it takes " + std::to_string(frame.size) + " bytes");
    }
    if (result != SHB_OK) {
        return detail::error_of(result);
    }
    return detail::from(frame, data);
}

inline Result<BorrowedFrame> Reader::borrow(Timeout timeout) {
    if (!is_open()) {
        return detail::not_open("the reader");
    }
    shb_frame_t frame{};
    const void *data = nullptr;
    const int result = shb_reader_borrow(reader_.get(), detail::native(timeout), &data, &frame);
    if (result != SHB_OK) {
        return detail::error_of(result);
    }
    return BorrowedFrame(reader_, detail::from(frame, data));
}

inline Result<void> Reader::wait(Timeout timeout) {
    return is_open() ? detail::done(shb_reader_wait(reader_.get(), detail::native(timeout))) : detail::not_open("the reader");
}

inline Result<void> Reader::seek(const Position &position) {
    if (!is_open()) {
        return detail::not_open("the reader");
    }
    if (const auto checked = detail::check_position(position); !checked) {
        return checked.error();
    }
    return detail::done(
        shb_reader_seek(reader_.get(), position.native_seek(), static_cast<std::uint64_t>(position.time().count())));
}

inline Result<Description> Reader::description() const {
    return is_open() ? detail::description(reader_.get()) : detail::not_open("the reader");
}

inline Result<ReaderStats> Reader::stats() const {
    return is_open() ? detail::stats(reader_.get()) : detail::not_open("the reader");
}

inline Result<AvReaders> open_av(const Map &map, std::uint32_t channel, std::uint32_t stream, const Position &position) {
    if (!map.is_open()) {
        return detail::not_open("the map");
    }
    if (const auto checked = detail::check_track(map.native_handle(), {channel, stream, Kind::video}); !checked) {
        return checked.error();
    }
    if (const auto checked = detail::check_position(position); !checked) {
        return checked.error();
    }
    shb_reader_t *video = nullptr;
    shb_reader_t *audio = nullptr;
    const int result = shb_open_av(map.native_handle(), channel, stream, position.native_seek(),
                                   static_cast<std::uint64_t>(position.time().count()), &video, &audio);
    if (result != SHB_OK) {
        return detail::error_of(result, "readers");
    }
    return AvReaders{Reader(video), Reader(audio)};
}

// ---- Waiting for several ----------------------------------------------------------------------------------

template <typename Readers>
Result<std::size_t> wait_any(const Readers &readers, Timeout timeout, std::size_t last) {
    std::vector<shb_reader_t *> handles;
    for (const auto &reader : readers) {
        handles.push_back(detail::reader_of(reader));
        if (handles.back() == nullptr) {
            return detail::not_open("a reader");
        }
    }
    const int result = shb_wait_any(handles.data(), handles.size(), detail::native(timeout), &last);
    if (result != SHB_OK) {
        return detail::error_of(result);
    }
    return last;
}

inline Result<std::size_t> wait_any(std::initializer_list<const Reader *> readers, Timeout timeout, std::size_t last) {
    return wait_any<std::initializer_list<const Reader *>>(readers, timeout, last);
}

inline Result<Set> Set::create() {
    shb_set_t *set = nullptr;
    const int result = shb_set_open(&set);
    if (result != SHB_OK) {
        return detail::error_of(result, "set of readers");
    }
    return Set(set);
}

inline void Set::close() noexcept {
    set_.reset();
    entries_.clear();
}

inline Result<void> Set::add(const Reader &reader, std::size_t tag) {
    if (!is_open()) {
        return detail::not_open("the set");
    }
    if (!reader.is_open()) {
        return detail::not_open("the reader");
    }
    // Readers that were closed have left the set without a word.
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        entry = entry->second.reader.expired() ? entries_.erase(entry) : std::next(entry);
    }
    // Room first: what cannot be entered must not be in the set.
    entries_.reserve(entries_.size() + 1);
    if (const auto added = detail::done(shb_set_add(set_.get(), reader.native_handle()), "the reader is in a set"); !added) {
        return added.error();
    }
    entries_.insert_or_assign(reader.native_handle(), Entry{reader.reader_, tag});
    return {};
}

inline Result<void> Set::remove(const Reader &reader) {
    if (!is_open()) {
        return detail::not_open("the set");
    }
    if (!reader.is_open()) {
        return detail::not_open("the reader");
    }
    auto removed = detail::done(shb_set_remove(set_.get(), reader.native_handle()), "the reader is not in this set");
    if (removed) {
        entries_.erase(reader.native_handle());
    }
    return removed;
}

inline Result<std::size_t> Set::next(Timeout timeout) {
    if (!is_open()) {
        return detail::not_open("the set");
    }
    shb_reader_t *reader = nullptr;
    const int result = shb_set_next(set_.get(), detail::native(timeout), &reader);
    if (result != SHB_OK) {
        return detail::error_of(result);
    }
    const auto entry = entries_.find(reader);
    if (entry == entries_.end()) {
        return detail::invalid("a reader was added through the C interface");
    }
    return entry->second.tag;
}

// ---- Follow -----------------------------------------------------------------------------------------------

inline Result<Follow> Follow::open(const std::string &name, const FollowOptions &options) {
    if (detail::has_nul(name)) {
        return detail::invalid("the name of the buffer has a NUL");
    }
    shb_follow_options_t native_options{};
    native_options.channel = options.track.channel;
    native_options.stream = options.track.stream;
    native_options.kind = detail::native(options.track.kind);
    native_options.start = static_cast<shb_start_t>(options.start);
    native_options.owner_given = options.owner ? 1 : 0;
    native_options.owner = options.owner.value_or(0);
    shb_follow_t *follow = nullptr;
    const int result = shb_follow_open(name.c_str(), &native_options, &follow);
    if (result != SHB_OK) {
        return detail::error_of(result, name);
    }
    return Follow(follow, options.track);
}

inline Result<FollowStep> Follow::read(std::vector<std::uint8_t> &memory, Timeout timeout) {
    if (!is_open()) {
        return detail::not_open("the follower");
    }
    shb_frame_t frame{};
    std::uint32_t events = 0;
    const int result =
        detail::read_growing(memory, timeout, frame, [&](void *data, std::size_t capacity, int ms, shb_frame_t *out) {
            return shb_follow_read(follow_.get(), data, capacity, ms, out, &events);
        });
    pending_ |= events;
    if (result == SHB_ERR_ARG) {
        return Error(Errc::no_such_track, detail::name_of(track_) + ": the buffer has no such track");
    }
    if (result != SHB_OK && (result != SHB_ERR_TIMEOUT || pending_ == 0)) {
        return detail::error_of(result);
    }
    FollowStep step;
    if (result == SHB_OK) {
        step.frame = detail::from(frame, memory.data());
    }
    step.events.attached = (pending_ & SHB_FOLLOW_ATTACHED) != 0;
    step.events.restarted = (pending_ & SHB_FOLLOW_RESTARTED) != 0;
    step.events.gone = (pending_ & SHB_FOLLOW_GONE) != 0;
    step.events.epoch = (pending_ & SHB_FOLLOW_EPOCH) != 0;
    step.events.media = (pending_ & SHB_FOLLOW_MEDIA) != 0;
    pending_ = 0;
    return step;
}

inline Result<Description> Follow::description() const {
    if (!is_open()) {
        return detail::not_open("the follower");
    }
    shb_reader_t *reader = shb_follow_reader(follow_.get());
    return reader != nullptr ? detail::description(reader) : Error(Errc::not_found, "no buffer yet");
}

inline Result<ReaderStats> Follow::stats() const {
    if (!is_open()) {
        return detail::not_open("the follower");
    }
    const shb_reader_t *reader = shb_follow_reader(follow_.get());
    return reader != nullptr ? detail::stats(reader) : Error(Errc::not_found, "no buffer yet");
}

inline Result<TrackStats> Follow::track_stats() const {
    if (!is_open()) {
        return detail::not_open("the follower");
    }
    const shb_map_t *map = shb_follow_map(follow_.get());
    return map != nullptr ? detail::stats(map, track_) : Error(Errc::not_found, "no buffer yet");
}

// ---- The buffers of this machine --------------------------------------------------------------------------

inline Result<std::vector<BufferInfo>> list_buffers() {
    std::vector<shb_info_t> found;
    std::size_t count = 0;
    // More may have come since they were counted.
    do {
        found.resize(count);
        const int result = shb_list(found.empty() ? nullptr : found.data(), found.size(), &count);
        if (result != SHB_OK) {
            return detail::error_of(result, "list of buffers");
        }
    } while (count > found.size());
    std::vector<BufferInfo> infos;
    for (std::size_t i = 0; i < count; ++i) {
        infos.push_back(detail::from(found[i]));
    }
    return infos;
}

inline Result<void> remove_buffer(const std::string &name, bool force) {
    if (detail::has_nul(name)) {
        return detail::invalid("the name of the buffer has a NUL");
    }
    const int result = shb_remove(name.c_str(), force ? 1 : 0);
    return result == SHB_OK ? Result<void>() : detail::error_of(result, name);
}

inline Result<void> guard(bool on) {
    return detail::done(shb_guard(on ? 1 : 0), "guard");
}

}  // namespace gst_source

#endif  // GST_SOURCE_HPP
