#include "core/app/tool_updates.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace korvalen {
namespace {

const std::string hashA(64, 'a');
const std::string hashB = "0123456789ABCDEF0123456789abcdef0123456789abcdef0123456789abcdef";

TEST(ToolUpdates, TheChecksumFileLineForAName) {
  const auto sums = hashA + "  yt-dlp.exe\n" + hashB + " *yt-dlp\r\n" + hashA + "  yt-dlp_macos\n";
  EXPECT_EQ(ToolUpdates::checksumFor(sums, "yt-dlp"),
            "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
  EXPECT_EQ(ToolUpdates::checksumFor(sums, "yt-dlp.exe"), hashA);
  for (const auto& bad : {std::string("abc  yt-dlp\n"),     // too short
                          hashA.substr(1) + "g  yt-dlp\n",  // not hex
                          hashA + " yt-dlp\n",              // one space, no mode
                          hashA + "  yt-dlp-extra\n", std::string()}) {
    EXPECT_FALSE(ToolUpdates::checksumFor(bad, "yt-dlp").has_value()) << bad;
  }
}

TEST(ToolUpdates, VersionsCompareNumberByNumber) {
  struct Case {
    std::string_view a, b;
    int sign;
  };
  for (const auto& c : std::vector<Case>{{"2023.03.04", "2023.03.04", 0},
                                         {"2023.03.04", "2023.11.16", -1},
                                         {"2024.01.01", "2023.12.31", 1},
                                         {"2023.10.7", "2023.10.07", 0},
                                         {"2024.08.06.232111", "2024.08.06", 1},  // a nightly after its day
                                         {"2023.9.1", "2023.10.1", -1}}) {        // not as text
    const auto got = ToolUpdates::compareVersions(c.a, c.b);
    EXPECT_EQ((got > 0) - (got < 0), c.sign) << c.a << " vs " << c.b;
  }
  for (const auto* version : {"2023.03.04", "1", "2024.08.06.232111"}) {
    EXPECT_TRUE(ToolUpdates::isVersion(version)) << version;
  }
  for (const auto* bad : {"", "2023..04", "v2023.03.04", "2023.03.04\n", "1.", "unknown"}) {
    EXPECT_FALSE(ToolUpdates::isVersion(bad)) << bad;
  }
}

TEST(ToolUpdates, ACheckIsDueAfterADay) {
  const Date now = std::chrono::sys_days{std::chrono::year{2026} / 11 / 25};
  EXPECT_TRUE(ToolUpdates::checkDue(std::nullopt, now));
  EXPECT_FALSE(ToolUpdates::checkDue(now - std::chrono::hours(23), now));
  EXPECT_FALSE(ToolUpdates::checkDue(now - std::chrono::hours(24), now));
  EXPECT_TRUE(ToolUpdates::checkDue(now - std::chrono::hours(25), now));
  EXPECT_TRUE(ToolUpdates::checkDue(now + std::chrono::hours(1), now));  // the clock went back
}

}  // namespace
}  // namespace korvalen
