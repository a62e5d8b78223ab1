// `korvalen wallpaper`: the live wallpaper on X11. One event loop carries the display (its
// monitors and the window manager's list), the session (power, lock, sleep), the planner (the
// settings and library files, the next change), the control socket, the signals and the
// frames that are due; nothing ticks while nothing plays.
#pragma once

#include "core/support/paths.hpp"
#include "core/support/time_zone.hpp"
#include "engine/planning/planner_service.hpp"
#include "host/backend.hpp"
#include "host/wallpaper_display.hpp"

#include <expected>
#include <functional>
#include <optional>
#include <string>

namespace korvalen::wallpaper {

struct WallpaperOptions {
  host::Backend backend = host::Backend::x11;
  host::Placement placement = host::Placement::automatic;  // on X11
  host::Placement layer = host::Placement::background;     // on Wayland
  engine::PlannerFiles files;
  paths::Environment environment;
  const TimeZone* zone = nullptr;
  std::function<Date()> clock;
  std::function<void(const std::string&)> log;  // one line per event worth telling
  std::optional<double> seconds;                // stop by itself after this long
};

// Runs until SIGTERM or SIGINT, `stop` on the socket, or `seconds`; then its windows and its
// socket are gone. One line when it cannot start: no display, another wallpaper or planner.
[[nodiscard]] std::expected<void, std::string> runWallpaper(const WallpaperOptions& options);

}  // namespace korvalen::wallpaper
