#include "core/planning/saver_plan.hpp"

#include "support/temp_folder.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

using json::Json;
using testing::readText;
using testing::TempFolder;
using testing::writeText;

SaverContent content(const std::string& path) {
  return SaverContent(WallpaperKind::video, path, std::nullopt, FitMode::fill);
}

Date stamp(const char* text) {
  return *ISO8601::plain().parse(text);
}

const char* const completePlan = R"({
  "chosen": null,
  "dim": 0.25,
  "rate": 0.5,
  "saturation": 1,
  "screens": {
    "A": {"kind": "video", "path": "/m/a.mp4", "fit": "fill", "mirrorHorizontal": false,
          "mirrorVertical": true, "trimStart": 1, "trimEnd": 9.5, "sharpen": 0.2,
          "crop": {"x": 0.1, "y": 0, "width": 0.5, "height": 1}}
  },
  "shared": {"kind": "image", "path": "/m/b.png", "title": "B", "fit": "center", "mirrorHorizontal": false,
             "mirrorVertical": false, "trimStart": 0, "trimEnd": 0, "sharpen": 0, "held": true},
  "sound": true,
  "version": 1,
  "volume": 0.75,
  "written": "2024-05-01T12:00:00Z"
})";

TEST(SaverPlanScreens, ChosenBeatsTheScreensOwnEntryWhichBeatsShared) {
  SaverPlan plan;
  plan.screens["A"] = content("/x");
  plan.shared = content("/y");
  EXPECT_EQ(plan.contentForScreen("A"), content("/x"));
  EXPECT_EQ(plan.contentForScreen("B"), content("/y"));
  EXPECT_EQ(plan.contentForScreen("a"), content("/y")) << "identifiers are case-sensitive";
  EXPECT_EQ(plan.ruleForScreen("A"), ScreenRule::ownEntry);
  EXPECT_EQ(plan.ruleForScreen("B"), ScreenRule::shared);

  plan.chosen = content("/z");
  EXPECT_EQ(plan.contentForScreen("A"), content("/z"));
  EXPECT_EQ(plan.contentForScreen(""), content("/z"));
  EXPECT_EQ(plan.ruleForScreen("A"), ScreenRule::chosen);
}

TEST(SaverPlanScreens, NothingAtAllMeansNoContentAnywhere) {
  SaverPlan plan;
  EXPECT_FALSE(plan.contentForScreen("A").has_value());
  EXPECT_EQ(plan.ruleForScreen("A"), ScreenRule::nothing);
  plan.screens["A"] = content("/x");
  EXPECT_FALSE(plan.contentForScreen("B").has_value());
}

TEST(SaverPlanDecoding, ReadsACompleteFile) {
  const auto plan = SaverPlan::decode(completePlan);
  ASSERT_TRUE(plan.has_value()) << plan.error().describe();
  EXPECT_EQ(plan->written, stamp("2024-05-01T12:00:00Z"));
  EXPECT_TRUE(plan->sound);
  EXPECT_EQ(plan->volume, 0.75);
  EXPECT_FALSE(plan->chosen.has_value()) << "null reads as absent";
  const auto& a = plan->screens.at("A");
  EXPECT_EQ(a.crop, (CropRect{0.1, 0, 0.5, 1}));
  EXPECT_TRUE(a.mirrorVertical);
  EXPECT_EQ(a.trim(), (TrimRange{1, 9.5}));
  EXPECT_FALSE(a.isHeld());
  EXPECT_TRUE(plan->shared->isHeld());
  EXPECT_EQ(plan->shared->title, "B");
  EXPECT_TRUE(plan->guardsFlashes()) << "no stopsFlashing means guard";
}

TEST(SaverPlanDecoding, StopsFlashingDecidesTheGuard) {
  auto json = Json::parse(completePlan);
  json["stopsFlashing"] = false;
  EXPECT_FALSE(SaverPlan::decode(json.dump())->guardsFlashes());
  json["stopsFlashing"] = true;
  EXPECT_TRUE(SaverPlan::decode(json.dump())->guardsFlashes());
}

