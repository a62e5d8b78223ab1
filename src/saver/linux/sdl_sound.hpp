// The host's sound output on SDL audio: opened when the first track is added, paused while
// nothing plays, and absent without complaint when the machine has no audio device.
// Private to the Linux host. Main thread, but for the device's own callback.
#pragma once

#include "engine/sound_track.hpp"

#include <memory>

namespace korvalen::host {

// Null when SDL's audio cannot start at all (no driver); a device that fails to open later
// just plays nothing. The SDL library must have been initialised.
std::shared_ptr<engine::SoundOutput> makeSdlSound();

}  // namespace korvalen::host
