// One web wallpaper's page in a WebKitGTK view: served from the item's own folder through
// the private scheme, sandboxed by WebKit, with storage of its own, and kept off the network
// unless the item allows it. It runs in a window behind the desktop, or off screen for the
// still and the flash check made at import.
//
// Thread: GTK's main thread.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace korvalen::web {

struct PageOptions {
  std::string item;                 // the library item: the scheme's host
  std::filesystem::path folder;     // what the scheme serves
  std::string page = "index.html";  // inside `folder`
  std::optional<std::string> url;   // a remote page's address, loaded in place of `page`
  bool allowNetwork = false;
  std::filesystem::path storage;  // the page's own cookies, local storage and cache
  int width = 1920;
  int height = 1080;
  int fpsCap = 0;  // animation frames a second at most, as the wallpaper's are; 0: no cap
};

// Where a shown page goes.
struct Placement {
  std::optional<unsigned long> into;  // X11: inside this window (the wallpaper's own)
  int x = 0;                          // else a window of its own behind the desktop, on the
  int y = 0;                          // monitor at this position
  bool bottomLayer = false;           // Wayland: above the background layer, below windows
};

// What the page says to the program that started it: one line each.
using Say = std::function<void(const std::string&)>;

// Shows the page until it ends: standard input takes "pause", "resume", "mute", "unmute",
// "fps N" and "quit", one a line; its end quits too. The exit code is 0 when asked to quit, else 3
// (the page's process crashed or hung, or the page would not load), said in one line first.
int showPage(const PageOptions& options, const Placement& placement, bool muted, bool paused, const Say& say);

// Loads the page off screen at its size, measures it for flashes until the still is taken
// `seconds` after it loaded, and writes the still as a PNG to `still`. Prints one JSON line
// on standard output: {"still": PATH, "flashes": BOOL, "peak": N, "samples": N}. Exit code 0,
// else 1 after one line.
int makeStill(const PageOptions& options, const std::filesystem::path& still, double seconds, const Say& say);

}  // namespace korvalen::web
