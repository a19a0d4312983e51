// Symptom: a host that has loaded the library by dlopen crashes when it closes an SRT source that plays.
// Seen: libgstreamer of GStreamer 1.22.0, which brings libunwind: libsrt throws by libgcc and catches by that.
// Done: libgcc's functions are made global before libsrt is loaded, as they are in every host in C++.
// Cost: libgcc_s stays loaded, and is found first by what the host loads later.
// Test: Playing.test_other_protocols_by_their_scheme
#pragma once

namespace GSTREAMER {

// Once a process. A host without libgcc_s keeps what it has.
void UseOneUnwinder();

}  // namespace GSTREAMER
