#include "cli/cli_fixture.hpp"
#include "core/planning/saver_plan.hpp"
#include "support/param_name.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::readText;
using korvalen::testing::writeText;

TEST_F(Cli, ShowWithoutAPlanSaysSoOnOneLine) {
  const auto outcome = run({"plan", "show"});
  expectOneLineError(outcome, failed, "no plan at " + planPath());
  EXPECT_EQ(outcome.err, "korvalen: no plan at " + planPath() + "\n");
}

TEST_F(Cli, ShowOfAnUndecodablePlanSaysWhy) {
  writeText(planPath(), R"({"version": 1})");
  expectOneLineError(run({"plan", "show"}), failed, "written: missing");
}

TEST_F(Cli, PutCreatesThePlanAndShowReportsEachScreensRule) {
  ASSERT_EQ(run({"plan", "put", "--screen", "builtin|1512x982", "--kind", "video", "--path", "/m/a.mp4", "--fit",
                 "center", "--crop", "0.25,0,0.5,1", "--mirror-h", "--trim", "2:end", "--sharpen", "0.5"})
                .status,
            ok);
  ASSERT_EQ(run({"plan", "put", "--shared", "--kind", "image", "--path", "/m/b.png", "--held"}).status, ok);

  const auto plan = SaverPlan::read(planPath());
  ASSERT_TRUE(plan.has_value());
  EXPECT_EQ(plan->written, now);
  const auto& own = plan->screens.at("builtin|1512x982");
  EXPECT_EQ(own.fit, FitMode::center);
  EXPECT_EQ(own.crop, (CropRect{0.25, 0, 0.5, 1}));
  EXPECT_TRUE(own.mirrorHorizontal);
  EXPECT_EQ(own.trimStart, 2);
  EXPECT_TRUE(std::isinf(own.trimEnd));
  EXPECT_TRUE(plan->shared->isHeld());

  auto outcome = run({"plan", "show", "--screen", "builtin|1512x982"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_THAT(outcome.out, HasSubstr("gets video /m/a.mp4 fit=center crop=0.25,0,0.5,1 mirror-h trim=2:end"));
  EXPECT_THAT(outcome.out, HasSubstr("by rule: the screen's own entry"));
  EXPECT_THAT(run({"plan", "show", "--screen", "other"}).out, HasSubstr("by rule: shared"));

  const auto asJson = json::Json::parse(run({"plan", "show", "--screen", "other", "--json"}).out);
  EXPECT_EQ(asJson["rule"], "shared");
  EXPECT_EQ(asJson["content"]["path"], "/m/b.png");
  EXPECT_EQ(asJson["content"]["held"], true);

  ASSERT_EQ(run({"plan", "put", "--chosen", "--kind", "web", "--path", "/p/index.html", "--still", "/p/s.png"}).status,
            ok);
  EXPECT_THAT(run({"plan", "show", "--screen", "builtin|1512x982"}).out, HasSubstr("by rule: chosen"));
}

TEST_F(Cli, ShowPrintsThePlanWideSettings) {
  ASSERT_EQ(run({"plan", "set", "--sound", "on", "--volume", "0.5", "--dim", "0.2", "--saturation", "0.8", "--rate",
                 "0.75", "--guard", "off"})
                .status,
            ok);
  const auto outcome = run({"plan", "show"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_THAT(outcome.out, HasSubstr("written 2026-11-22T10:00:00Z, version 1"));
  EXPECT_THAT(outcome.out, HasSubstr("sound on, volume 0.5, dim 0.2, saturation 0.8, rate 0.75, guardsFlashes no"));
  EXPECT_THAT(outcome.out, HasSubstr("screens: none"));
  const auto plan = json::Json::parse(run({"plan", "show", "--json"}).out);
  EXPECT_EQ(plan["stopsFlashing"], false);
  EXPECT_EQ(plan["volume"], 0.5);
}

TEST_F(Cli, SetKeepsWhatItWasNotToldAndStampsTheTime) {
  ASSERT_EQ(run({"plan", "set", "--volume", "0.3"}).status, ok);
  now += std::chrono::minutes(5);
  ASSERT_EQ(run({"plan", "set", "--rate", "2"}).status, ok);
  const auto plan = SaverPlan::read(planPath());
  EXPECT_EQ(plan->volume, 0.3);
  EXPECT_EQ(plan->rate, 2.0);
  EXPECT_EQ(plan->written, now);
  EXPECT_FALSE(plan->stopsFlashing.has_value());
}

struct BadArguments {
  const char* name;
  std::vector<std::string> arguments;
  const char* fragment;
};

class CliRefuses : public Cli, public ::testing::WithParamInterface<BadArguments> {};

TEST_P(CliRefuses, BadValuesNameTheArgumentAndWriteNothing) {
  expectOneLineError(run(GetParam().arguments), badUsage, GetParam().fragment);
  EXPECT_TRUE(folder.entries().empty()) << "nothing may be written";
}

INSTANTIATE_TEST_SUITE_P(
    Cli, CliRefuses,
    ::testing::Values(
        BadArguments{"UnknownKind", {"plan", "put", "--shared", "--kind", "movie", "--path", "/a"}, "--kind"},
        BadArguments{
            "UnknownFit", {"plan", "put", "--shared", "--kind", "video", "--path", "/a", "--fit", "cover"}, "--fit"},
        BadArguments{
            "CropOfThree", {"plan", "put", "--shared", "--kind", "video", "--path", "/a", "--crop", "0,0,1"}, "--crop"},
        BadArguments{
            "CropWord", {"plan", "put", "--shared", "--kind", "video", "--path", "/a", "--crop", "a,b,c,d"}, "--crop"},
        BadArguments{"CropOutside",
                     {"plan", "put", "--shared", "--kind", "video", "--path", "/a", "--crop", "0,0,1.5,1"},
                     "--crop"},
        BadArguments{
            "TrimBackwards", {"plan", "put", "--shared", "--kind", "video", "--path", "/a", "--trim", "5:2"}, "--trim"},
        BadArguments{"NoTarget", {"plan", "put", "--kind", "video", "--path", "/a"}, "--screen,--shared,--chosen"},
        BadArguments{"TwoTargets",
                     {"plan", "put", "--shared", "--chosen", "--kind", "video", "--path", "/a"},
                     "--screen,--shared,--chosen"},
        BadArguments{"NoPath", {"plan", "put", "--shared", "--kind", "video"}, "--path"},
        BadArguments{"NegativeVolume", {"plan", "set", "--volume", "-0.5"}, "--volume"},
        BadArguments{"LoudVolume", {"plan", "set", "--volume", "1.5"}, "--volume"},
        BadArguments{"VolumeWord", {"plan", "set", "--volume", "loud"}, "--volume"},
        BadArguments{"SoundWord", {"plan", "set", "--sound", "yes"}, "--sound"},
        BadArguments{"RateZero", {"plan", "set", "--rate", "0"}, "--rate"},
        BadArguments{"DimNaN", {"plan", "set", "--dim", "nan"}, "--dim"},
        BadArguments{"PlaceBadSize", {"place", "--media", "1920by1080", "--surface", "10x10"}, "--media"},
        BadArguments{"PlaceNegativeSize", {"place", "--media", "10x10", "--surface", "-10x10"}, "--surface"},
        BadArguments{"PlaceHugeSize", {"place", "--media", "10x10", "--surface", "99999999999x10"}, "--surface"},
        BadArguments{"UnknownCommand", {"plan", "frobnicate"}, "frobnicate"},
        BadArguments{"NoCommand", {}, "choose a command: plan, place"},
        BadArguments{"NoPlanCommand", {"plan"}, "choose a command: show, put, set, clear"}),
    korvalen::testing::ByName{});

TEST_F(Cli, AnUnreadablePlanIsNeverOverwritten) {
  writeText(planPath(), "{\"version\": 1, oops");
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"plan", "put", "--shared", "--kind", "video", "--path", "/a"},
                                             {"plan", "set", "--volume", "0.5"},
                                             {"plan", "clear", "--shared"}}) {
    expectOneLineError(run(arguments), failed, "left " + planPath() + " as it is");
    EXPECT_EQ(readText(planPath()), "{\"version\": 1, oops");
  }
}

TEST_F(Cli, ClearRemovesOnlyTheNamedContent) {
  ASSERT_EQ(run({"plan", "put", "--screen", "A", "--kind", "video", "--path", "/a"}).status, ok);
  ASSERT_EQ(run({"plan", "put", "--screen", "B", "--kind", "video", "--path", "/b"}).status, ok);
  ASSERT_EQ(run({"plan", "put", "--shared", "--kind", "image", "--path", "/s"}).status, ok);
  ASSERT_EQ(run({"plan", "clear", "--screen", "A"}).status, ok);
  auto plan = SaverPlan::read(planPath());
  EXPECT_FALSE(plan->screens.contains("A"));
  EXPECT_TRUE(plan->screens.contains("B"));
  EXPECT_TRUE(plan->shared.has_value());

  const auto before = readText(planPath());
  now += std::chrono::hours(1);
  const auto outcome = run({"plan", "clear", "--chosen"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_THAT(outcome.out, HasSubstr("nothing to clear"));
  EXPECT_EQ(readText(planPath()), before) << "nothing changed, so the stamp stays";
}

TEST_F(Cli, RelativeMediaPathsAreStoredAbsolute) {
  ASSERT_EQ(run({"plan", "put", "--shared", "--kind", "video", "--path", "clips/../a.mp4"}).status, ok);
  const auto stored = SaverPlan::read(planPath())->shared->path;
  EXPECT_TRUE(std::filesystem::path(stored).is_absolute()) << stored;
  EXPECT_EQ(std::filesystem::path(stored), std::filesystem::current_path() / "a.mp4");
}

TEST_F(Cli, PlanOptionOverridesTheEnvironment) {
  const auto elsewhere = (folder / "elsewhere.json").string();
  ASSERT_EQ(run({"plan", "set", "--plan", elsewhere, "--dim", "0.5"}).status, ok);
  EXPECT_TRUE(std::filesystem::exists(elsewhere));
  EXPECT_FALSE(std::filesystem::exists(planPath()));
}

TEST_F(Cli, PlacePrintsThePlacementAndTheSourceInPixels) {
  const auto outcome = run({"place", "--media", "3840x2160", "--surface", "1920x1080", "--fit", "center"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_EQ(outcome.out,
            "sourceCrop   x=0.25 y=0.25 width=0.5 height=0.5\n"
            "destination  x=0 y=0 width=1920 height=1080\n"
            "distorts     no\n"
            "source px    x=960 y=540 width=1920 height=1080\n");
  const auto asJson = json::Json::parse(
      run({"place", "--media", "1920x1080", "--surface", "1920x1080", "--crop", "0.25,0,0.5,1", "--json"}).out);
  EXPECT_EQ(asJson["sourceCrop"]["y"], 0.25);
  EXPECT_EQ(asJson["destination"]["width"], 1920.0);
  EXPECT_EQ(asJson["distorts"], false);
  EXPECT_EQ(asJson["pixelSourceRect"]["x"], 480.0);
}

TEST_F(Cli, HelpSucceedsAndTheDemoRuns) {
  const auto help = run({"--help"});
  EXPECT_EQ(help.status, ok);
  EXPECT_THAT(help.out, HasSubstr("plan"));
  EXPECT_THAT(help.out, HasSubstr("place"));
  EXPECT_EQ(run({"plan", "put", "--help"}).status, ok);

  const auto demo = run({"demo"});
  EXPECT_EQ(demo.status, ok) << demo.err;
  EXPECT_THAT(demo.out, HasSubstr("rule: the screen's own entry"));
  EXPECT_THAT(demo.out, HasSubstr("rule: shared"));
  EXPECT_THAT(demo.out, HasSubstr("destination  x=800 y=0 width=960 height=1440"));
}

}  // namespace
}  // namespace korvalen::cli
