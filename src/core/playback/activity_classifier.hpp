// Facts about other applications' windows per monitor (full screen, maximized, in front,
// how much is covered), from a plain snapshot of monitors and windows. Integer geometry;
// overflow is a programming error, never a silent wrap.
#pragma once

#include "core/playback/playback_policy.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace korvalen {

struct MonitorInfo {
  std::string deviceName;
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const MonitorInfo&) const = default;
};

struct WindowSnapshot {
  std::int64_t id = 0;
  std::int64_t left = 0;
  std::int64_t top = 0;
  std::int64_t right = 0;   // exclusive
  std::int64_t bottom = 0;  // exclusive
  bool isForeground = false;
  bool isMaximized = false;
  bool isShell = false;
  bool isOurs = false;
  bool isVisible = true;
  bool isMinimized = false;
  bool isCloaked = false;
  bool isClickThrough = false;
  bool operator==(const WindowSnapshot&) const = default;
};

namespace ActivityClassifier {

// Geometry read from outside (a state file, the window system) is held within ±2^30 when it
// is decoded, so that every sum, difference and area below fits in 64 bits; no real screen
// comes near it.
inline constexpr std::int64_t coordinateLimit = std::int64_t{1} << 30;

struct Rect {
  std::int64_t l = 0;
  std::int64_t t = 0;
  std::int64_t r = 0;
  std::int64_t b = 0;
  bool operator==(const Rect&) const = default;
};

// One activity per monitor, in order. `exclusiveFullscreen`: the frontmost application runs
// in exclusive full-screen mode, which makes the foreground monitor full screen.
std::vector<MonitorActivity> classify(const std::vector<MonitorInfo>& monitors,
                                      const std::vector<WindowSnapshot>& windows, bool exclusiveFullscreen);
// Over the windows exactly as given; overlapping windows count once.
double coveredFraction(const MonitorInfo& monitor, const std::vector<WindowSnapshot>& windows);
// The exact area of the union.
std::int64_t unionArea(const std::vector<Rect>& rects);

}  // namespace ActivityClassifier

namespace json {
// Every number within ±`ActivityClassifier::coordinateLimit`.
template <>
struct Coding<MonitorInfo> {
  static Json encode(const MonitorInfo& monitor, const Options& options);
  [[nodiscard]] static Result<MonitorInfo> decode(const Json& json, const Options& options);
};
// Edges are required and held within the coordinate limit; the flags default to a plain
// visible window.
template <>
struct Coding<WindowSnapshot> {
  static Json encode(const WindowSnapshot& window, const Options& options);
  [[nodiscard]] static Result<WindowSnapshot> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
