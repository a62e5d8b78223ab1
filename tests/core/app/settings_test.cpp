#include "core/app/settings.hpp"

#include "core/app/settings_coding.hpp"
#include "core/app/sound.hpp"
#include "core/rendering/appearance.hpp"
#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

using json::Json;

TEST(SettingsDefaults, AnEmptyObjectIsExactlyTheDefaults) {
  const auto settings = Settings::deserialize("{}");
  ASSERT_TRUE(settings.has_value());
  EXPECT_EQ(*settings, KorvalenSettings{});
  const auto& a = settings->accessibility;
  EXPECT_EQ(a.screenShareApps, (std::vector<std::string>{"us.zoom.xos", "com.microsoft.teams2", "com.microsoft.teams",
                                                         "com.cisco.webexmeetingsapp", "Cisco-Systems.Spark",
                                                         "com.tinyspeck.slackmacgap", "com.skype.skype"}));
  const auto& p = settings->power;
  EXPECT_EQ(p.gpu, GpuPreference::integrated);
  EXPECT_EQ(p.onBattery, PauseAction::keepRunning);
  EXPECT_EQ(p.onPowerSaving, PauseAction::pause);
  EXPECT_EQ(p.fpsCap, 30);
  EXPECT_EQ(p.fpsCapOnBattery, 15);
  EXPECT_EQ(settings->transitions.defaultId, "crossBlend");
  EXPECT_DOUBLE_EQ(settings->transitions.seconds, 1.2);
  EXPECT_EQ(settings->import.signInBrowser, "off");
  // Every key but the absent optionals is written.
  const auto written = Json::parse(Settings::serialize(*settings));
  EXPECT_EQ(written.size(), 11U);
  EXPECT_FALSE(written.contains("activePlaylist") || written.contains("lastWallpaper"));
}

struct FieldCase {
  const char* name;
  const char* file;     // the settings file
  const char* pointer;  // where to look in the repaired settings' JSON
  Json expected;        // null: the key is absent
};

class SettingsField : public ::testing::TestWithParam<FieldCase> {};

