#include "core/app/settings_coding.hpp"

#include "core/support/jsonc.hpp"
#include "support/param_name.hpp"
#include "support/temp_folder.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <thread>

namespace korvalen {
namespace {

using json::Json;
using testing::readText;
using testing::TempFolder;
using testing::writeText;

struct StripCase {
  const char* name;
  const char* input;
  const char* expected;
};

class JsoncStrip : public ::testing::TestWithParam<StripCase> {};

TEST_P(JsoncStrip, RemovesCommentsAndTrailingCommasOnly) {
  EXPECT_EQ(Jsonc::strip(GetParam().input), GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Settings, JsoncStrip, ::testing::Values(
  StripCase{"Empty",                  "",                              ""},
  StripCase{"LineComment",            "{\"a\":1 // note\n}",           "{\"a\":1 \n}"},
  StripCase{"UnterminatedLine",       "1 // to the end",               "1 "},
  StripCase{"BlockIsOneSpace",        "[1,/* x */2]",                  "[1, 2]"},
  StripCase{"BlockSplitsANumber",     "-/*x*/1",                       "- 1"},
  StripCase{"UnterminatedBlock",      "{\"a\": 1 /* open",             "{\"a\": 1  "},
  StripCase{"TrailingCommaObject",    "{\"a\":1,}",                    "{\"a\":1}"},
  StripCase{"TrailingCommaPastNotes", "[1, // last\n /* and */ ]",     "[1 \n   ]"},
  StripCase{"InnerCommaKept",         "[1,2]",                         "[1,2]"},
  StripCase{"CommaBeforeEnd",         "[1,",                           "[1,"},
  StripCase{"SlashesInString",        "{\"p\":\"//host/a\"}",          "{\"p\":\"//host/a\"}"},
  StripCase{"EscapedQuoteInString",   R"({"s":"a\",}"})",              R"({"s":"a\",}"})"},
  StripCase{"EscapedBackslash",       R"(["a\\",])",                   R"(["a\\"])"},
  StripCase{"LoneSlash",              "1/2 /",                         "1/2 /"},
  StripCase{"EmptyListComma",         "[,]",                           "[]"},
  StripCase{"SingleQuotesUntouched",  "{'a':1}",                       "{'a':1}"}),
  korvalen::testing::ByName{});
// clang-format on

TEST(SettingsDeserialize, CommentsAndTrailingCommasReadLikeThePlainFile) {
  const char* plain = R"({"power": {"fpsCap": 60, "onBattery": "pause"}, "playlists": [{"name": "a"}]})";
  const char* annotated = R"({
    // frame rate for the desk
    "power": {"fpsCap": 60, /* battery */ "onBattery": "pause",},
    "playlists": [{"name": "a", }, // one
    ],
  })";
  EXPECT_EQ(Settings::deserialize(annotated), Settings::deserialize(plain));
  EXPECT_EQ(Settings::deserialize(plain)->power.fpsCap, 60);
}

TEST(SettingsDeserialize, OnlyNonJsonOrANonObjectTopLevelFails) {
  EXPECT_FALSE(Settings::deserialize("[1]").has_value());
  EXPECT_FALSE(Settings::deserialize("{\"a\": 1 /* never closed").has_value());
  EXPECT_FALSE(Settings::deserialize("{'power': {}}").has_value());
  EXPECT_FALSE(Settings::deserialize("").has_value());
  EXPECT_FALSE(Settings::deserialize("{\"a\": \"\xff\"}").has_value()) << "not UTF-8";
  EXPECT_TRUE(Settings::deserialize(R"({"power": [], "playlists": {}})").has_value());
}

TEST(SettingsDeserialize, DatesWithOrWithoutFractionAndBadOnesDropTheirElement) {
  const auto settings = Settings::deserialize(R"({"flashingPaths": [
    {"path": "/a.mp4", "flashedAt": "2024-05-01T12:00:00.250Z", "peakFlashesPerSecond": 5},
    {"path": "/b.mp4", "flashedAt": "2024-05-01T12:00:00Z", "peakFlashesPerSecond": 4},
    {"path": "/c.mp4", "flashedAt": "yesterday", "peakFlashesPerSecond": 4},
    {"path": "/d.mp4", "flashedAt": "2024-05-01T12:00:00Z"}]})");
  ASSERT_TRUE(settings.has_value());
  ASSERT_EQ(settings->flashingPaths.size(), 2U);
  EXPECT_EQ(settings->flashingPaths[0].flashedAt, *ISO8601::withFraction().parse("2024-05-01T12:00:00.250Z"));
  const auto written = Json::parse(Settings::serialize(*settings));
  EXPECT_EQ(written["flashingPaths"][0]["flashedAt"], "2024-05-01T12:00:00Z") << "written without fraction";
}

