// Whether a video or animated picture flashes more than three times a second, measured on
// its real frames: a video sample by sample as it would play, an animation judged as a
// whole loop, the way the screensaver judges it before showing it. Decoded in-process, only
// the measured region of each frame converted.
#pragma once

#include "core/rendering/crop_rect.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace korvalen::engine {

struct FlashCheck {
  CropRect region = CropRect::wholeFrame();
  std::int64_t step = 1;  // every Nth pixel of every Nth row
  double rate = 1;        // playback speed
};

struct FlashReport {
  std::string kind;  // "video", "animation" or "still"
  bool flashes = false;
  std::int64_t peakFlashesPerSecond = 0;
  std::optional<double> firstViolationSeconds;
  std::int64_t frames = 0;
  std::int64_t width = 0;  // the picture as stored
  std::int64_t height = 0;
  double seconds = 0;  // wall time of the analysis
};

// `progress` hears (frames so far, media seconds reached).
[[nodiscard]] std::expected<FlashReport, std::string> checkForFlashes(
    const std::filesystem::path& file, const FlashCheck& check,
    const std::function<void(std::int64_t, double)>& progress = nullptr);

}  // namespace korvalen::engine
