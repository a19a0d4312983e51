#include "Material.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "Process.h"
#include "TempDir.h"

namespace peers {
namespace {

// Longer than any test plays: nothing has to be looped, and
// every unit of a run is different from every other.
constexpr int kSeconds = 90;

struct Recipe {
    Codec video;
    Codec audio;
    int width, height, fps;
    std::vector<std::string> videoArgs;
};

// Rows differ in what a chain could get wrong: a height that needs cropping, reordered pictures, other rates.
const std::map<std::string, Recipe> &Recipes() {
    static const std::map<std::string, Recipe> recipes = {
        {"h264_aac", {Codec::H264, Codec::Aac, 320, 180, 25, {}}},
        {"h264_aac_large", {Codec::H264, Codec::Aac, 640, 360, 25, {}}},
        {"h264_mp3", {Codec::H264, Codec::Mp3, 320, 180, 25, {"-tune", "film", "-bf", "2"}}},
        {"h264_ac3", {Codec::H264, Codec::Ac3, 320, 240, 30, {}}},
        {"h264_opus", {Codec::H264, Codec::Opus, 320, 180, 25, {}}},
        {"h264_pcma", {Codec::H264, Codec::Pcma, 320, 180, 25, {}}},
        {"h264_pcmu", {Codec::H264, Codec::Pcmu, 320, 180, 25, {}}},
        {"h264_bframes", {Codec::H264, Codec::None, 320, 180, 25, {"-tune", "film", "-bf", "2"}}},
        {"h264_bframes_aac", {Codec::H264, Codec::Aac, 320, 180, 25, {"-tune", "film", "-bf", "2"}}},
        {"h264_only", {Codec::H264, Codec::None, 640, 360, 25, {}}},
        {"h265_aac", {Codec::H265, Codec::Aac, 320, 180, 25, {}}},
        {"h265_opus", {Codec::H265, Codec::Opus, 320, 180, 25, {}}},
        {"h265_only", {Codec::H265, Codec::None, 320, 180, 25, {}}},
        {"aac_only", {Codec::None, Codec::Aac, 0, 0, 0, {}}},
        {"mp3_only", {Codec::None, Codec::Mp3, 0, 0, 0, {}}},
    };
    return recipes;
}

struct AudioFacts {
    std::vector<std::string> encoder;
    int rate, channels, samples;
    const char *name;
};

const AudioFacts &Facts(Codec codec) {
    static const std::map<Codec, AudioFacts> facts = {
        {Codec::Aac, {{"aac", "-b:a", "96k"}, 48000, 2, 1024, "AAC"}},
        {Codec::Mp3, {{"libmp3lame", "-b:a", "96k"}, 44100, 2, 1152, "MP3"}},
        {Codec::Ac3, {{"ac3", "-b:a", "128k"}, 48000, 2, 1536, "AC3"}},
        {Codec::Opus, {{"libopus", "-b:a", "64k"}, 48000, 2, 960, "OPUS"}},
        {Codec::Pcma, {{"pcm_alaw"}, 8000, 1, 0, "PCMA"}},
        {Codec::Pcmu, {{"pcm_mulaw"}, 8000, 1, 0, "PCMU"}},
    };
    return facts.at(codec);
}

const std::string &Directory() {
    static const std::string directory = [] {
        const char *given = std::getenv("PEERS_MATERIALS");
        std::string path = given != nullptr ? given : (std::filesystem::temp_directory_path() / "peers-materials").string();
        std::filesystem::create_directories(path);
        return path;
    }();
    return directory;
}

// Test programs run side by side: one makes a file, the others wait for it.
class DirectoryLock {
  public:
    DirectoryLock() : fd_(open((Directory() + "/lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd_ < 0 || flock(fd_, LOCK_EX) != 0) {
            throw std::runtime_error("cannot lock " + Directory());
        }
    }
    ~DirectoryLock() { close(fd_); }
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;

  private:
    int fd_;
};

std::vector<std::string> EncodeArgs(const Recipe &recipe) {
    std::vector<std::string> args;
    const auto add = [&](std::initializer_list<std::string> more) { args.insert(args.end(), more); };
    const std::string duration = std::to_string(kSeconds);
    if (recipe.video != Codec::None) {
        const std::string fps = std::to_string(recipe.fps);
        add({"-f", "lavfi", "-i",
             "testsrc2=size=" + std::to_string(recipe.width) + "x" + std::to_string(recipe.height) + ":rate=" + fps});
    }
    // Noise, so that no two frames are the same.
    if (recipe.audio != Codec::None) {
        add({"-f", "lavfi", "-i",
             "anoisesrc=color=pink:amplitude=0.3:seed=7:sample_rate=" + std::to_string(Facts(recipe.audio).rate)});
    }
    add({"-t", duration});
    const std::string gop = std::to_string(recipe.fps);
    if (recipe.video == Codec::H264) {
        add({"-c:v", "libx264", "-preset", "veryfast"});
        if (recipe.videoArgs.empty()) {
            add({"-tune", "zerolatency"});
        }
        add({"-g", gop, "-keyint_min", gop, "-sc_threshold", "0", "-pix_fmt", "yuv420p"});
    } else if (recipe.video == Codec::H265) {
        add({"-c:v", "libx265", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-x265-params",
             "keyint=" + gop + ":min-keyint=" + gop + ":scenecut=0:open-gop=0:info=0:log-level=none"});
    }
    args.insert(args.end(), recipe.videoArgs.begin(), recipe.videoArgs.end());
    if (recipe.audio != Codec::None) {
        const auto &facts = Facts(recipe.audio);
        add({"-c:a"});
        args.insert(args.end(), facts.encoder.begin(), facts.encoder.end());
        add({"-ac", std::to_string(facts.channels)});
    }
    return args;
}

// The file that `make` writes for a command, kept for all programs and builds that share the directory.
// Its name tells commands apart: what an older recipe has made is not taken. A file that is not
// complete has another name. The caller holds the lock.
std::string Cached(const std::string &file, const std::vector<std::string> &command,
                   const std::function<void(const std::string &unfinished)> &make) {
    std::string all;
    for (const auto &arg : command) {
        all += arg + '\n';
    }
    std::ostringstream name;
    name << std::hex << std::hash<std::string>{}(all) << '-' << file;
    const std::string path = Directory() + "/" + name.str();
    if (!std::filesystem::exists(path)) {
        // The name keeps its ending, by which ffmpeg chooses the container.
        const std::string unfinished = Directory() + "/unfinished-" + name.str();
        std::filesystem::remove(unfinished);
        make(unfinished);
        std::filesystem::rename(unfinished, path);
    }
    return path;
}

std::string Ffmpeg(const std::string &file, const std::vector<std::string> &more) {
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y"};
    args.insert(args.end(), more.begin(), more.end());
    return Cached(file, args, [args](const std::string &unfinished) mutable {
        args.push_back(unfinished);
        RunCommand(args, unfinished + ".log");
        std::filesystem::remove(unfinished + ".log");
    });
}

// The packets of one medium, as ffmpeg's own demultiplexer cuts them.
std::vector<std::string> Packets(const Material &material, const std::string &medium) {
    const std::vector<std::string> probe = {"ffprobe",       "-v",          "error", "-select_streams", medium,
                                            "-show_entries", "packet=size", "-of",   "csv=p=0",         material.path};
    const std::string sizes = Cached(material.name + "." + medium + ".sizes", probe,
                                     [&](const std::string &unfinished) { RunCommand(probe, unfinished); });
    const std::string data = ReadFile(Ffmpeg(material.name + "." + medium + ".bin",
                                             {"-i", material.path, "-map", "0:" + medium, "-c", "copy", "-f", "data"}));
    std::vector<std::string> packets;
    std::istringstream lines(ReadFile(sizes));
    size_t at = 0;
    for (size_t size = 0; lines >> size;) {
        packets.push_back(data.substr(at, size));
        at += size;
    }
    if (at != data.size() || packets.empty()) {
        throw std::runtime_error(material.name + ": packet sizes and data do not fit");
    }
    return packets;
}

// A test that compares indistinguishable frames would not see them swapped or repeated.
void RequireDistinct(const std::string &name, const std::vector<std::string> &units) {
    if (std::set<std::string>(units.begin(), units.end()).size() != units.size()) {
        throw std::runtime_error(name + ": two units of the material are the same");
    }
}

double BytesPerSecond(const std::vector<std::string> &packets) {
    size_t bytes = 0;
    for (const auto &packet : packets) {
        bytes += packet.size();
    }
    return static_cast<double>(bytes) / kSeconds;
}

std::unique_ptr<Material> Make(const std::string &name) {
    const Recipe &recipe = Recipes().at(name);
    auto material = std::make_unique<Material>();
    const DirectoryLock lock;
    material->name = name;
    material->path = Ffmpeg(name + ".mkv", EncodeArgs(recipe));
    material->video = recipe.video;
    material->audio = recipe.audio;
    if (recipe.video != Codec::None) {
        material->width = recipe.width;
        material->height = recipe.height;
        material->fps = static_cast<float>(recipe.fps);
        const auto packets = Packets(*material, "v");
        for (const auto &packet : packets) {
            material->videoUnits.push_back(VideoUnit(recipe.video, SplitLengthPrefixed(packet)));
        }
        RequireDistinct(name, material->videoUnits);
        material->videoBytesPerSecond = BytesPerSecond(packets);
    }
    if (recipe.audio != Codec::None) {
        const auto &facts = Facts(recipe.audio);
        material->sampleRate = facts.rate;
        material->channels = facts.channels;
        material->samplesPerFrame = facts.samples;
        material->audioUnits = Packets(*material, "a");
        RequireDistinct(name, material->audioUnits);
        material->audioBytesPerSecond = BytesPerSecond(material->audioUnits);
    }
    return material;
}

}  // namespace

const char *Material::VideoName() const {
    return video == Codec::H265 ? "H265" : video == Codec::H264 ? "H264" : "";
}

const char *Material::AudioName() const {
    return audio == Codec::None ? "" : Facts(audio).name;
}

const Material &GetMaterial(std::string_view wanted) {
    const std::string name(wanted);
    static std::mutex mutex;
    static std::map<std::string, std::unique_ptr<Material>> made;
    const std::lock_guard<std::mutex> lock(mutex);
    auto &entry = made[name];
    if (!entry) {
        entry = Make(name);
    }
    return *entry;
}

std::string DerivedFile(const std::string &file, const std::vector<std::string> &ffmpegArgs) {
    const DirectoryLock lock;
    return Ffmpeg(file, ffmpegArgs);
}

}  // namespace peers
