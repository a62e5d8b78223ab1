#include "core/screensaver/saver_platform.hpp"

#include "core/playback/flash_analyzer.hpp"
#include "core/rendering/appearance.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::saver {

double VideoWallpaper::keptRate(double requested) {
  if (std::isnan(requested)) {
    return maximumRate;
  }
  return std::clamp(requested, minimumRate, maximumRate);
}

std::optional<Filters> Filters::forAppearance(double dim, double saturation, double sharpen) {
  const bool neutral = Appearance::isIdentity(dim, saturation);
  const bool sharpens = sharpen > 0;  // NaN does not sharpen
  if (neutral && !sharpens) {
    return std::nullopt;
  }
  Filters filters;
  if (!neutral) {
    filters.colorMatrix = Appearance::ciColorMatrix(dim, saturation);
  }
  filters.sharpen = sharpens ? sharpen : 0;
  return filters;
}

double regionLuminance(std::span<const std::uint8_t> bgra, std::int64_t width, std::int64_t height, std::int64_t stride,
                       const FitRect& region) {
  if (width < 1 || height < 1) {
    return 0;
  }
  const auto edge = [](double value, std::int64_t size) {
    const double clamped = std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0;
    return static_cast<std::int64_t>(std::floor(clamped * static_cast<double>(size)));
  };
  std::int64_t left = edge(region.x, width);
  std::int64_t top = edge(region.y, height);
  std::int64_t right = std::isfinite(region.width) ? edge(region.x + region.width, width) : width;
  std::int64_t bottom = std::isfinite(region.height) ? edge(region.y + region.height, height) : height;
  if (right <= left || bottom <= top) {
    left = 0;
    top = 0;
    right = width;
    bottom = height;
  }
  const std::int64_t w = right - left;
  const std::int64_t h = bottom - top;
  constexpr double budget = 65536;
  const auto step =
      std::max<std::int64_t>(1, static_cast<std::int64_t>(std::sqrt(static_cast<double>(w * h) / budget)));
  const auto offset = static_cast<std::size_t>(top * stride + left * 4);
  if (offset >= bgra.size()) {
    return 0;
  }
  return FlashAnalyzer::meanLuminance(bgra.subspan(offset), w, h, stride, step);
}

}  // namespace korvalen::saver
