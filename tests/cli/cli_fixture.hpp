// Runs the korvalen tool in-process with its own streams, environment, clock and a real
// temporary folder.
#pragma once

#include "cli/cli.hpp"
#include "engine/process.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace korvalen::cli {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

class Cli : public ::testing::Test {
 protected:
  Outcome run(std::vector<std::string> arguments) {
    std::ostringstream out;
    std::ostringstream err;
    auto variables = environment;
    std::istringstream in(input);
    Context context{in,
                    out,
                    err,
                    [variables](std::string_view name) -> std::optional<std::string> {
                      const auto found = variables.find(std::string(name));
                      return found == variables.end() ? std::nullopt : std::optional<std::string>(found->second);
                    },
                    [this] { return now; },
                    interactive};
    const int status = cli::run(arguments, context);
    return {status, out.str(), err.str()};
  }

  // Usage errors and failures are one line on standard error and nothing on standard output.
  static void expectOneLineError(const Outcome& outcome, int status, const std::string& fragment) {
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_THAT(outcome.err, StartsWith("korvalen: "));
    EXPECT_THAT(outcome.err, HasSubstr(fragment));
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }

  // Runs with the process's own PATH; ffmpeg on it, or a failed test saying how to get it.
  std::filesystem::path systemFfmpeg() {
    const char* path = std::getenv("PATH");
    environment["PATH"] = path == nullptr ? "/usr/bin:/bin" : path;
    auto found = engine::findExecutable("ffmpeg", environment["PATH"]);
    EXPECT_TRUE(found.has_value()) << "these tests need ffmpeg on PATH (scripts/setup.sh installs it)";
    return found.value_or("ffmpeg");
  }

  [[nodiscard]] std::string planPath() const { return (folder / "Korvalen/screensaver-plan.json").string(); }

  korvalen::testing::TempFolder folder;
  std::string input;         // standard input of the next run
  bool interactive = false;  // standard error is a terminal
  std::map<std::string, std::string> environment{{"KORVALEN_SAVER_PLAN", planPath()}};
  Date now = *ISO8601::plain().parse("2026-11-22T10:00:00Z");
};

}  // namespace korvalen::cli
