#ifndef NOXELEMENTS_FAST_CLOCK_H
#define NOXELEMENTS_FAST_CLOCK_H

#include <gst/gst.h>

namespace noxelements {

/// How many times as fast as real time the set plays: NOX_PLAY_SPEED, a whole number up to 1000. 1
/// when it is not set, or to something else, of which standard error is told. Thread-safe.
unsigned playSpeed();

/// A clock for sinks that runs `speed` times as fast as the system's. Who waits for a time that has
/// long passed holds it up: it then stands still until few milliseconds are left, so that nothing
/// is left out as late, and pictures and sound stay together on a machine that decodes more slowly.
/// The caller's reference. Thread-safe; waits are synchronous ones only.
GstClock* makeFastClock(unsigned speed);

} // namespace noxelements

#endif
