// The `korvalen` command-line tool as a function, so the executable is a thin wrapper and
// tests drive every command in-process with their own streams, environment and clock.
#pragma once

#include "core/support/iso8601.hpp"
#include "core/support/paths.hpp"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace korvalen::cli {

struct Context {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  paths::Environment environment;
  std::function<Date()> now;
  // Standard error is a terminal: long work may show progress there.
  bool interactive = false;
};

inline constexpr int ok = 0;
inline constexpr int failed = 1;
inline constexpr int badUsage = 2;

// `arguments` excludes the program name. Returns the exit status.
int run(const std::vector<std::string>& arguments, Context& context);

// Runs one command's action: its usage errors and failures become one line on standard
// error (exit 2 and 1), and so does anything else it throws ("internal error", exit 1), so
// no input ends the process with an abort.
int runGuarded(const std::function<int()>& action, Context& context);

}  // namespace korvalen::cli
