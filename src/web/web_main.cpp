// korvalen-web: one web wallpaper's page, started by the live wallpaper for each monitor
// that shows one (and by import for its still). A process of its own, so GTK and WebKit stay
// out of the wallpaper's loop and a page that crashes or hangs takes nothing else with it.
#include "engine/process.hpp"
#include "web/web_page.hpp"

#include <fmt/format.h>
#include <gtk/gtk.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <regex>

#include <unistd.h>

namespace {

void say(const std::string& line) {
  // One line each, whatever the page put in it.
  std::string flat = line;
  for (char& c : flat) {
    if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  fmt::print(stderr, "korvalen-web: {}\n", flat);
  std::fflush(stderr);
}

bool readSize(const std::string& text, int& width, int& height) {
  static const std::regex pattern("([1-9][0-9]{0,4})x([1-9][0-9]{0,4})");
  std::smatch match;
  if (!std::regex_match(text, match, pattern)) {
    return false;
  }
  width = std::stoi(match[1].str());
  height = std::stoi(match[2].str());
  return true;
}

// WebKit's sandbox lets the page's processes see the compositor's socket by its name inside
// XDG_RUNTIME_DIR. A WAYLAND_DISPLAY given as a path elsewhere gets a link there, by name.
class WaylandSocketName {
 public:
  WaylandSocketName() {
    const char* display = std::getenv("WAYLAND_DISPLAY");  // NOLINT(concurrency-mt-unsafe): before threads
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
    if (display == nullptr || runtime == nullptr || display[0] != '/') {
      return;
    }
    const std::filesystem::path socket(display);
    if (socket.parent_path() == std::filesystem::path(runtime)) {
      ::setenv("WAYLAND_DISPLAY", socket.filename().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
      return;
    }
    link_ = std::filesystem::path(runtime) / fmt::format("korvalen-web-wayland-{}", ::getpid());
    std::error_code error;
    std::filesystem::remove(link_, error);
    std::filesystem::create_symlink(socket, link_, error);
    if (error) {
      link_.clear();
      return;
    }
    ::setenv("WAYLAND_DISPLAY", link_.filename().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  }
  ~WaylandSocketName() {
    std::error_code error;
    if (!link_.empty()) {
      std::filesystem::remove(link_, error);
    }
  }
  WaylandSocketName(const WaylandSocketName&) = delete;
  WaylandSocketName& operator=(const WaylandSocketName&) = delete;

 private:
  std::filesystem::path link_;
};

// A still needs a display only to render into memory: with none, a private X server
// (Xvfb, when installed) serves, so a page imported over SSH or in a headless demo still
// gets its still. Ended with this program.
class PrivateDisplay {
 public:
  bool start(int width, int height) {
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): before threads
    const auto program = korvalen::engine::findExecutable("Xvfb", path != nullptr ? path : "/usr/bin:/bin");
    if (!program) {
      return false;
    }
    auto started = korvalen::engine::ChildProcess::start(
        *program,
        {"-displayfd", "1", "-nolisten", "tcp", "-noreset", "-screen", "0", fmt::format("{}x{}x24", width, height)});
    if (!started) {
      return false;
    }
    server_.emplace(std::move(*started));
    std::string output;
    std::string error;
    for (int i = 0; i < 100 && output.find('\n') == std::string::npos; ++i) {
      if (!server_->pump(output, error, std::chrono::milliseconds(50))) {
        break;
      }
    }
    const auto end = output.find('\n');
    if (end == std::string::npos || end == 0) {
      server_.reset();
      return false;
    }
    ::unsetenv("WAYLAND_DISPLAY");                                  // NOLINT(concurrency-mt-unsafe)
    ::setenv("DISPLAY", (":" + output.substr(0, end)).c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    return true;
  }

 private:
  std::optional<korvalen::engine::ChildProcess> server_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"A web wallpaper's page, for the live wallpaper and import", "korvalen-web"};
  app.require_subcommand(1);
  korvalen::web::PageOptions options;
  std::string size = "1920x1080";
  std::string url;
  const auto common = [&](CLI::App* command) {
    command->add_option("--item", options.item, "the library item")->required();
    command->add_option("--folder", options.folder, "the item's folder")->required();
    command->add_option("--page", options.page, "the page inside the folder");
    command->add_option("--url", url, "a remote page's address");
    command->add_flag("--allow-network", options.allowNetwork, "the page may use the network");
    command->add_option("--storage", options.storage, "the page's own storage")->required();
    command->add_option("--size", size, "WIDTHxHEIGHT");
  };
  auto* show = app.add_subcommand("show", "show the page behind the desktop");
  common(show);
  korvalen::web::Placement placement;
  unsigned long into = 0;
  std::string at = "0,0";
  bool muted = false;
  bool paused = false;
  show->add_option("--into", into, "X11: the window to show it in");
  show->add_option("--at", at, "X,Y: the monitor's position");
  show->add_flag("--bottom", placement.bottomLayer, "Wayland: on the bottom layer, over a wallpaper's background");
  show->add_flag("--muted", muted);
  show->add_option("--fps", options.fpsCap, "animation frames a second at most")->check(CLI::Range(1, 1000));
  show->add_flag("--paused", paused);
  auto* still = app.add_subcommand("still", "make the page's still and check it for flashes");
  common(still);
  std::filesystem::path out;
  double seconds = 3;
  still->add_option("--out", out, "the PNG to write")->required();
  still->add_option("--after", seconds, "seconds after loading")->check(CLI::Range(0.0, 60.0));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  if (!readSize(size, options.width, options.height)) {
    say(fmt::format("--size {}: not WIDTHxHEIGHT", size));
    return 2;
  }
  if (!url.empty()) {
    options.url = url;
  }
  if (int x = 0, y = 0; std::sscanf(at.c_str(), "%d,%d", &x, &y) == 2) {
    placement.x = x;
    placement.y = y;
  } else {
    say(fmt::format("--at {}: not X,Y", at));
    return 2;
  }
  if (into != 0) {
    placement.into = into;
  }
  if (still->parsed()) {
    // A still is taken at scale 1 whatever the desktop's scale: its pixels are its size.
    ::setenv("GDK_SCALE", "1", 1);  // NOLINT(concurrency-mt-unsafe): before threads
    ::unsetenv("GDK_DPI_SCALE");    // NOLINT(concurrency-mt-unsafe)
  }
  const WaylandSocketName socketName;
  PrivateDisplay privateDisplay;
  if (gtk_init_check(&argc, &argv) == FALSE &&
      (show->parsed() || !privateDisplay.start(options.width, options.height) ||
       gtk_init_check(&argc, &argv) == FALSE)) {
    say(show->parsed() ? "no display to show a page on (neither WAYLAND_DISPLAY nor DISPLAY works)"
                       : "no display to show a page on (neither WAYLAND_DISPLAY nor DISPLAY works, and no Xvfb)");
    return 1;
  }
  if (show->parsed()) {
    return korvalen::web::showPage(options, placement, muted, paused, say);
  }
  return korvalen::web::makeStill(options, out, seconds, say);
}
