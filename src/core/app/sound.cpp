#include "core/app/sound.hpp"

#include "core/support/numbers.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen::Sound {

double clamp(double volume) {
  return std::isnan(volume) ? 0.0 : std::clamp(volume, 0.0, 1.0);
}

bool isSilent(bool userMuted, bool policyMuted, double volume) {
  return userMuted || policyMuted || std::min(volume, 1.0) <= 0 || !(volume > 0);
}

double effective(bool userMuted, bool policyMuted, double volume) {
  if (userMuted || policyMuted || !(volume > 0)) {
    return 0;
  }
  return std::min(volume, 1.0);
}

double parsePercent(std::optional<std::string_view> text, double current) {
  if (text) {
    if (const auto value = numbers::decimal(*text); value && std::isfinite(*value)) {
      return clamp(*value / 100);
    }
  }
  return clamp(current);
}

std::int64_t toPercent(double volume) {
  if (!(volume > 0)) {  // NaN too: it has no percentage
    return 0;
  }
  return static_cast<std::int64_t>(std::nearbyint(std::min(volume, 1.0) * 100));
}

Setting toggled(bool muted, double volume) {
  const double level = clamp(volume);
  return Setting{!muted, muted && level <= 0 ? 0.5 : level};
}

bool slid(bool muted, double to) {
  if (std::isnan(to)) {
    return muted;
  }
  return muted && clamp(to) <= 0;
}

bool isHeldQuiet(bool userMuted, bool audible, double volume) {
  if (userMuted || audible) {
    return false;
  }
  return volume > 0;
}

std::string label(bool userMuted, bool audible, double volume) {
  if (userMuted) {
    return "off";
  }
  if (!audible && volume > 0) {
    return "quiet";
  }
  return std::to_string(toPercent(volume)) + "%";
}

}  // namespace korvalen::Sound
