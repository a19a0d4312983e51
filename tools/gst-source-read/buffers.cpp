#include "buffers.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "command_line.h"
#include "text.h"

namespace reader {

std::string Reason(int result) {
    switch (result) {
        case SHB_ERR_SYSTEM:
        case SHB_ERR_NO_SPACE:
            return std::strerror(errno);
        case SHB_ERR_ARG:
            return "not a name that a shared buffer can have";
        case SHB_ERR_NOT_FOUND:
            return "no shared buffer of this name";
        default:
            return shb_strerror(result);
    }
}

namespace {

// "; did you mean cam1?" when a live buffer is called something like it.
std::string SimilarName(const std::string &name) {
    std::vector<std::string> names;
    try {
        for (const shb_info_t &info : ListBuffers()) {
            if (info.alive != 0) {
                names.push_back(NameOf(info));
            }
        }
    } catch (const std::runtime_error &) {  // NOLINT(bugprone-empty-catch): the first failure is what counts
    }
    return tool::Suggestion(name.substr(std::min(name.find_first_not_of('/'), name.size())), names);
}

}  // namespace

std::string AttachReason(const std::string &name, int result) {
    const bool refused = result == SHB_ERR_SYSTEM && errno == EACCES;
    const std::string reason = Reason(result);
    struct stat file {};
    const std::string path = "/dev/shm/" + name.substr(name.find_first_not_of('/'));
    if (refused && stat(path.c_str(), &file) == 0) {
        return name + ": it belongs to " + UserName(file.st_uid) + " and is not for this user";
    }
    return name + ": " + reason + (result == SHB_ERR_NOT_FOUND ? SimilarName(name) : "");
}

std::vector<shb_info_t> ListBuffers() {
    // The first tells the library the size of each.
    std::vector<shb_info_t> buffers(1);
    for (;;) {
        size_t count = 0;
        const int result = shb_list(buffers.data(), buffers.size(), &count);
        if (result != SHB_OK) {
            throw std::runtime_error("the shared buffers cannot be listed: " + Reason(result));
        }
        const bool complete = count <= buffers.size();
        buffers.resize(count);
        if (complete) {
            return buffers;
        }
    }
}

std::string NameOf(const shb_info_t &info) {
    return info.name[0] == '/' ? info.name + 1 : info.name;
}

std::string ChooseName(const std::string &name) {
    if (!name.empty()) {
        return name;
    }
    std::vector<std::string> live;
    for (const shb_info_t &info : ListBuffers()) {
        if (info.alive != 0 && Readable(info)) {
            live.push_back(NameOf(info));
        }
    }
    if (live.size() == 1) {
        return live.front();
    }
    if (live.empty()) {
        throw std::runtime_error("no live shared buffer on this machine");
    }
    std::string names;
    for (const std::string &one : live) {
        names += (names.empty() ? "" : ", ") + one;
    }
    throw std::runtime_error("several live shared buffers, say which: " + names);
}

Map Attach(const std::string &name) {
    shb_map_t *map = nullptr;
    const int result = shb_attach(name.c_str(), &map);
    if (result != SHB_OK) {
        throw std::runtime_error(AttachReason(name, result));
    }
    return Map(map);
}

Map TryAttachLive(const std::string &name) {
    shb_map_t *map = nullptr;
    const int result = shb_attach(name.c_str(), &map);
    if (result == SHB_OK) {
        Map attached(map);
        return shb_map_alive(map) != 0 ? std::move(attached) : nullptr;
    }
    // One that is just being replaced may be there in part.
    if (result == SHB_ERR_NOT_FOUND || result == SHB_ERR_VERSION || result == SHB_ERR_CORRUPT) {
        return nullptr;
    }
    throw std::runtime_error(AttachReason(name, result));
}

void CheckTrack(const shb_map_t *map, const std::string &name, uint32_t channel, uint32_t stream) {
    const shb_geometry_t geometry = InfoOf(map).geometry;
    if (channel >= geometry.channels || stream >= geometry.streams) {
        throw std::runtime_error(name + " has " + tool::Count(geometry.channels, "channel", "channels") + " of " +
                                 tool::Count(geometry.streams, "stream", "streams") + ", counted from 0");
    }
}

void CheckKinds(const shb_map_t *map, const std::string &name, uint32_t channel, uint32_t stream,
                const std::array<bool, 2> &wanted) {
    if (wanted[SHB_VIDEO] == wanted[SHB_AUDIO]) {
        return;
    }
    const shb_kind_t kind = wanted[SHB_VIDEO] ? SHB_VIDEO : SHB_AUDIO;
    shb_stats_t stats{};
    if (shb_map_stats(map, channel, stream, kind, &stats) == SHB_OK && stats.presence == SHB_PRESENCE_ABSENT) {
        throw std::runtime_error(name + ": the source carries no " + KindName(kind));
    }
}

shb_info_t InfoOf(const shb_map_t *map) {
    shb_info_t info{};
    int result = shb_map_info(map, &info);
    // What was attached has had a geometry: its file has been cut short.
    if (result == SHB_OK && !Readable(info)) {
        result = SHB_ERR_CORRUPT;
    }
    if (result != SHB_OK) {
        throw std::runtime_error(std::string("the shared buffer cannot be read: ") + Reason(result));
    }
    return info;
}

std::optional<std::vector<shb_reader_info_t>> ReadersOf(const shb_info_t &info) {
    shb_map_t *attached = nullptr;
    if (info.alive == 0 || shb_attach(info.name, &attached) != SHB_OK) {
        return std::nullopt;
    }
    const Map map(attached);
    std::vector<shb_reader_info_t> readers(1);
    for (;;) {
        size_t count = 0;
        if (shb_map_readers(map.get(), readers.data(), readers.size(), &count) != SHB_OK) {
            return std::nullopt;
        }
        if (count <= readers.size()) {
            readers.resize(count);
            return readers;
        }
        readers.resize(count);
    }
}

const char *StateOf(const shb_info_t &info) {
    constexpr uint64_t kLongSilence = 2'000'000'000;
    if (info.alive == 0) {
        return "stale";
    }
    return Readable(info) && info.heartbeat_age_ns > kLongSilence ? "stopped" : "alive";
}

bool Readable(const shb_info_t &info) {
    return info.geometry.channels > 0;
}

std::string CreatorOf(const shb_info_t &info) {
    return std::to_string(info.creator_pid) + (info.pid_is_ours != 0 ? "" : " (other)");
}

std::string UserName(uint32_t user) {
    const passwd *known = getpwuid(user);
    return known != nullptr ? known->pw_name : std::to_string(user);
}

const char *KindName(shb_kind_t kind) {
    return kind == SHB_VIDEO ? "video" : "audio";
}

std::vector<Track> TracksOf(const Map &map) {
    std::vector<Track> tracks;
    const shb_geometry_t geometry = InfoOf(map.get()).geometry;
    for (uint32_t channel = 0; channel < geometry.channels; ++channel) {
        for (uint32_t stream = 0; stream < geometry.streams; ++stream) {
            for (const shb_kind_t kind : {SHB_VIDEO, SHB_AUDIO}) {
                Track track{channel, stream, kind, {}, {}};
                const int result = shb_map_stats(map.get(), channel, stream, kind, &track.stats);
                if (result != SHB_OK) {
                    throw std::runtime_error("the shared buffer cannot be read: " + Reason(result));
                }
                if (track.stats.epoch == 0 && track.stats.presence == SHB_PRESENCE_UNKNOWN) {
                    continue;
                }
                shb_description_t description{};
                if (shb_map_description(map.get(), channel, stream, kind, &description) == SHB_OK) {
                    track.description = description;
                }
                tracks.push_back(track);
            }
        }
    }
    return tracks;
}

std::string Describe(shb_kind_t kind, const shb_description_t &description) {
    std::string text = description.code;
    text += description.profile[0] != '\0' ? std::string(" ") + description.profile : "";
    text += description.level[0] != '\0' ? std::string(" level ") + description.level : "";
    text += " " + FormatOf(kind, description);
    if (kind == SHB_VIDEO && AnnouncedFps(description) > 0) {
        text += " " + tool::FormatRate(AnnouncedFps(description)) + " fps";
    }
    return tool::Printable(text);
}

std::string FormatOf(shb_kind_t kind, const shb_description_t &description) {
    return kind == SHB_VIDEO ? tool::FormatPicture(description.width, description.height, description.scan_type)
                             : tool::FormatSound(description.sample_rate, description.channels);
}

double AnnouncedFps(const shb_description_t &description) {
    return description.fps_n > 0 && description.fps_d > 0 ? static_cast<double>(description.fps_n) / description.fps_d : 0;
}

}  // namespace reader
