// Whether a video or animated picture flashes more than three times a second, measured on
// its real frames: a video sample by sample as it would play, an animation judged as a
// whole loop, the way the screensaver judges it before showing it. Decoded in-process, only
// the measured region of each frame converted.
#pragma once

#include "core/rendering/crop_rect.hpp"
#include "engine/media_decoder.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::engine {

struct FlashCheck {
  CropRect region = CropRect::wholeFrame();
  std::int64_t step = 1;  // every Nth pixel of every Nth row
  double rate = 1;        // playback speed
  // At most about this many pixels a frame (0: no bound); the screensaver's guard samples
  // 65536 of what it shows.
  std::int64_t sampleBudget = 0;
  // Poster pictures made in the same pass (see `DecoderOptions::Poster`).
  DecoderOptions::Poster poster;
};

// The saver's own sampling of a shown picture, for a verdict that matches what its guard
// would see.
inline constexpr std::int64_t guardSampleBudget = 65536;

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

// `progress` hears (frames so far, media seconds reached). `observe` sees every measured
// frame (sampled as the check samples it) and may stop the check by returning false, which
// is then the error `cancelledText`.
[[nodiscard]] std::expected<FlashReport, std::string> checkForFlashes(
    const std::filesystem::path& file, const FlashCheck& check,
    const std::function<void(std::int64_t, double)>& progress = nullptr,
    const std::function<bool(const DecodedFrame&)>& observe = nullptr);

inline constexpr std::string_view cancelledText = "cancelled";

}  // namespace korvalen::engine
