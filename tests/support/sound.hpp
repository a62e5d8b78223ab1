// What a listener would hear in stereo samples, for the tests of the saver's sound: how loud
// and at what pitch, and a device that mixes its sources as a host's audio callback does.
#pragma once

#include "engine/sound_track.hpp"

#include <memory>
#include <vector>

namespace korvalen::testing {

// The rate the listening device plays at, as the desktop host's does.
constexpr int deviceRate = 48000;
// lavfi's sine has an amplitude of 1/8; mono spreads over both channels 3 dB down.
constexpr double lavfiSineRms = 0.125 / 2;

struct Heard {
  double rms = 0;
  double hertz = 0;
};

// Of the left channel of interleaved stereo at `sampleRate`: its loudness, and its pitch
// counted by rising zero crossings.
Heard hear(const std::vector<float>& stereo, int sampleRate = deviceRate);

// Mixes what it has been given into one stream when asked, as a host's audio device
// would; for tests, mixed on the caller's thread.
class ListeningDevice final : public engine::SoundOutput {
 public:
  [[nodiscard]] int sampleRate() const override { return deviceRate; }
  void add(const std::shared_ptr<engine::SoundSource>& source) override { sources.push_back(source); }
  void remove(const engine::SoundSource& source) override;
  // `seconds` of what would be played, pulled in chunks of a device's size with a pause
  // between them, so a decoder thread can keep ahead.
  std::vector<float> listen(double seconds);

  std::vector<std::shared_ptr<engine::SoundSource>> sources;
};

}  // namespace korvalen::testing