struct Damage {
  const char* name;
  std::vector<std::string> where;  // path to the object, then the key
  std::optional<Json> value;       // absent: remove the key
};

class SaverPlanStrictness : public ::testing::TestWithParam<Damage> {};

TEST_P(SaverPlanStrictness, OneBadFieldAnywhereMakesThePlanUnreadable) {
  auto json = Json::parse(completePlan);
  Json* object = &json;
  const auto& where = GetParam().where;
  for (std::size_t i = 0; i + 1 < where.size(); ++i) {
    object = &(*object)[where[i]];
  }
  if (GetParam().value) {
    (*object)[where.back()] = *GetParam().value;
  } else {
    object->erase(where.back());
  }
  EXPECT_FALSE(SaverPlan::decode(json.dump()).has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Plan, SaverPlanStrictness,
    ::testing::Values(Damage{"NoVersion", {"version"}, std::nullopt}, Damage{"NoWritten", {"written"}, std::nullopt},
                      Damage{"NoSound", {"sound"}, std::nullopt}, Damage{"NoVolume", {"volume"}, std::nullopt},
                      Damage{"NoDim", {"dim"}, std::nullopt}, Damage{"NoSaturation", {"saturation"}, std::nullopt},
                      Damage{"NoRate", {"rate"}, std::nullopt}, Damage{"NoScreens", {"screens"}, std::nullopt},
                      Damage{"NullRate", {"rate"}, Json(nullptr)}, Damage{"RateAsText", {"rate"}, Json("1")},
                      Damage{"SoundAsNumber", {"sound"}, Json(1)},
                      Damage{"WrittenNotADate", {"written"}, Json("today")},
                      Damage{"ScreensAsList", {"screens"}, Json::array()},
                      Damage{"NoSharpen", {"screens", "A", "sharpen"}, std::nullopt},
                      Damage{"NoTrimEnd", {"shared", "trimEnd"}, std::nullopt},
                      Damage{"NoMirror", {"shared", "mirrorHorizontal"}, std::nullopt},
                      Damage{"UnknownKind", {"shared", "kind"}, Json("movie")},
                      Damage{"UnknownFit", {"screens", "A", "fit"}, Json("cover")},
                      Damage{"CropMissingHeight", {"screens", "A", "crop", "height"}, std::nullopt},
                      Damage{"HeldAsText", {"shared", "held"}, Json("yes")},
                      Damage{"StopsFlashingAsText", {"stopsFlashing"}, Json("no")}),
    korvalen::testing::ByName{});

TEST(SaverPlanDecoding, AnyVersionThatDecodesIsReturned) {
  auto json = Json::parse(completePlan);
  json["version"] = 7;
  json["unknownKey"] = "ignored";
  const auto plan = SaverPlan::decode(json.dump());
  ASSERT_TRUE(plan.has_value());
  EXPECT_EQ(plan->version, 7);
}

TEST(SaverPlanCoding, NonFiniteFloatsTravelAsStrings) {
  auto json = Json::parse(completePlan);
  json["volume"] = "NaN";
  json["screens"]["A"]["trimEnd"] = "Infinity";
  auto plan = SaverPlan::decode(json.dump());
  ASSERT_TRUE(plan.has_value());
  EXPECT_TRUE(std::isnan(plan->volume));
  EXPECT_TRUE(std::isinf(plan->screens.at("A").trimEnd));
  const auto written = Json::parse(plan->encode());
  EXPECT_EQ(written["volume"], "NaN");
  EXPECT_EQ(written["screens"]["A"]["trimEnd"], "Infinity");
  plan->rate = -std::numeric_limits<double>::infinity();
  EXPECT_EQ(Json::parse(plan->encode())["rate"], "-Infinity");
}

TEST(SaverPlanCoding, WritesSortedKeysWholeSecondsAndLeavesAbsentOptionalsOut) {
  SaverPlan plan;
  plan.written = stamp("2024-05-01T12:00:00Z") + std::chrono::milliseconds(750);
  plan.screens["B"] = content("/b.mp4");
  const auto text = plan.encode();
  const auto json = Json::parse(text);
  EXPECT_EQ(json["written"], "2024-05-01T12:00:00Z");
  for (const char* key : {"shared", "chosen", "stopsFlashing"}) {
    EXPECT_FALSE(json.contains(key)) << key;
  }
  for (const char* key : {"title", "crop", "still", "held"}) {
    EXPECT_FALSE(json["screens"]["B"].contains(key)) << key;
  }
  EXPECT_LT(text.find("\"dim\""), text.find("\"rate\""));
  EXPECT_LT(text.find("\"screens\""), text.find("\"sound\""));
  EXPECT_LT(text.find("\"fit\""), text.find("\"kind\""));
}

TEST(SaverPlanCoding, EveryFieldSurvivesARoundTrip) {
  SaverPlan plan = *SaverPlan::decode(completePlan);
  plan.chosen = content("/c.mov");
  plan.chosen->still = "/c.png";
  plan.chosen->held = false;
  plan.stopsFlashing = false;
  const auto back = SaverPlan::decode(plan.encode());
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(*back, plan);
  EXPECT_EQ(back->chosen->held, false) << "an explicit false stays distinct from absent";
}

TEST(SaverPlanCompare, SameContentIgnoresOnlyTheStamp) {
  const SaverPlan plan = *SaverPlan::decode(completePlan);
  SaverPlan later = plan;
  later.written = plan.written + std::chrono::hours(1);
  EXPECT_TRUE(plan.sameContent(later));
  later.volume = 0.5;
  EXPECT_FALSE(plan.sameContent(later));
  SaverPlan versioned = plan;
  versioned.version = 2;
  EXPECT_FALSE(plan.sameContent(versioned));
  SaverPlan guarded = plan;
  guarded.stopsFlashing = true;
  EXPECT_FALSE(plan.sameContent(guarded)) << "explicit true differs from absent";
  EXPECT_FALSE(plan.sameContent(std::nullopt));
}

TEST(SaverContentFrom, TheScreensOwnCropWinsOverTheGeneralOne) {
  WallpaperContent library{WallpaperKind::video,
                           "/m/a.mp4",
                           FitMode::center,
                           CropRect{0.1, 0.1, 0.5, 0.5},
                           {{"S1", CropRect{0, 0, 0.25, 1}}},
                           3,
                           8,
                           true,
                           true,
                           true,
                           "item",
                           "crossBlend"};
  const auto s1 = SaverContent::from(library, "S1", "Title", 0.4, "/still.png");
  EXPECT_EQ(s1.crop, (CropRect{0, 0, 0.25, 1}));
  EXPECT_EQ(s1.kind, WallpaperKind::video);
  EXPECT_EQ(s1.path, "/m/a.mp4");
  EXPECT_EQ(s1.fit, FitMode::center);
  EXPECT_EQ(s1.title, "Title");
  EXPECT_EQ(s1.sharpen, 0.4);
  EXPECT_EQ(s1.still, "/still.png");
  EXPECT_TRUE(s1.mirrorHorizontal && s1.mirrorVertical);
  EXPECT_EQ(s1.trim(), (TrimRange{3, 8}));
  EXPECT_FALSE(s1.held.has_value());
  EXPECT_EQ(SaverContent::from(library, "S2", std::nullopt, 0, std::nullopt).crop, (CropRect{0.1, 0.1, 0.5, 0.5}));
  library.crop.reset();
  EXPECT_FALSE(SaverContent::from(library, "s1", std::nullopt, 0, std::nullopt).crop.has_value());
}

TEST(SaverPlanFiles, WriteCreatesTheFolderAndIsByteIdenticalForTheSamePlan) {
  TempFolder folder;
  const auto path = folder / "deep/Korvalen/screensaver-plan.json";
  const SaverPlan plan = *SaverPlan::decode(completePlan);
  ASSERT_TRUE(plan.write(path).has_value());
  const auto first = readText(path);
  ASSERT_TRUE(plan.write(path).has_value());
  EXPECT_EQ(readText(path), first);
  EXPECT_EQ(SaverPlan::read(path), plan);
  EXPECT_EQ(first.back(), '\n');
}

TEST(SaverPlanFiles, ReadingNeverFailsLoudly) {
  TempFolder folder;
  EXPECT_FALSE(SaverPlan::read(folder / "missing.json").has_value());
  EXPECT_FALSE(SaverPlan::read(folder.path()).has_value());
  writeText(folder / "garbage.json", "{not json");
  EXPECT_FALSE(SaverPlan::read(folder / "garbage.json").has_value());
  writeText(folder / "empty.json", "");
  EXPECT_FALSE(SaverPlan::read(folder / "empty.json").has_value());
  auto json = Json::parse(completePlan);
  json.erase("rate");
  writeText(folder / "norate.json", json.dump());
  EXPECT_FALSE(SaverPlan::read(folder / "norate.json").has_value());
  const auto why = SaverPlan::load(folder / "norate.json");
  ASSERT_FALSE(why.has_value());
  EXPECT_NE(why.error().find("rate: missing"), std::string::npos) << why.error();
}

TEST(SaverPlanFiles, AFailedWriteLeavesTheOldPlan) {
  TempFolder folder;
  writeText(folder / "blocked", "a file where a folder should be");
  const auto result = SaverPlan{}.write(folder / "blocked/screensaver-plan.json");
  ASSERT_FALSE(result.has_value());
  EXPECT_NE(result.error().find("blocked"), std::string::npos);
  EXPECT_EQ(readText(folder / "blocked"), "a file where a folder should be");
}

// Text no JSON file can hold is refused, naming the field, rather than written mangled.
TEST(SaverPlanFiles, TextThatIsNotUtf8IsRefusedAndTheOldPlanStays) {
  TempFolder folder;
  const auto path = folder / "screensaver-plan.json";
  ASSERT_TRUE(SaverPlan{}.write(path).has_value());
  const auto before = readText(path);
  SaverPlan plan;
  plan.screens["A"] = SaverContent(WallpaperKind::video, "/clips/\xff.mp4", std::nullopt, FitMode::fill);
  const auto result = plan.write(path);
  ASSERT_FALSE(result.has_value());
  EXPECT_NE(result.error().find("screens.A.path is not valid UTF-8"), std::string::npos) << result.error();
  EXPECT_EQ(readText(path), before);
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"screensaver-plan.json"});
}

