// What a host received against what the peer's material holds.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "Host.h"
#include "Material.h"

namespace peers {

// The frames are, per epoch, one run of the material's units without a hole, beginning and ending anywhere;
// the newest epoch has at least `least` of them. A first unit that the joining cut and a last one that the
// end cut are left out. Frame numbers follow each other and nothing was overwritten unread.
testing::AssertionResult SameVideo(const Material &material, const std::vector<Frame> &frames, size_t least);
testing::AssertionResult SameAudio(const Material &material, const std::vector<Frame> &frames, size_t least);

// Position of the first frame whose unit stands earlier in the material than the unit before it: where a
// sender that began anew took over within one epoch. frames.size() when there is none.
size_t RestartOfVideo(const Material &material, const std::vector<Frame> &frames);
size_t RestartOfAudio(const Material &material, const std::vector<Frame> &frames);

// Every random access picture carries its parameter sets and the key flag, no other one has the
// flag, and there are at least `least` of them.
testing::AssertionResult KeyFramesComplete(const Material &material, const std::vector<Frame> &frames, size_t least);

// Status, media records and the callback tell what the material is. The measured rates
// come once a second and follow the clock: one that stood still gives windows that say
// little of the stream, so a right one is waited for.
void ExpectTruth(const Material &material, const Host &host);

}  // namespace peers
