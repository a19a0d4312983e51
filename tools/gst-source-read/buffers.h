// The shared buffers of this machine and their tracks.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shb.h"

namespace reader {

struct DetachMap {
    void operator()(shb_map_t *map) const { shb_detach(map); }
};
using Map = std::unique_ptr<shb_map_t, DetachMap>;

// Text of a failed call; to be asked before errno changes.
std::string Reason(int result);
// The same of a call that attaches, with the name: one who is shut out learns by whom.
std::string AttachReason(const std::string &name, int result);

// All functions throw std::runtime_error with a message for people, unless they say otherwise.

std::vector<shb_info_t> ListBuffers();
// As the commands take it, without the leading "/".
std::string NameOf(const shb_info_t &info);
// The name itself, or that of the one live buffer when it is empty.
std::string ChooseName(const std::string &name);

Map Attach(const std::string &name);
// Null when there is no such buffer, none that can be read yet, or one whose creator is not alive.
Map TryAttachLive(const std::string &name);
// Throws when the buffer has no such track.
void CheckTrack(const shb_map_t *map, const std::string &name, uint32_t channel, uint32_t stream);
// Throws when only one kind is wanted, by shb_kind_t, and the source says that it does not carry it.
void CheckKinds(const shb_map_t *map, const std::string &name, uint32_t channel, uint32_t stream,
                const std::array<bool, 2> &wanted);
shb_info_t InfoOf(const shb_map_t *map);
// Nothing where this user may not know. Throws nothing.
std::optional<std::vector<shb_reader_info_t>> ReadersOf(const shb_info_t &info);

// "alive", "stopped" when its creator lives and shows no sign of it, "stale" when the creator has gone.
const char *StateOf(const shb_info_t &info);
// Nothing in buffers of other layout versions.
bool Readable(const shb_info_t &info);
// "1234", with " (other)" behind a number that means another process here: the creator has its own PID namespace.
std::string CreatorOf(const shb_info_t &info);
// The user's name, or the number where nobody has a name for it.
std::string UserName(uint32_t user);

struct Track {
    uint32_t channel = 0;
    uint32_t stream = 0;
    shb_kind_t kind = SHB_VIDEO;
    shb_stats_t stats{};
    std::optional<shb_description_t> description;
};

const char *KindName(shb_kind_t kind);
// Tracks that have had a writer, or of which the source has said whether it has them.
std::vector<Track> TracksOf(const Map &map);

// "H264 high level 4.1 640x360p 25 fps", "AAC 48000 Hz 2 ch".
std::string Describe(shb_kind_t kind, const shb_description_t &description);
std::string FormatOf(shb_kind_t kind, const shb_description_t &description);  // "640x360p", "48000 Hz 2 ch"
double AnnouncedFps(const shb_description_t &description);                    // 0 when not announced

}  // namespace reader
