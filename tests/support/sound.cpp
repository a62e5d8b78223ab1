#include "support/sound.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <span>
#include <thread>

namespace korvalen::testing {

Heard hear(const std::vector<float>& stereo, int sampleRate) {
  double sum = 0;
  int rising = 0;
  const std::size_t frames = stereo.size() / 2;
  for (std::size_t i = 0; i < frames; ++i) {
    const double value = stereo[i * 2];
    sum += value * value;
    if (i > 0 && stereo[(i - 1) * 2] < 0 && value >= 0) {
      ++rising;
    }
  }
  if (frames == 0) {
    return {};
  }
  return {std::sqrt(sum / static_cast<double>(frames)), rising * sampleRate / static_cast<double>(frames)};
}

void ListeningDevice::remove(const engine::SoundSource& source) {
  std::erase_if(sources, [&](const auto& held) { return held.get() == &source; });
}

std::vector<float> ListeningDevice::listen(double seconds) {
  std::vector<float> all(static_cast<std::size_t>(seconds * sampleRate()) * 2, 0.0F);
  for (std::size_t at = 0; at < all.size(); at += 2048) {
    const auto chunk = std::span(all).subspan(at, std::min<std::size_t>(2048, all.size() - at));
    for (const auto& source : sources) {
      source->mixInto(chunk);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return all;
}

}  // namespace korvalen::testing
