#include "core/library/library_item.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <unordered_set>

namespace korvalen {
namespace {

using json::Json;

const char* const minimal = R"({"id":"i1","kind":"video","relativePath":"items/a.mp4","title":"A","sha256":"ab12"})";

Json withKey(const char* key, Json value) {
  auto json = Json::parse(minimal);
  json[key] = std::move(value);
  return json;
}

TEST(LibraryItemDecoding, OnlyTheFiveIdentityKeysAreNeeded) {
  const auto item = json::decode<LibraryItem>(Json::parse(minimal));
  ASSERT_TRUE(item.has_value()) << item.error().describe();
  EXPECT_EQ(item->kind, WallpaperKind::video);
  EXPECT_EQ(item->source, "local");
  EXPECT_EQ(item->addedUTC, Date{});
  EXPECT_EQ(item->fit, FitMode::fill);
  EXPECT_EQ(item->sizeBytes, 0);
  EXPECT_TRUE(item->tags.empty());
  EXPECT_TRUE(item->cropByMonitor.empty());
  EXPECT_FALSE(item->crop || item->trimStart || item->trimEnd || item->flashedAt || item->sourceURL);
  EXPECT_FALSE(item->missing || item->pingPongEnabled || item->aiGenerated);
}

struct BadItem {
  const char* name;
  Json json;
  const char* error;
};

class LibraryItemRejects : public ::testing::TestWithParam<BadItem> {};

TEST_P(LibraryItemRejects, AMissingRequiredKeyOrAWrongTypeFailsTheItem) {
  const auto item = json::decode<LibraryItem>(GetParam().json);
  ASSERT_FALSE(item.has_value());
  EXPECT_EQ(item.error().describe(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Library, LibraryItemRejects,
    ::testing::Values(
        BadItem{"NoSha", Json::parse(R"({"id":"i","kind":"video","relativePath":"p","title":"t"})"), "sha256: missing"},
        BadItem{"NullTitle", withKey("title", nullptr), "title: expected text, found null"},
        BadItem{"WidthAsText", withKey("width", "1920"), "width: expected a whole number, found string"},
        BadItem{"UnknownKind", withKey("kind", "movie"), "kind: unknown kind \"movie\""},
        BadItem{"UnknownFit", withKey("fit", "Fill"), "fit: unknown fit mode \"Fill\""},
        BadItem{"BadCrop", withKey("crop", Json::parse(R"({"x":0,"y":0,"width":1})")), "crop.height: missing"},
        BadItem{"BadMonitorCrop",
                withKey("cropByMonitor", Json::parse(R"({"m":{"x":0,"y":0,"width":"1","height":1}})")),
                "cropByMonitor.m.width: expected a number, found string"},
        BadItem{"BadDate", withKey("addedUTC", "yesterday"), "addedUTC: not a date: yesterday"},
        BadItem{"BadTag", withKey("tags", Json::parse(R"(["a", 1])")), "tags[1]: expected text, found number"},
        BadItem{"NotAnObject", Json::array(), "expected an object, found array"}),
    korvalen::testing::ByName{});

TEST(LibraryItemDecoding, NullForAnOptionalOrDefaultedKeyReadsAsAbsent) {
  auto json = Json::parse(minimal);
  json["sourceURL"] = nullptr;
  json["width"] = nullptr;
  json["trimEnd"] = nullptr;
  const auto item = json::decode<LibraryItem>(json);
  ASSERT_TRUE(item.has_value());
  EXPECT_FALSE(item->sourceURL.has_value());
  EXPECT_EQ(item->width, 0);
  EXPECT_FALSE(item->trimEnd.has_value());
}

TEST(LibraryItemEncoding, WritesEveryKeyButAbsentOptionals) {
  auto item = *json::decode<LibraryItem>(Json::parse(minimal));
  const auto json = json::encode(item);
  for (const char* key : {"crop", "trimStart", "trimEnd", "sourceURL", "author", "flashedAt", "pingPongPath"}) {
    EXPECT_FALSE(json.contains(key)) << key;
  }
  for (const char* key : {"cropByMonitor", "tags", "missing", "addedUTC", "source", "flashPeakPerSecond"}) {
    EXPECT_TRUE(json.contains(key)) << key;
  }
  EXPECT_EQ(json["addedUTC"], "1970-01-01T00:00:00Z");
  EXPECT_EQ(json.size(), 21U);
}

TEST(LibraryItemEncoding, EveryFieldSurvivesARoundTrip) {
  LibraryItem item;
  item.id = "i9";
  item.kind = WallpaperKind::web;
  item.relativePath = "items/page/index.html";
  item.title = "Page";
  item.sha256 = "ff";
  item.sizeBytes = 1LL << 40;
  item.width = 3840;
  item.height = 2160;
  item.addedUTC = *ISO8601::plain().parse("2024-05-01T12:00:00Z");
  item.source = "web";
  item.sourceURL = "https://example.org/page";
  item.author = "Ann";
  item.authorURL = "https://example.org/ann";
  item.licence = "CC-BY";
  item.tags = {"calm", "blue"};
  item.aiGenerated = true;
  item.allowNetwork = true;
  item.fit = FitMode::center;
  item.crop = CropRect{0.1, 0.2, 0.3, 0.4};
  item.cropByMonitor = {{"builtin|1512x982", CropRect{0, 0, 0.5, 1}}};
  item.mirrorHorizontal = true;
  item.mirrorVertical = true;
  item.upscaleEnabled = true;
  item.enhanceResampler = "lanczos";
  item.enhanceSharpness = 0.4;
  item.transitionID = "crossBlend";
  item.pingPongEnabled = true;
  item.pingPongPath = "/cache/p.mp4";
  item.trimStart = 1.5;
  item.trimEnd = 9.25;
  item.flashedAt = *ISO8601::plain().parse("2024-06-01T08:00:00Z");
  item.flashPeakPerSecond = 6;
  item.missing = true;
  const auto json = json::encode(item);
  const auto back = json::decode<LibraryItem>(json);
  ASSERT_TRUE(back.has_value()) << back.error().describe();
  EXPECT_EQ(json::encode(*back), json);
  EXPECT_EQ(json.size(), 33U);
}

TEST(LibraryItemIdentity, EqualityAndHashingLookOnlyAtIdAndSha) {
  auto a = *json::decode<LibraryItem>(Json::parse(minimal));
  auto b = a;
  b.title = "Other";
  b.fit = FitMode::stretch;
  auto c = a;
  c.sha256 = "cd34";
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<LibraryItem>{}(a), std::hash<LibraryItem>{}(b));
  EXPECT_NE(a, c);
  const std::unordered_set<LibraryItem> set{a, b, c};
  EXPECT_EQ(set.size(), 2U);
  // Swapping the two parts is a different identity.
  LibraryItem swapped;
  swapped.id = a.sha256;
  swapped.sha256 = a.id;
  EXPECT_NE(std::hash<LibraryItem>{}(swapped), std::hash<LibraryItem>{}(a));
}

TEST(LibraryEnumerations, RawStringsRoundTripAndUnknownWordsAreAbsent) {
  for (auto kind :
       {WallpaperKind::none, WallpaperKind::solid, WallpaperKind::image, WallpaperKind::video, WallpaperKind::web}) {
    EXPECT_EQ(parseWallpaperKind(toString(kind)), kind);
  }
  for (auto fit : {FitMode::fill, FitMode::fit, FitMode::stretch, FitMode::center}) {
    EXPECT_EQ(parseFitMode(toString(fit)), fit);
  }
  EXPECT_EQ(toString(FitMode::center), "center");
  EXPECT_FALSE(parseWallpaperKind("Video").has_value());
  EXPECT_FALSE(parseFitMode("centre").has_value());
}

TEST(VideoMetadataCoding, TitleAndProviderAreRequired) {
  const auto metadata =
      json::decode<VideoMetadata>(Json::parse(R"({"title":"T","provider":"local","durationSeconds":12.5})"));
  ASSERT_TRUE(metadata.has_value());
  EXPECT_EQ(metadata->durationSeconds, 12.5);
  EXPECT_EQ(json::encode(*metadata), Json::parse(R"({"title":"T","provider":"local","durationSeconds":12.5})"));
  EXPECT_FALSE(json::decode<VideoMetadata>(Json::parse(R"({"title":"T"})")).has_value());
}

}  // namespace
}  // namespace korvalen
