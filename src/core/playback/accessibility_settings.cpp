#include "core/playback/accessibility_settings.hpp"

#include "core/support/numbers.hpp"

namespace korvalen {
namespace {

constexpr auto accessibilityFields = [](auto& coder, auto& settings) {
  coder.lenient("onReducedMotion", settings.onReducedMotion);
  coder.lenient("onScreenShare", settings.onScreenShare);
  coder.lenient("screenShareApps", settings.screenShareApps);
  coder.lenient("onFlashing", settings.onFlashing);
  coder.lenient("flashGuard", settings.flashGuard);
  coder.lenient("skipFlashingWallpaper", settings.skipFlashingWallpaper);
  coder.lenient("motionScale", settings.motionScale);
  coder.lenient("dim", settings.dim);
  coder.lenient("saturation", settings.saturation);
};

}  // namespace

std::vector<std::string> AccessibilitySettings::defaultScreenShareApps() {
  return {"us.zoom.xos",         "com.microsoft.teams2",      "com.microsoft.teams", "com.cisco.webexmeetingsapp",
          "Cisco-Systems.Spark", "com.tinyspeck.slackmacgap", "com.skype.skype"};
}

AccessibilitySettings AccessibilitySettings::sanitised() const {
  AccessibilitySettings out = *this;
  out.motionScale = numbers::clampedOr(motionScale, 0.1, 1.0, 1.0);
  out.dim = numbers::clampedOr(dim, 0.0, 0.9, 0.0);
  out.saturation = numbers::clampedOr(saturation, 0.0, 1.0, 1.0);
  // Muting does not answer flashing: the picture itself must stop.
  if (out.onFlashing == PauseAction::mute) {
    out.onFlashing = PauseAction::pause;
  }
  return out;
}

namespace json {

KORVALEN_CODING_FROM_FIELDS(AccessibilitySettings, accessibilityFields)

}  // namespace json
}  // namespace korvalen
