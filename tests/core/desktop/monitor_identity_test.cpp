#include "core/desktop/monitor_identity.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

using Bindings = std::vector<MonitorBinding>;

TEST(ScreenIdentity, DevicePartAndSizePart) {
  EXPECT_EQ(ScreenIdentity::device(0, 0, 0, true, 1, std::nullopt, false), "builtin");
  EXPECT_EQ(ScreenIdentity::device(0, 0, 0, false, 7, std::nullopt, false), "display-7");
  EXPECT_EQ(ScreenIdentity::device(0x10ac, 0xa0c4, 0x4c4c3042, false, 2, "X", false), "10ac-a0c4-4c4c3042");
  EXPECT_EQ(ScreenIdentity::device(0x1e, 0x2, 0x3, false, 2, std::nullopt, false), "001e-0002-00000003");
  // Two identical monitors: told apart by UUID, else by display number.
  EXPECT_EQ(ScreenIdentity::device(0x10ac, 0xa0c4, 0, false, 3, "AB12CD34-EF56-7890-ABCD-EF1234567890", true),
            "10ac-a0c4-00000000-ab12cd34ef56");
  EXPECT_EQ(ScreenIdentity::device(0x10ac, 0xa0c4, 0, false, 3, std::nullopt, true), "10ac-a0c4-00000000-3");
  EXPECT_EQ(ScreenIdentity::device(0, 0, 0, true, 4, std::nullopt, true), "0000-0000-00000000-4");
  EXPECT_EQ(ScreenIdentity::size(2560, 1440), "2560x1440");
  EXPECT_EQ(ScreenIdentity::size(1511.5, 981.4), "1512x981");
}

// A base EDID block of a Dell ("DEL" = 0x10ac), product 0xa0c4, serial 0x4c4c3042.
std::vector<std::uint8_t> dellEdid() {
  std::vector<std::uint8_t> edid(128, 0);
  const std::uint8_t start[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00,
                                0x10, 0xAC, 0xC4, 0xA0, 0x42, 0x30, 0x4C, 0x4C};
  std::copy(std::begin(start), std::end(start), edid.begin());
  return edid;
}

TEST(ScreenIdentity, EdidNumbersComeFromTheBaseBlockOrNotAtAll) {
  auto edid = dellEdid();
  EXPECT_EQ(ScreenIdentity::edidNumbers(edid), (ScreenIdentity::EdidNumbers{0x10ac, 0xa0c4, 0x4c4c3042}));
  edid.resize(256, 0xEE);  // an extension block changes nothing
  EXPECT_EQ(ScreenIdentity::edidNumbers(edid), (ScreenIdentity::EdidNumbers{0x10ac, 0xa0c4, 0x4c4c3042}));
  EXPECT_EQ(ScreenIdentity::edidNumbers(std::span(edid).first(127)), std::nullopt) << "short";
  edid[7] = 0x01;
  EXPECT_EQ(ScreenIdentity::edidNumbers(edid), std::nullopt) << "not an EDID header";
  EXPECT_EQ(ScreenIdentity::edidNumbers({}), std::nullopt);
}

TEST(ScreenIdentity, StableIDsFindTwinsAmongTheDisplays) {
  using Display = ScreenIdentity::Display;
  const ScreenIdentity::EdidNumbers dell{0x10ac, 0xa0c4, 0};
  // Two identical monitors, a built-in panel, and a monitor of another model.
  const std::vector<Display> desk{{dell, false, 65, std::nullopt, 2560, 1440},
                                  {dell, false, 66, "ab12cd34-ef56-7890", 1440, 2560},
                                  {{}, true, 0, std::nullopt, 1511.6, 982},
                                  {{0x10ac, 0xa0c5, 0}, false, 67, std::nullopt, 1920, 1080}};
  EXPECT_EQ(ScreenIdentity::stableIDs(desk),
            (std::vector<std::string>{"10ac-a0c4-00000000-65|2560x1440", "10ac-a0c4-00000000-ab12cd34ef56|1440x2560",
                                      "builtin|1512x982", "10ac-a0c5-00000000|1920x1080"}));
  // Displays that report nothing are twins of each other, so their numbers tell them apart.
  EXPECT_EQ(
      ScreenIdentity::stableIDs({{{}, false, 0, std::nullopt, 1280, 720}, {{}, false, 1, std::nullopt, 800, 600}}),
      (std::vector<std::string>{"0000-0000-00000000-0|1280x720", "0000-0000-00000000-1|800x600"}));
  EXPECT_EQ(ScreenIdentity::stableIDs({{{}, false, 3, std::nullopt, 800, 600}}),
            std::vector<std::string>{"display-3|800x600"});
  EXPECT_TRUE(ScreenIdentity::stableIDs({}).empty());
}

