#include "cli/cli_fixture.hpp"
#include "core/library/playlist.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::writeText;

TEST_F(Cli, ScheduleCheckPrintsTheSortedSchedule) {
  const auto outcome = run({"schedule", "check", "22:00=night", "6=dawn", "7.30=sunrise"});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_EQ(outcome.out, "06:00  dawn\n07:30  sunrise\n22:00  night\n");
  const auto asJson = json::Json::parse(run({"schedule", "check", "22=b", "6=a", "--json"}).out);
  EXPECT_EQ(asJson, json::Json::parse(R"([{"from":"06:00","itemID":"a"},{"from":"22:00","itemID":"b"}])"));
  EXPECT_EQ(run({"schedule", "check"}).out, "empty schedule\n");
}

TEST_F(Cli, ScheduleCheckGivesTheSentenceOnStandardError) {
  struct Case {
    std::vector<std::string> rows;
    std::string sentence;
  };
  for (const auto& [rows, sentence] :
       std::vector<Case>{{{"7.30=A", "07:30=B"}, "two entries start at 07:30"},
                         {{"7="}, "07:00 entry has no wallpaper chosen"},
                         {{"0730"}, "07:30 entry has no wallpaper chosen"},
                         {{"730=A"}, "'730' is not a time \u2014 use HH:mm, e.g. 07:30"}}) {
    std::vector<std::string> arguments{"schedule", "check"};
    arguments.insert(arguments.end(), rows.begin(), rows.end());
    const auto outcome = run(arguments);
    EXPECT_EQ(outcome.status, failed);
    EXPECT_EQ(outcome.err, sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
}

class Simulate : public Cli {
 protected:
  void SetUp() override {
    writeText(playlist, R"({"name":"Day","itemIDs":["A","B","C"],
      "schedule":[{"from":"08:00","itemID":"A"},{"from":"12:00","itemID":"B"},{"from":"20:00","itemID":"C"}]})");
    writeText(mix, R"({"name":"Mix","itemIDs":["a","b","c","d"],"intervalMinutes":20,"shuffle":false})");
  }
  std::string playlist = (folder / "day.json").string();
  std::string mix = (folder / "mix.json").string();
};

TEST_F(Simulate, AScheduleFollowsTheWallClockAcrossTheSpringForward) {
  const auto outcome = run({"playlist", "simulate", "--playlist", playlist, "--from", "2024-03-31T00:00", "--hours",
                            "24", "--tz", "Europe/Berlin"});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_EQ(outcome.out,
            "playlist 'Day': 3 item(s), scheduled (3 entries), in Europe/Berlin\n"
            "2024-03-31 00:00 CET  C  (scheduled)\n"
            "2024-03-31 08:00 CEST  A  (scheduled)\n"
            "2024-03-31 12:00 CEST  B  (scheduled)\n"
            "2024-03-31 20:00 CEST  C  (scheduled)\n");
}

TEST_F(Simulate, TheZoneDecidesWhenEntriesStart) {
  const auto asJson = json::Json::parse(run({"playlist", "simulate", "--playlist", playlist, "--from",
                                             "2024-05-01T06:30:00Z", "--hours", "1", "--tz", "Europe/Lisbon", "--json"})
                                            .out);
  EXPECT_EQ(asJson["timeZone"], "Europe/Lisbon");
  ASSERT_EQ(asJson["changes"].size(), 2U);
  EXPECT_EQ(asJson["changes"][0]["currentID"], "C");
  EXPECT_EQ(asJson["changes"][1]["currentID"], "A");
  EXPECT_EQ(asJson["changes"][1]["changedAt"], "2024-05-01T07:00:00Z");
  EXPECT_EQ(asJson["changes"][1]["position"], -1);
}

TEST_F(Simulate, IntervalsAvoidanceAndAvailability) {
  auto outcome = run({"playlist", "simulate", "--playlist", mix, "--from", "2024-05-01T08:00:00Z", "--hours", "1",
                      "--tz", "UTC", "--avoid", "b,c", "--available", "a,b,c,d"});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("2024-05-01 08:00 UTC  a  (position 0)\n"
                                     "2024-05-01 08:20 UTC  d  (position 3)\n"
                                     "2024-05-01 08:40 UTC  a  (position 0)\n"
                                     "2024-05-01 09:00 UTC  d  (position 3)\n"));
  outcome = run({"playlist", "simulate", "--playlist", mix, "--from", "2024-05-01T08:00:00Z", "--hours", "1", "--tz",
                 "UTC", "--available", "x"});
  EXPECT_THAT(outcome.out, HasSubstr("2024-05-01 08:00 UTC  (nothing)  (scheduled)\n"));
}

TEST_F(Simulate, ReadsAPlaylistFromSettingsByName) {
  const auto settings = (folder / "settings.json").string();
  writeText(settings, R"({"playlists":[{"name":"Broken","itemIDs":"x"}, // hand-edited
    {"name":"Evening","itemIDs":["e","f"],},]})");
  const auto outcome = run({"playlist", "simulate", "--settings", settings, "--name", "Evening", "--from",
                            "2024-05-01T18:00:00Z", "--hours", "1", "--tz", "UTC"});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("playlist 'Evening': 2 item(s), every 30 min, in UTC\n"));
  EXPECT_THAT(outcome.out, HasSubstr("18:30 UTC  f  (position 1)"));
  expectOneLineError(run({"playlist", "simulate", "--settings", settings, "--name", "Morning", "--from",
                          "2024-05-01T18:00:00Z", "--hours", "1"}),
                     failed, "no playlist named 'Morning' in " + settings + " (it has 'Evening')");
}

TEST_F(Simulate, BadInputIsNamed) {
  const std::vector<std::string> base{"playlist", "simulate", "--playlist", playlist, "--hours", "1"};
  auto with = [&](std::vector<std::string> extra) {
    auto arguments = base;
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return run(arguments);
  };
  expectOneLineError(with({"--from", "yesterday"}), badUsage, "--from");
  expectOneLineError(with({"--from", "2024-05-01T08:00Z", "--tz", "Mars/Olympus"}), badUsage, "--tz");
  expectOneLineError(with({"--from", "2024-05-01T08:00:00Z", "--seed", "1.5"}), badUsage, "--seed");
  expectOneLineError(with({"--from", "2024-05-01T08:00:00Z", "--step-minutes", "0"}), badUsage, "--step-minutes");
  expectOneLineError(run({"playlist", "simulate", "--playlist", (folder / "none.json").string(), "--from",
                          "2024-05-01T08:00:00Z", "--hours", "1"}),
                     failed, "none.json");
  writeText(folder / "bad.json", R"({"name":"x","itemIDs":"a"})");
  expectOneLineError(run({"playlist", "simulate", "--playlist", (folder / "bad.json").string(), "--from",
                          "2024-05-01T08:00:00Z", "--hours", "1"}),
                     failed, "itemIDs: expected a list");
  expectOneLineError(
      run({"playlist", "simulate", "--settings", playlist, "--from", "2024-05-01T08:00:00Z", "--hours", "1"}), badUsage,
      "--name");
}

}  // namespace
}  // namespace korvalen::cli