TEST(SettingsDropped, CountsTheElementsThatWereLeftOut) {
  const char* text = R"({
    "playlists": [{"name": "a"}, {"itemIDs": []}, {"name": "c"}],
    "monitorWallpapers": {"m1": {"paused": true}, "m2": 7, "m3": []},
    "flashingPaths": [{"path": "/x"}, {}, 3]})";
  const auto settings = Settings::deserialize(text);
  ASSERT_TRUE(settings.has_value());
  EXPECT_EQ(settings->playlists.size(), 2U);
  EXPECT_EQ(settings->monitorWallpapers.size(), 1U);
  EXPECT_EQ(
      Settings::dropped(text, *settings),
      (std::vector<std::string>{"1 playlist(s) in settings.json could not be read and was left out",
                                "2 screen setting(s) in settings.json could not be read and were left out",
                                "3 remembered flashing file(s) in settings.json could not be read and were left out"}));
  EXPECT_TRUE(Settings::dropped("{}", KorvalenSettings{}).empty());
  EXPECT_TRUE(Settings::dropped("not json", KorvalenSettings{}).empty());
  EXPECT_TRUE(Settings::dropped(R"({"playlists": "x"})", KorvalenSettings{}).empty());
}

TEST(SettingsFiles, AMissingFileIsCreatedWithTheDefaultsAndReadsBackUnchanged) {
  TempFolder folder;
  const auto path = folder / "Korvalen/settings.json";
  const auto first = Settings::load(path);
  EXPECT_FALSE(first.problem.has_value());
  EXPECT_EQ(first.settings, KorvalenSettings{});
  const auto bytes = readText(path);
  EXPECT_EQ(bytes, Settings::serialize(KorvalenSettings{}));
  const auto second = Settings::load(path);
  EXPECT_FALSE(second.problem.has_value());
  EXPECT_EQ(second.settings, first.settings);
  EXPECT_EQ(readText(path), bytes);
}

TEST(SettingsFiles, AnUnreadableFileGivesDefaultsAndIsLeftByteIdentical) {
  TempFolder folder;
  const auto path = folder / "settings.json";
  const std::string broken = "{\"power\": {\"fpsCap\": 60}, oops";
  writeText(path, broken);
  const auto loaded = Settings::load(path);
  EXPECT_EQ(loaded.settings, KorvalenSettings{});
  ASSERT_TRUE(loaded.problem.has_value());
  EXPECT_TRUE(loaded.problem->starts_with("settings file could not be read (")) << *loaded.problem;
  EXPECT_TRUE(loaded.problem->ends_with("); using defaults: " + path.string())) << *loaded.problem;
  EXPECT_EQ(readText(path), broken);

  std::filesystem::create_directories(folder / "folder.json");
  EXPECT_TRUE(Settings::load(folder / "folder.json").problem.has_value());
}

TEST(SettingsFiles, SaveFailuresAreOneLineNamingThePath) {
  TempFolder folder;
  writeText(folder / "blocked", "x");
  const auto path = folder / "blocked/settings.json";
  const auto saved = Settings::save(KorvalenSettings{}, path);
  ASSERT_FALSE(saved.has_value());
  const auto& problem = saved.error();
  EXPECT_TRUE(problem.starts_with("settings could not be saved (")) << problem;
  EXPECT_TRUE(problem.ends_with("): " + path.string())) << problem;
  EXPECT_EQ(problem.find('\n'), std::string::npos);
}

// Saves in a child process that is killed at arbitrary moments: the file is always either
// the old settings or the new ones, never a mixture or a fragment.
TEST(SettingsFiles, AKilledSaveLeavesTheOldFileOrTheNewOne) {
  TempFolder folder;
  const auto path = folder / "settings.json";
  KorvalenSettings a;
  KorvalenSettings b;
  for (int i = 0; i < 2000; ++i) {
    Playlist playlist;
    playlist.name = "playlist " + std::to_string(i);
    playlist.itemIDs = {"x", "y", "z"};
    b.playlists.push_back(playlist);
  }
  const auto textA = Settings::serialize(a);
  const auto textB = Settings::serialize(b);
  ASSERT_TRUE(Settings::save(a, path).has_value());
  for (int round = 0; round < 12; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 0;; ++i) {
        (void)Settings::save(i % 2 == 0 ? b : a, path);
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3 + round * 4));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    const auto text = readText(path);
    EXPECT_TRUE(text == textA || text == textB) << "round " << round << ": " << text.size() << " bytes";
  }
  // Whatever the kills left behind, the next save sweeps it.
  ASSERT_TRUE(Settings::save(a, path).has_value());
  EXPECT_EQ(folder.entries(), std::vector<std::string>{"settings.json"});
}

}  // namespace
}  // namespace korvalen
