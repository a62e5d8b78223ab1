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
