// What playback does under each system condition (full screen, battery, locked...), the
// frame-rate caps and the graphics preference.
#pragma once

#include "core/support/json.hpp"

#include <cstdint>
#include <optional>
#include <string_view>

namespace korvalen {

// Ordered by strength: keepRunning < mute < pause < stop.
enum class PauseAction { keepRunning = 0, mute = 1, pause = 2, stop = 3 };

// The settings file's word ("keepRunning", "mute", "pause", "stop").
std::string_view toString(PauseAction action);
// The settings file's reading: trimmed of spaces and tabs, lower-cased; "keeprunning" or
// "keep", "mute", "pause", "stop".
std::optional<PauseAction> parseSettingsAction(std::string_view text);

enum class GpuPreference { automatic, integrated, discrete };

// "auto", "integrated", "discrete".
std::string_view toString(GpuPreference preference);
std::optional<GpuPreference> parseGpuPreference(std::string_view text);

struct PowerSettings {
  static constexpr std::int64_t minimumFpsCap = 1;
  static constexpr std::int64_t maximumFpsCap = 144;

  PauseAction onFullscreen = PauseAction::pause;
  PauseAction onMaximized = PauseAction::keepRunning;
  PauseAction onFocused = PauseAction::keepRunning;
  PauseAction onOccluded = PauseAction::keepRunning;
  double occludedCoverage = 0.9;
  bool perMonitor = true;
  PauseAction onBattery = PauseAction::keepRunning;
  PauseAction onPowerSaving = PauseAction::pause;
  PauseAction onLocked = PauseAction::pause;
  PauseAction onRemoteDesktop = PauseAction::pause;
  PauseAction onDisplayOff = PauseAction::pause;
  std::int64_t fpsCap = 30;
  std::int64_t fpsCapOnBattery = 15;
  GpuPreference gpu = GpuPreference::integrated;

  [[nodiscard]] PowerSettings sanitised() const;
  bool operator==(const PowerSettings&) const = default;
};

namespace json {
template <>
struct Coding<PauseAction> {
  static Json encode(PauseAction action, const Options&) { return std::string(toString(action)); }
  // An unknown word fails with "unknown action 'word'".
  [[nodiscard]] static Result<PauseAction> decode(const Json& json, const Options& options);
};
template <>
struct Coding<GpuPreference> {
  static Json encode(GpuPreference preference, const Options&) { return std::string(toString(preference)); }
  [[nodiscard]] static Result<GpuPreference> decode(const Json& json, const Options& options);
};
template <>
struct Coding<PowerSettings> {
  static Json encode(const PowerSettings& power, const Options& options);
  [[nodiscard]] static Result<PowerSettings> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
