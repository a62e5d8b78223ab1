// Reactions to reduced motion, screen sharing and flashing content, and the picture
// adjustments made for comfort (motion scale, dim, saturation).
#pragma once

#include "core/playback/power_settings.hpp"
#include "core/support/json.hpp"

#include <string>
#include <vector>

namespace korvalen {

struct AccessibilitySettings {
  PauseAction onReducedMotion = PauseAction::pause;
  PauseAction onScreenShare = PauseAction::pause;
  std::vector<std::string> screenShareApps = defaultScreenShareApps();
  PauseAction onFlashing = PauseAction::pause;
  bool flashGuard = true;
  bool skipFlashingWallpaper = false;
  double motionScale = 1.0;
  double dim = 0.0;
  double saturation = 1.0;

  static std::vector<std::string> defaultScreenShareApps();

  [[nodiscard]] bool altersAppearance() const { return dim > 0 || saturation < 1; }
  [[nodiscard]] AccessibilitySettings sanitised() const;
  bool operator==(const AccessibilitySettings&) const = default;
};

namespace json {
template <>
struct Coding<AccessibilitySettings> {
  static Json encode(const AccessibilitySettings& settings, const Options& options);
  [[nodiscard]] static Result<AccessibilitySettings> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
