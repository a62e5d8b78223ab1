// The monitors of the display, as both desktop programs see them. No X11 or Wayland type
// appears here.
#pragma once

#include <expected>
#include <string>
#include <vector>

namespace korvalen::host {

// A monitor as RandR 1.5 describes it, with the stable identifier plans are keyed by.
struct Monitor {
  int screen = 0;      // the X screen it belongs to (0 on Wayland)
  std::string output;  // its name: RandR's ("HDMI-1", "screen" under Xvfb, a monitor's own) or the compositor's
  long x = 0;          // in its screen's root window coordinates
  long y = 0;
  long width = 0;
  long height = 0;
  std::string id;
  bool operator==(const Monitor&) const = default;
};

// The monitors of the display in DISPLAY; one line when there is no display.
[[nodiscard]] std::expected<std::vector<Monitor>, std::string> listMonitors();
// The outputs of the Wayland compositor in WAYLAND_DISPLAY; one line when there is none.
[[nodiscard]] std::expected<std::vector<Monitor>, std::string> listWaylandMonitors();

}  // namespace korvalen::host
