#include "host/x11/x11_connection.hpp"

#include <fmt/format.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace korvalen::host {

namespace {

std::atomic<int> lastError{0};

int onXError(Display*, XErrorEvent* event) {
  lastError = event->error_code;
  return 0;
}

// The display itself gone: nothing more can be drawn or asked, so say so and leave.
int onXIOError(Display*) {
  static constexpr char line[] = "korvalen: the connection to the X display was lost\n";
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line, sizeof line - 1);
  ::_exit(1);
}

}  // namespace

std::expected<DisplayPtr, std::string> openDisplay() {
  const char* name = std::getenv("DISPLAY");  // NOLINT(concurrency-mt-unsafe): nothing sets it meanwhile
  if (name == nullptr || *name == '\0') {
    return std::unexpected("no X display: DISPLAY is not set");
  }
  DisplayPtr display(XOpenDisplay(name));
  if (!display) {
    return std::unexpected(fmt::format("no X display: {} cannot be opened", name));
  }
  XSetErrorHandler(onXError);
  XSetIOErrorHandler(onXIOError);
  return display;
}

int lastXError() {
  return lastError;
}

void resetXError() {
  lastError = 0;
}

}  // namespace korvalen::host
