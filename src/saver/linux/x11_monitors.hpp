// The monitors of an X display as RandR describes them: each connected output that shows
// part of a screen, its place on that screen, and its stable identifier (EDID vendor,
// product and serial, built-in panels, twins told apart by output number, size from the
// current mode). Private to the Linux host.
#pragma once

#include "saver/linux/desktop_host.hpp"

#include <X11/Xlib.h>

#include <string_view>
#include <vector>

namespace korvalen::host {

// Whether a RandR output is a laptop's own panel, by the connector names the kernel's drivers
// give those ("eDP-1", "LVDS1", "DSI-1"), in any case.
bool isBuiltInOutput(std::string_view name);

// Every monitor, screen by screen; a screen RandR says nothing about counts as one monitor.
std::vector<Monitor> monitorsOf(Display* display);

// The monitor a window is on: the one holding its centre, else the first of its screen.
// `x`, `y` are the window's origin in root coordinates.
const Monitor* monitorFor(const std::vector<Monitor>& monitors, int screen, long x, long y, long width, long height);

}  // namespace korvalen::host