TEST(ScreenIdentity, OutputsNamedByTheirCompositorGetTheirMakeAndModelOrTheirName) {
  using Named = ScreenIdentity::NamedOutput;
  struct Case {
    std::vector<Named> outputs;
    std::vector<std::string> ids;
  };
  const std::vector<Case> cases{
      // Make, model and serial, in lower case with every other run of characters one "-".
      {{{"Dell Inc.", "DELL U2720Q", "7XK1P23", "DP-1", 3840, 2160}}, {"dell-inc-dell-u2720q-7xk1p23|3840x2160"}},
      // Unknown make and model: the connector name, as the compositor gives it.
      {{{"", "", "", "HDMI-A-1", 1920, 1080}}, {"HDMI-A-1|1920x1080"}},
      {{{"Unknown", "<Unknown>", "", "eDP-1", 2880, 1800}}, {"eDP-1|2880x1800"}},
      // Twins without serials are told apart by their connectors; others are left alone.
      {{{"headless", "headless", "", "HEADLESS-1", 640, 360},
        {"headless", "headless", "", "HEADLESS-2", 1920, 1080},
        {"AOC", "Q27", "", "DP-2", 2560, 1440}},
       {"headless-headless-HEADLESS-1|640x360", "headless-headless-HEADLESS-2|1920x1080", "aoc-q27|2560x1440"}},
      // The same make and model with different serials are not twins.
      {{{"LG", "27UK", "1", "DP-1", 3840, 2160}, {"LG", "27UK", "2", "DP-2", 3840, 2160}},
       {"lg-27uk-1|3840x2160", "lg-27uk-2|3840x2160"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ScreenIdentity::stableOutputIDs(c.outputs), c.ids) << c.outputs.front().name;
  }
}

TEST(MonitorIdentity, ExactThenSameDeviceWithoutAmbiguity) {
  EXPECT_EQ(MonitorIdentity::resolve({"dell|1920x1080"}, {"dell|1920x1080"}),
            (Bindings{{"dell|1920x1080", "dell|1920x1080", MonitorMatch::exact}}));
  const auto followed = MonitorIdentity::resolve({"dell|1920x1080"}, {"dell|2560x1440"});
  EXPECT_EQ(followed, (Bindings{{"dell|2560x1440", "dell|1920x1080", MonitorMatch::sameDevice}}));
  EXPECT_EQ(followed[0].note(),
            "dell changed size or orientation since its wallpaper was saved; the wallpaper followed it");
  EXPECT_EQ(MonitorIdentity::resolve({"dell|1920x1080", "dell|1080x1920"}, {"dell|2560x1440"}),
            (Bindings{{"dell|2560x1440", std::nullopt, MonitorMatch::none}}))
      << "two candidates: refused";
  EXPECT_EQ(MonitorIdentity::resolve({"a|1x1", "a|3x3"}, {"a|1x1", "a|2x2"}),
            (Bindings{{"a|1x1", "a|1x1", MonitorMatch::exact}, {"a|2x2", "a|3x3", MonitorMatch::sameDevice}}));
  // The order of the present monitors decides who takes a contested key.
  EXPECT_EQ(MonitorIdentity::resolve({"a|3x3"}, {"a|1x1", "a|2x2"}),
            (Bindings{{"a|1x1", "a|3x3", MonitorMatch::sameDevice}, {"a|2x2", std::nullopt, MonitorMatch::none}}));
  EXPECT_FALSE((MonitorBinding{"a", "a", MonitorMatch::exact}).note().has_value());
}

TEST(MonitorIdentity, IdentifiersWithoutADevicePart) {
  EXPECT_EQ(MonitorIdentity::resolve({"plain", "|x"}, {"other"}),
            (Bindings{{"other", std::nullopt, MonitorMatch::none}}))
      << "two keys without a device part: ambiguous";
  EXPECT_EQ(MonitorIdentity::resolve({"plain", "dell|1x1"}, {"other"}),
            (Bindings{{"other", "plain", MonitorMatch::sameDevice}}));
  EXPECT_EQ((MonitorBinding{"nodevice", "x", MonitorMatch::sameDevice}).note(),
            "nodevice changed size or orientation since its wallpaper was saved; the wallpaper followed it");
  EXPECT_EQ(MonitorIdentity::deviceName(std::nullopt), std::nullopt);
  EXPECT_EQ(MonitorIdentity::deviceName(""), std::nullopt);
  EXPECT_EQ(MonitorIdentity::deviceName("|a"), std::nullopt);
  EXPECT_EQ(MonitorIdentity::deviceName("a|b|c"), "a");
}

TEST(MonitorAssignments, StoredOnlyWhenTheySaySomething) {
  const MonitorAssignment blank{" \n", "\t", false};
  EXPECT_FALSE(saysAnything(blank));
  EXPECT_TRUE(saysAnything(MonitorAssignment{std::nullopt, std::nullopt, true}));
  EXPECT_TRUE(saysAnything(MonitorAssignment{std::nullopt, "Evening", false}));
  MonitorAssignments::Map map{{"dell|1920x1080", {"item", std::nullopt, false}}};
  EXPECT_TRUE(MonitorAssignments::with(map, "dell|1920x1080", blank).empty());
  const auto added = MonitorAssignments::with(map, "lg|3840x2160", {"other", std::nullopt, false});
  EXPECT_EQ(added.size(), 2U);
  EXPECT_EQ(MonitorAssignments::effectiveFor(added, {"dell|2560x1440"}, "dell|2560x1440")->itemID, "item");
  EXPECT_EQ(MonitorAssignments::effectiveFor(added, {"dell|2560x1440"}, "lg|1x1"), std::nullopt);
  EXPECT_EQ(MonitorAssignments::effectiveFor({}, {"a"}, "a"), std::nullopt);
  EXPECT_EQ(MonitorAssignments::without(added, "lg|3840x2160"), map);
}

}  // namespace
}  // namespace korvalen