TEST_P(SettingsField, IsReadLenientlyAndRepaired) {
  const auto settings = Settings::deserialize(GetParam().file);
  ASSERT_TRUE(settings.has_value()) << settings.error();
  const auto written = json::encode(*settings);
  const Json::json_pointer pointer(GetParam().pointer);
  if (GetParam().expected.is_null()) {
    EXPECT_FALSE(written.contains(pointer)) << written.dump();
  } else {
    ASSERT_TRUE(written.contains(pointer));
    EXPECT_EQ(written.at(pointer), GetParam().expected);
  }
  EXPECT_EQ(settings->sanitised(), *settings) << "repair is idempotent";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Settings, SettingsField, ::testing::Values(
  FieldCase{"KeepInCapitals",      R"({"power":{"onFullscreen":"  KEEP\t"}})",         "/power/onFullscreen", "keepRunning"},
  FieldCase{"PauseInCapitals",     R"({"power":{"onFullscreen":"PAUSE","onBattery":"Stop"}})", "/power/onFullscreen", "pause"},
  FieldCase{"KeepRunningWord",     R"({"power":{"onLocked":"keeprunning"}})",          "/power/onLocked", "keepRunning"},
  FieldCase{"UnknownActionDefault",R"({"power":{"onFullscreen":"sleep"}})",            "/power/onFullscreen", "pause"},
  FieldCase{"OtherFieldsSurvive",  R"({"power":{"onFullscreen":"sleep","fpsCap":60}})","/power/fpsCap", 60},
  FieldCase{"FpsZero",             R"({"power":{"fpsCap":0}})",                        "/power/fpsCap", 1},
  FieldCase{"FpsHigh",             R"({"power":{"fpsCapOnBattery":500}})",             "/power/fpsCapOnBattery", 144},
  FieldCase{"FpsAsText",           R"({"power":{"fpsCap":"60"}})",                     "/power/fpsCap", 30},
  FieldCase{"CoverageLow",         R"({"power":{"occludedCoverage":0.05}})",           "/power/occludedCoverage", 0.1},
  FieldCase{"CoverageHigh",        R"({"power":{"occludedCoverage":1.5}})",            "/power/occludedCoverage", 1.0},
  FieldCase{"GpuExactWordOnly",    R"({"power":{"gpu":"Auto"}})",                      "/power/gpu", "integrated"},
  FieldCase{"GpuAuto",             R"({"power":{"gpu":"auto"}})",                      "/power/gpu", "auto"},
  FieldCase{"PowerNotAnObject",    R"({"power":5,"firstRunShown":true})",              "/power/fpsCap", 30},
  FieldCase{"NeighbourSurvives",   R"({"power":5,"firstRunShown":true})",              "/firstRunShown", true},
  FieldCase{"DimCapped",           R"({"accessibility":{"dim":0.95}})",                "/accessibility/dim", 0.9},
  FieldCase{"MotionScaleLow",      R"({"accessibility":{"motionScale":0}})",           "/accessibility/motionScale", 0.1},
  FieldCase{"SaturationHigh",      R"({"accessibility":{"saturation":2}})",            "/accessibility/saturation", 1.0},
  FieldCase{"FlashingMuteIsPause", R"({"accessibility":{"onFlashing":"mute"}})",       "/accessibility/onFlashing", "pause"},
  FieldCase{"ShareMuteStays",      R"({"accessibility":{"onScreenShare":"mute"}})",    "/accessibility/onScreenShare", "mute"},
  FieldCase{"BadAppListDefault",   R"({"accessibility":{"screenShareApps":[1]}})",     "/accessibility/screenShareApps/0", "us.zoom.xos"},
  FieldCase{"HeightLow",           R"({"import":{"preferredHeight":100}})",            "/import/preferredHeight", 144},
  FieldCase{"HeightHigh",          R"({"import":{"preferredHeight":8000}})",           "/import/preferredHeight", 4320},
  FieldCase{"HeightNegative",      R"({"import":{"preferredHeight":-1}})",             "/import/preferredHeight", 0},
  FieldCase{"BrowserTrimmed",      R"({"import":{"signInBrowser":"  Chrome\n"}})",     "/import/signInBrowser", "chrome"},
  FieldCase{"BrowserUnknown",      R"({"import":{"signInBrowser":"netscape"}})",       "/import/signInBrowser", "off"},
  FieldCase{"BrowserAuto",         R"({"import":{"signInBrowser":"AUTO"}})",           "/import/signInBrowser", "auto"},
  FieldCase{"ResamplerHq",         R"({"enhance":{"resampler":" HQ "}})",              "/enhance/resampler", "hqcubic"},
  FieldCase{"ResamplerFsr",        R"({"enhance":{"resampler":"fsr"}})",               "/enhance/resampler", "lanczos"},
  FieldCase{"ResamplerUnknown",    R"({"enhance":{"resampler":"bilinear"}})",          "/enhance/resampler", "default"},
  FieldCase{"SharpnessClamped",    R"({"enhance":{"sharpness":2}})",                   "/enhance/sharpness", 1.0},
  FieldCase{"SecondsLow",          R"({"transitions":{"seconds":0.1}})",               "/transitions/seconds", 0.2},
  FieldCase{"SecondsHigh",         R"({"transitions":{"seconds":9}})",                 "/transitions/seconds", 5.0},
  FieldCase{"ConcurrentLow",       R"({"transitions":{"maxConcurrent":0}})",           "/transitions/maxConcurrent", 1},
  FieldCase{"ConcurrentHigh",      R"({"transitions":{"maxConcurrent":20}})",          "/transitions/maxConcurrent", 8},
  FieldCase{"UnknownTransition",   R"({"transitions":{"defaultId":"swirl"}})",         "/transitions/defaultId", "crossBlend"},
  FieldCase{"TransitionAnyCase",   R"({"transitions":{"defaultId":" CROSSBLEND "}})",  "/transitions/defaultId", "crossBlend"},
  FieldCase{"ScreensaverItemId",   R"({"screensaver":{"itemId":"a"}})",                "/screensaver/itemId", "a"},
  FieldCase{"ScreensaverWrongKey", R"({"screensaver":{"itemID":"a"}})",                "/screensaver/itemId", nullptr},
  FieldCase{"LastWallpaperItemID", R"({"lastWallpaper":{"itemID":"a","kind":"movie"}})", "/lastWallpaper/itemID", "a"},
  FieldCase{"LastWallpaperKind",   R"({"lastWallpaper":{"itemID":"a","kind":"movie"}})", "/lastWallpaper/kind", "none"},
  FieldCase{"LastWallpaperText",   R"({"lastWallpaper":"video"})",                     "/lastWallpaper", nullptr},
  FieldCase{"MonitorItemId",       R"({"monitorWallpapers":{"m":{"itemId":"x","paused":true}}})", "/monitorWallpapers/m/itemId", "x"},
  FieldCase{"MonitorWrongKey",     R"({"monitorWallpapers":{"m":{"itemID":"x"}}})",    "/monitorWallpapers/m/itemId", nullptr},
  FieldCase{"ActivePlaylistNumber",R"({"activePlaylist":5})",                          "/activePlaylist", nullptr},
  FieldCase{"FirstRunAsText",      R"({"firstRunShown":"true"})",                      "/firstRunShown", false}),
  korvalen::testing::ByName{});
