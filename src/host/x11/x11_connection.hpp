// Opening the X display named by DISPLAY, with error handlers that turn the server's
// complaints into nothing (a window gone between two requests is normal on a desktop) and a
// lost connection into one line and an exit. Private to the Linux hosts.
#pragma once

#include <X11/Xlib.h>

#include <expected>
#include <memory>
#include <string>

namespace korvalen::host {

struct DisplayCloser {
  void operator()(Display* display) const { XCloseDisplay(display); }
};
using DisplayPtr = std::unique_ptr<Display, DisplayCloser>;

// `program` names who lost the connection in the line the I/O handler writes.
[[nodiscard]] std::expected<DisplayPtr, std::string> openDisplay();

// The last X error since `reset` (0 for none), for the few requests whose failure matters.
int lastXError();
void resetXError();

}  // namespace korvalen::host
