// The editor's frame rate, as a median, for the peer.
//
// State "fps", a map: "fg" and "all" (the latest frame times in seconds with the editor in front
// and behind), "t" (last evaluation, seconds since the epoch), "sent" (the rate sent last, or
// None), "to" (the connection that got it, while it is the peer's), "n" (usable frames counted).
#pragma once

#include "link/link_state.h"

namespace kestrix {

/// Counts a frame of `dt` seconds, and from time to time tells a peer of version 7 or later the
/// rate, if that has changed by more than a twentieth or the peer is new. Runs outside of the
/// tick's error handling and raises nothing: a failure is kept in "last_error".
void _fps_sample(py::handle dt);

/// The peer has gone: its connection isn't kept, and the next one is told the rate anew.
void _fps_forget_peer();

/// Forgets a sampler that isn't one.
void _fps_heal();

void bind_frame_rate(py::module_ &m);

}  // namespace kestrix
