// The monitors of an X display as RandR 1.5 describes them (what desktops and
// `xrandr --setmonitor` define), their places on their screens, and their stable
// identifiers: a monitor of one output by that output's EDID (vendor, product and serial,
// built-in panels, twins told apart by output number, size from the current mode), any
// other by its name and size. Without RandR 1.5, each connected output is a monitor.
// Private to the Linux hosts.
#pragma once

#include "host/monitors.hpp"

#include <X11/Xlib.h>

#include <string_view>
#include <vector>

namespace korvalen::host {

// Whether a RandR output is a laptop's own panel, by the connector names the kernel's drivers
// give those ("eDP-1", "LVDS1", "DSI-1"), in any case.
bool isBuiltInOutput(std::string_view name);

// Every monitor, screen by screen; a screen RandR says nothing about counts as one monitor.
std::vector<Monitor> monitorsOf(Display* display);

// Asks for the events that say the monitors changed: RandR's, and the root's own
// ConfigureNotify, the only event a monitor added with `xrandr --setmonitor` sends.
void watchMonitors(Display* display);
// Whether an event is one of those; `Xrandr` is told about the screen change.
bool isMonitorEvent(Display* display, XEvent& event);

// The monitor a window is on: the one holding its centre, else the first of its screen.
// `x`, `y` are the window's origin in root coordinates.
const Monitor* monitorFor(const std::vector<Monitor>& monitors, int screen, long x, long y, long width, long height);

}  // namespace korvalen::host
