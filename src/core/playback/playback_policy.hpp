// Whether the wallpaper on each monitor runs, runs muted, pauses or stops, at what frame-rate
// cap and playback rate, and why: one pure function of the user's settings and a snapshot of
// the system's condition.
#pragma once

#include "core/playback/accessibility_settings.hpp"
#include "core/playback/power_settings.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

struct MonitorActivity {
  std::string monitorId;
  bool hasFullscreenWindow = false;
  bool hasMaximizedWindow = false;
  bool hasForegroundWindow = false;
  double coveredFraction = 0;
  bool operator==(const MonitorActivity&) const = default;
};

struct SystemState {
  bool onBattery = false;
  bool powerSaving = false;
  bool locked = false;
  bool remoteSession = false;
  bool displayOff = false;
  bool suspended = false;
  bool manuallyPaused = false;
  bool screensaverShowing = false;
  bool reducedMotion = false;
  bool screenShareAppRunning = false;
  bool screenShareSafe = false;
  bool contentFlashes = false;
  std::vector<MonitorActivity> monitors;
  bool operator==(const SystemState&) const = default;
};

enum class PlaybackMode { running, paused, stopped };
std::string_view toString(PlaybackMode mode);
std::optional<PlaybackMode> playbackModeNamed(std::string_view word);

struct MonitorPlayback {
  std::string monitorId;
  PlaybackMode mode = PlaybackMode::running;
  bool muted = false;
  std::optional<std::string> reason;

  // "dell|2560x1440: paused muted (fullscreen)".
  [[nodiscard]] std::string description() const;
  bool operator==(const MonitorPlayback&) const = default;
};

struct PlaybackDecision {
  static constexpr std::string_view manualPauseReason = "paused by you";

  std::vector<MonitorPlayback> monitors;
  std::int64_t fpsCap = 30;
  double playbackRate = 1.0;

  // The decoders keep running while any monitor still shows moving video.
  [[nodiscard]] PlaybackMode decoderMode() const;
  [[nodiscard]] bool muted() const;
  [[nodiscard]] bool allRunning() const;
  [[nodiscard]] std::string describe() const;
  // Why monitors stopped, other than the user's own pause.
  [[nodiscard]] std::string stoppedBecause() const;
  bool operator==(const PlaybackDecision&) const = default;
};

namespace PlaybackPolicy {
PlaybackDecision evaluate(const PowerSettings& power, const AccessibilitySettings& accessibility,
                          const SystemState& state);
PlaybackDecision evaluate(const PowerSettings& power, const SystemState& state);
}  // namespace PlaybackPolicy

namespace json {
template <>
struct Coding<MonitorActivity> {
  static Json encode(const MonitorActivity& activity, const Options& options);
  [[nodiscard]] static Result<MonitorActivity> decode(const Json& json, const Options& options);
};
// Every field may be left out (false, no monitors); a present one must have its type.
template <>
struct Coding<SystemState> {
  static Json encode(const SystemState& state, const Options& options);
  [[nodiscard]] static Result<SystemState> decode(const Json& json, const Options& options);
};
template <>
struct Coding<PlaybackMode> {
  static Json encode(PlaybackMode mode, const Options&) { return std::string(toString(mode)); }
  [[nodiscard]] static Result<PlaybackMode> decode(const Json& json, const Options& options);
};
template <>
struct Coding<MonitorPlayback> {
  static Json encode(const MonitorPlayback& playback, const Options& options);
};
template <>
struct Coding<PlaybackDecision> {
  static Json encode(const PlaybackDecision& decision, const Options& options);
};
}  // namespace json

}  // namespace korvalen