// clang-format on

TEST(SettingsDerived, AppearanceEnhanceAndTransitionSeconds) {
  AccessibilitySettings a;
  EXPECT_FALSE(a.altersAppearance());
  a.dim = 0.01;
  EXPECT_TRUE(a.altersAppearance());
  a = {};
  a.saturation = 0.99;
  EXPECT_TRUE(a.altersAppearance());

  const EnhanceSettings e{" Lanczos", std::numeric_limits<double>::quiet_NaN(), 0.5};
  EXPECT_EQ(e.enhance(), (Enhance{Resampler::lanczos, 0.0, 0.5}));

  TransitionSettings t;
  t.seconds = 9;
  EXPECT_EQ(t.effectiveSeconds(), 0.0);
  t.enabled = true;
  EXPECT_EQ(t.effectiveSeconds(), 5.0);
  t.seconds = std::numeric_limits<double>::infinity();
  EXPECT_EQ(t.effectiveSeconds(), 1.2);
}

TEST(Appearance, MatrixFollowsDimAndSaturation) {
  const auto identity = Appearance::colorMatrix(0, 1);
  EXPECT_EQ(identity[0], (std::vector<double>{1, 0, 0, 0}));
  EXPECT_EQ(identity[3], (std::vector<double>{0, 0, 0, 1}));
  EXPECT_TRUE(Appearance::isIdentity(0, 1));
  EXPECT_FALSE(Appearance::isIdentity(0.01, 1));
  EXPECT_FALSE(Appearance::isIdentity(0, 0.99));

  // dim 0.95 is used as given here (k = 0.05), unlike the settings' 0.9 cap; 0.99 is capped.
  const auto dimmed = Appearance::colorMatrix(0.95, 1);
  EXPECT_NEAR(dimmed[1][1], 0.05, 1e-15);
  EXPECT_EQ(Appearance::colorMatrix(0.99, 1), dimmed);

  const auto grey = Appearance::colorMatrix(0, 0);
  for (std::size_t output = 0; output < 3; ++output) {
    EXPECT_DOUBLE_EQ(grey[0][output], Appearance::luminanceRed);
    EXPECT_DOUBLE_EQ(grey[1][output], Appearance::luminanceGreen);
    EXPECT_DOUBLE_EQ(grey[2][output], Appearance::luminanceBlue);
  }
  const auto half = Appearance::colorMatrix(0.5, 0.5);
  EXPECT_DOUBLE_EQ(half[0][0], 0.5 * (0.5 * 0.7874 + 0.2126));
  EXPECT_DOUBLE_EQ(half[2][0], 0.5 * 0.0722 * 0.5);

  const auto pure = Appearance::apply(grey, 1, 0, 0);
  EXPECT_DOUBLE_EQ(pure.red, 0.2126);
  EXPECT_DOUBLE_EQ(pure.green, 0.2126);
  Appearance::Matrix bright = identity;
  bright[4] = {0.5, -2, 0, 0};
  EXPECT_EQ(Appearance::apply(bright, 0.8, 0.5, 0.25), (Appearance::Colour{1, 0, 0.25})) << "clamped to 0...1";

  const auto vectors = Appearance::ciColorMatrix(0.5, 0.5);
  EXPECT_EQ(vectors[0][2], half[2][0]) << "the R vector is the red output column";
  EXPECT_EQ(vectors[3], (std::array<double, 4>{0, 0, 0, 1}));
  EXPECT_EQ(vectors[4], (std::array<double, 4>{0, 0, 0, 0}));
}