// Numbers beyond a double make the plan unreadable, like any other bad field.
TEST(SaverPlanFiles, AnOutOfRangeNumberReadsAsNoPlan) {
  TempFolder folder;
  auto text = std::string(completePlan);
  const auto at = text.find("\"volume\"");
  ASSERT_NE(at, std::string::npos);
  writeText(folder / "huge.json", text.substr(0, at) + "\"volume\": 1e400, \"volumeWas\"" + text.substr(at + 8));
  EXPECT_FALSE(SaverPlan::read(folder / "huge.json").has_value());
  EXPECT_FALSE(SaverPlan::load(folder / "huge.json").has_value());
}

TEST(SaverPlanDefaults, AFreshPlanIsStampedNowWithNeutralSettings) {
  const auto before = currentDate();
  const SaverPlan plan;
  EXPECT_GE(plan.written, before);
  EXPECT_LE(plan.written, currentDate());
  EXPECT_EQ(plan.version, SaverPlan::currentVersion);
  EXPECT_EQ(SaverPlan::fileName, "screensaver-plan.json");
  EXPECT_FALSE(plan.sound);
  EXPECT_EQ(plan.volume, 1.0);
  EXPECT_EQ(plan.dim, 0.0);
  EXPECT_EQ(plan.saturation, 1.0);
  EXPECT_EQ(plan.rate, 1.0);
  EXPECT_TRUE(plan.guardsFlashes());
}

}  // namespace
}  // namespace korvalen
