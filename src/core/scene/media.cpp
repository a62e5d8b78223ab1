#include "core/scene/media.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::scene {

double VideoWallpaper::keptRate(double requested) {
  if (std::isnan(requested)) {
    return maximumRate;
  }
  return std::clamp(requested, minimumRate, maximumRate);
}

}  // namespace korvalen::scene
