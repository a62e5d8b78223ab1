// The log facade. Every line carries the subsystem "com.vexil.korvalen", a category and a
// level; arguments are public text, with credentials redacted. On Linux lines go to standard
// error; tests capture them.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::log {

inline constexpr std::string_view subsystem = "com.vexil.korvalen";

enum class Level { debug, info, notice, error, fault };

std::string_view toString(Level level);

struct Line {
  std::string category;
  Level level = Level::notice;
  std::string message;
  bool operator==(const Line&) const = default;
};

void write(std::string_view category, Level level, std::string_view message);

template <class... Args>
void writef(std::string_view category, Level level, fmt::format_string<Args...> format, Args&&... args) {
  write(category, level, fmt::format(format, std::forward<Args>(args)...));
}

// While alive, lines go to this capture instead of the platform backend. Captures nest;
// the innermost one receives. Safe to use from several threads.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  [[nodiscard]] std::vector<Line> lines() const;

 private:
  friend void write(std::string_view, Level, std::string_view);
  void append(Line line);
  Capture* previous_ = nullptr;
  std::vector<Line> lines_;
};

// Where lines go when nothing captures them: standard error by default; a host installs the
// system log (the macOS plug-in's os_log). Set once at start-up.
void setBackend(std::function<void(const Line&)> backend);

// The platform backend's form of a line, e.g. "com.vexil.korvalen screensaver error: no plan".
std::string formatLine(const Line& line);

}  // namespace korvalen::log
