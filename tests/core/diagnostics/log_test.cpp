#include "core/diagnostics/log.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

TEST(Log, CaptureReceivesLinesWithCategoryAndLevel) {
  log::Capture capture;
  log::write("screensaver", log::Level::error, "[abc123] no plan at /x: black");
  log::writef("pingpong", log::Level::notice, "built {} in {:.1f} s", "clip.mp4", 2.25);
  const std::vector<log::Line> expected{{"screensaver", log::Level::error, "[abc123] no plan at /x: black"},
                                        {"pingpong", log::Level::notice, "built clip.mp4 in 2.2 s"}};
  EXPECT_EQ(capture.lines(), expected);
}

TEST(Log, CredentialsNeverReachTheLog) {
  log::Capture capture;
  log::write("import", log::Level::error, "fetch failed: https://api.example/v1?api_key=0123456789abcdef");
  EXPECT_EQ(capture.lines().at(0).message, "fetch failed: https://api.example/v1?api_key=<redacted>");
}

TEST(Log, NestedCapturesRestoreTheOuterOne) {
  log::Capture outer;
  {
    log::Capture inner;
    log::write("a", log::Level::info, "inner");
    EXPECT_EQ(inner.lines().size(), 1U);
  }
  log::write("a", log::Level::info, "outer");
  ASSERT_EQ(outer.lines().size(), 1U);
  EXPECT_EQ(outer.lines()[0].message, "outer");
}

TEST(Log, BackendLineCarriesTheSubsystem) {
  EXPECT_EQ(log::formatLine({"screensaver", log::Level::notice, "stopped: stopAnimation"}),
            "com.vexil.korvalen screensaver default: stopped: stopAnimation");
  EXPECT_EQ(log::formatLine({"app", log::Level::fault, "x"}), "com.vexil.korvalen app fault: x");
}

// A host's backend receives what no capture takes, redacted like everything else.
TEST(Log, AnInstalledBackendReceivesUncapturedLines) {
  std::vector<log::Line> received;
  log::setBackend([&](const log::Line& line) { received.push_back(line); });
  log::write("screensaver", log::Level::error, "token=abcdefgh12345 no plan");
  {
    log::Capture capture;
    log::write("screensaver", log::Level::notice, "captured");
  }
  log::setBackend(nullptr);
  EXPECT_EQ(received, (std::vector<log::Line>{{"screensaver", log::Level::error, "token=<redacted> no plan"}}));
}

}  // namespace
}  // namespace korvalen
