// The screensaver on a Linux desktop: the shared controller on the software engine, one view
// per window, presented with SDL2 in a window of its own, full screen on every monitor, or
// in windows another program hands over (XScreenSaver's hacks get theirs through
// XSCREENSAVER_WINDOW), with the video's sound. SIGTERM and SIGINT stop it cleanly. No SDL
// or X11 type appears here.
//
// Thread: the caller's, which becomes the views' main loop until the host returns.
#pragma once

#include "core/support/paths.hpp"
#include "host/monitors.hpp"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::host {

struct DesktopOptions {
  enum class Target { window, fullscreen, foreign };
  Target target = Target::window;
  std::int64_t width = 1280;  // a window of its own
  std::int64_t height = 720;
  std::vector<std::uint64_t> windows;  // foreign X windows, one view each
  bool preview = false;                // also: a foreign window much smaller than its monitor
  std::optional<double> seconds;       // stop by itself after this long
  paths::Environment environment;      // for the plan's location
};

// Runs until SIGTERM or SIGINT, the window closed or Escape pressed, every foreign window
// gone, or `seconds`; each view's controller then stops, and the host returns. One line when
// it cannot start: no X display, a window that is not there.
[[nodiscard]] std::expected<void, std::string> runOnDesktop(const DesktopOptions& options);
// The same on Wayland (WAYLAND_DISPLAY): an overlay-layer surface on every output, whatever
// the target; it also ends on a key, a button or the pointer moved. One line when there is no
// compositor or it has no layer shell.
[[nodiscard]] std::expected<void, std::string> runWaylandSaver(const DesktopOptions& options);

// An X window id as XScreenSaver and xwininfo write it: "0x2a00007" or decimal.
[[nodiscard]] std::expected<std::uint64_t, std::string> parseWindowID(std::string_view text, std::string_view what);

}  // namespace korvalen::host
