#include "core/scene/layer.hpp"

#include "core/rendering/appearance.hpp"

namespace korvalen::scene {

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

}  // namespace korvalen::scene
