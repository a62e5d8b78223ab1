// What the desktop tests of the wallpaper share: colours read back from a screen, compared
// loosely (video coding moves them a little), and long-running children with what they said.
#pragma once

#include "engine/process.hpp"

#include <chrono>
#include <cstdlib>
#include <ostream>
#include <string>

namespace korvalen::testing {

struct Rgb {
  int r = 0;
  int g = 0;
  int b = 0;
};
inline bool near(Rgb a, Rgb b) {
  return std::abs(a.r - b.r) <= 40 && std::abs(a.g - b.g) <= 40 && std::abs(a.b - b.b) <= 40;
}
inline std::ostream& operator<<(std::ostream& os, Rgb c) {
  return os << "rgb(" << c.r << "," << c.g << "," << c.b << ")";
}
inline constexpr Rgb red{255, 0, 0};
inline constexpr Rgb blue{0, 0, 255};

// A long-running child and everything it has said so far.
struct Running {
  engine::ChildProcess child;
  std::string out;
  std::string err;
  void pump(std::chrono::milliseconds wait = std::chrono::milliseconds(0)) { child.pump(out, err, wait); }
  // Whether standard error says `text` within `limit`.
  bool said(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (err.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= until) {
        return false;
      }
      child.pump(out, err, std::chrono::milliseconds(50));
    }
    return true;
  }
};

}  // namespace korvalen::testing