TEST(AppearanceDeathTest, ASmallMatrixIsAProgrammingError) {
  EXPECT_DEATH(Appearance::apply({{1, 0, 0}, {0, 1, 0}}, 0, 0, 0), "precondition failed");
}

TEST(Sound, VolumeArithmetic) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(Sound::clamp(nan), 0);
  EXPECT_EQ(Sound::clamp(1.5), 1);
  EXPECT_TRUE(Sound::isSilent(false, false, nan));
  EXPECT_TRUE(Sound::isSilent(false, true, 1));
  EXPECT_FALSE(Sound::isSilent(false, false, 0.01));
  EXPECT_EQ(Sound::effective(false, false, 1.5), 1);
  EXPECT_EQ(Sound::effective(true, false, 0.5), 0);
  EXPECT_EQ(Sound::effective(false, false, nan), 0);
  EXPECT_EQ(Sound::parsePercent("50", 0.2), 0.5);
  EXPECT_EQ(Sound::parsePercent("250", 0.2), 1);
  EXPECT_EQ(Sound::parsePercent("loud", 0.2), 0.2);
  EXPECT_EQ(Sound::parsePercent(std::nullopt, 3), 1);
  EXPECT_EQ(Sound::parsePercent("nan", 0.2), 0.2);
  EXPECT_EQ(Sound::toPercent(0.125), 12) << "half to even";
  EXPECT_EQ(Sound::toPercent(0.135), 14);
  EXPECT_EQ(Sound::toPercent(2), 100);
  EXPECT_EQ(Sound::toPercent(-1), 0);
  EXPECT_EQ(Sound::toPercent(nan), 0);
  EXPECT_EQ(Sound::toggled(true, 0), (Sound::Setting{false, 0.5}));
  EXPECT_EQ(Sound::toggled(false, 0), (Sound::Setting{true, 0}));
  EXPECT_EQ(Sound::toggled(true, 0.3), (Sound::Setting{false, 0.3}));
  EXPECT_TRUE(Sound::slid(true, 0));
  EXPECT_FALSE(Sound::slid(true, 0.2));
  EXPECT_FALSE(Sound::slid(false, 0));
  EXPECT_TRUE(Sound::slid(true, nan));
  EXPECT_TRUE(Sound::isHeldQuiet(false, false, 0.5));
  EXPECT_FALSE(Sound::isHeldQuiet(false, false, 0));
  EXPECT_FALSE(Sound::isHeldQuiet(true, false, 0.5));
  EXPECT_EQ(Sound::label(false, true, 0.5), "50%");
  EXPECT_EQ(Sound::label(true, true, 0.5), "off");
  EXPECT_EQ(Sound::label(false, false, 0.5), "quiet");
  EXPECT_EQ(Sound::label(false, false, 0), "0%");
  EXPECT_EQ(Sound::heldQuietExplanation, "A power or accessibility rule is keeping the wallpaper silent");
}

}  // namespace
}  // namespace korvalen
