#include "cli/cli_fixture.hpp"
#include "core/app/settings_coding.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/playback_state.hpp"
#include "core/planning/saver_plan.hpp"
#include "core/support/json.hpp"
#include "engine/planning/planner_service.hpp"
#include "support/clips.hpp"

#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::Not;
using testing::readText;
using testing::writeText;

// Settings and a library under XDG_DATA_HOME; the library's items need no files to be
// planned, only to be shown.
class Planner : public Cli {
 protected:
  void SetUp() override {
    environment["XDG_DATA_HOME"] = folder.path().string();
    environment["TZ"] = "UTC";
    auto library = WallpaperLibrary::load(libraryFolder()).library;
    for (const auto* id : {"1", "2", "3"}) {
      LibraryItem item;
      item.id = id;
      item.kind = WallpaperKind::image;
      item.relativePath = std::string("items/") + id + "/picture.png";
      item.title = std::string("picture ") + id;
      item.sha256 = std::string("sha-") + id;
      ASSERT_TRUE(library.add(item));
    }
    ASSERT_TRUE(library.save());
  }

  [[nodiscard]] fs::path korvalen() const { return folder / "Korvalen"; }
  [[nodiscard]] fs::path libraryFolder() const { return korvalen() / "Library"; }
  [[nodiscard]] fs::path settingsFile() const { return korvalen() / "settings.json"; }
  [[nodiscard]] fs::path stateFile() const { return korvalen() / "playback-state.json"; }

  void settings(const std::string& text) { writeText(settingsFile(), text); }

  json::Json nowJson(std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments{"now", "--json"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const auto outcome = run(arguments);
    EXPECT_EQ(outcome.status, ok) << outcome.err;
    return json::Json::parse(outcome.out);
  }
};

TEST_F(Planner, NowAnswersEveryMonitorWithTheFixedKeysAndWritesNothing) {
  settings(R"({"playlists": [{"name": "Morning", "itemIDs": ["1", "2"], "intervalMinutes": 15}],
               "activePlaylist": "Morning",
               "monitorWallpapers": {"dell|1920x1080": {"itemId": "3", "paused": true},
                                     "lg|800x600": {"itemId": "9"}}})");
  const auto answers = nowJson({"--monitor", "dell|2560x1440", "--monitor", "lg|800x600", "--monitor", "hp|1x1"});
  ASSERT_EQ(answers.size(), 3U);
  std::set<std::string> keys;
  for (const auto& [key, unused] : answers[1].items()) {
    keys.insert(key);
  }
  EXPECT_EQ(keys, (std::set<std::string>{"explanation", "itemID", "monitorId", "paused", "reason", "until"}));
  EXPECT_EQ(answers[0]["monitorId"], "dell|2560x1440");
  EXPECT_EQ(answers[0]["reason"], "assignment") << "the assignment followed its monitor to a new size";
  EXPECT_EQ(answers[0]["itemID"], "3");
  EXPECT_EQ(answers[0]["paused"], true);
  EXPECT_FALSE(answers[0].contains("until")) << "nothing is scheduled to change";
  EXPECT_EQ(answers[1]["reason"], "missing");
  EXPECT_EQ(answers[1]["itemID"], "1");
  EXPECT_THAT(answers[1]["explanation"].get<std::string>(), HasSubstr("Item 9, assigned to this monitor"));
  EXPECT_EQ(answers[1]["until"], "2026-11-22T10:15:00Z");
  EXPECT_EQ(answers[2]["reason"], "activePlaylist");
  EXPECT_FALSE(fs::exists(stateFile())) << "now never writes the playback state";
  EXPECT_FALSE(fs::exists(planPath()));

  const auto any = nowJson();
  ASSERT_EQ(any.size(), 1U);
  EXPECT_EQ(any[0]["monitorId"], "*") << "no display and no --monitor: the answer for any screen";

  const auto text = run({"now", "--monitor", "dell|2560x1440"});
  EXPECT_THAT(text.out, HasSubstr("dell|2560x1440: item 3 (its own item, paused by you)"));
}

TEST_F(Planner, NowAtAnotherTimeInAnotherZoneFollowsTheSchedule) {
  settings(R"({"playlists": [{"name": "Day", "itemIDs": ["1", "2"],
                               "schedule": [{"from": "07:00", "itemID": "1"}, {"from": "19:00", "itemID": "2"}]}],
               "activePlaylist": "Day"})");
  auto answer = nowJson({"--at", "2026-03-29T06:59", "--tz", "Europe/Berlin"});
  EXPECT_EQ(answer[0]["itemID"], "2");
  EXPECT_EQ(answer[0]["until"], "2026-03-29T05:00:00Z") << "07:00 summer time";
  answer = nowJson({"--at", "2026-03-29T07:00", "--tz", "Europe/Berlin"});
  EXPECT_EQ(answer[0]["itemID"], "1");
  EXPECT_EQ(answer[0]["until"], "2026-03-29T17:00:00Z");
  expectOneLineError(run({"now", "--at", "tomorrow"}), badUsage, "--at");
  expectOneLineError(run({"now", "--tz", "Mars/Olympus"}), badUsage, "--tz");
  expectOneLineError(run({"now", "--monitor", ""}), badUsage, "--monitor");
}

TEST_F(Planner, PlanMakeWritesOnlyWhatChangedAndDryRunWritesNothing) {
  settings(R"({"lastWallpaper": {"itemID": "2", "volume": 0.25}, "screensaver": {"playSound": true},
               "playlists": [{"name": "Evening", "itemIDs": ["1", "3"]}],
               "monitorWallpapers": {"dell|1920x1080": {"playlistName": "Evening"}}})");
  auto dry = run({"plan", "make", "--dry-run", "--monitor", "dell|1920x1080"});
  EXPECT_EQ(dry.status, ok) << dry.err;
  EXPECT_THAT(dry.out, HasSubstr("would write " + planPath()));
  EXPECT_FALSE(fs::exists(planPath()));
  EXPECT_FALSE(fs::exists(stateFile()));

  auto made = run({"plan", "make", "--monitor", "dell|1920x1080"});
  EXPECT_EQ(made.status, ok) << made.err;
  EXPECT_THAT(made.out, HasSubstr("wrote " + planPath()));
  const auto plan = SaverPlan::read(planPath());
  ASSERT_TRUE(plan);
  EXPECT_TRUE(plan->sound);
  EXPECT_DOUBLE_EQ(plan->volume, 0.25);
  ASSERT_TRUE(plan->screens.contains("dell|1920x1080"));
  EXPECT_EQ(plan->screens.at("dell|1920x1080").path, (libraryFolder() / "items/1/picture.png").string());
  ASSERT_TRUE(plan->shared);
  EXPECT_EQ(plan->shared->path, (libraryFolder() / "items/2/picture.png").string());
  const auto state = PlaybackState::read(stateFile());
  ASSERT_TRUE(state.state.monitors.contains("dell|1920x1080"));
  EXPECT_EQ(state.state.monitors.at("dell|1920x1080").playlist, "Evening");

  // The same answer later: the plan keeps its bytes, written stamp and all.
  const auto before = readText(planPath());
  now += 10min;
  auto again = run({"plan", "make", "--monitor", "dell|1920x1080"});
  EXPECT_THAT(again.out, HasSubstr("already says this; left as it is"));
  EXPECT_EQ(readText(planPath()), before);

  // The playlist's step comes due: a new plan, and the state goes on from where it was.
  now += 20min;
  ASSERT_EQ(run({"plan", "make", "--monitor", "dell|1920x1080"}).status, ok);
  EXPECT_EQ(SaverPlan::read(planPath())->screens.at("dell|1920x1080").path,
            (libraryFolder() / "items/3/picture.png").string());

  const auto asJson = run({"plan", "make", "--dry-run", "--json"});
  EXPECT_EQ(SaverPlan::decode(asJson.out).value().shared->path, (libraryFolder() / "items/2/picture.png").string());
}

TEST_F(Planner, AnUnreadableSettingsOrLibraryFileLeavesThePlanAsItIs) {
  settings(R"({"lastWallpaper": {"itemID": "2"}})");
  ASSERT_EQ(run({"plan", "make"}).status, ok);
  const auto before = readText(planPath());
  settings("{\"lastWallpaper\": ");
  expectOneLineError(run({"plan", "make"}), failed, "settings.json");
  expectOneLineError(run({"now"}), failed, "settings.json");
  settings(R"({"lastWallpaper": {"itemID": "1"}})");
  writeText(libraryFolder() / "library.json", "[]");
  expectOneLineError(run({"plan", "make"}), failed, "library.json");
  EXPECT_EQ(readText(planPath()), before);
}

TEST_F(Planner, PlanMakeIsRefusedWhileAnotherProgramPlans) {
  auto held = engine::PlannerLock::acquire(korvalen(), "korvalen planner");
  ASSERT_TRUE(held) << held.error();
  expectOneLineError(run({"plan", "make"}), failed,
                     fmt::format("korvalen planner (pid {}) is planning already", ::getpid()));
  EXPECT_EQ(run({"plan", "make", "--dry-run"}).status, ok) << "looking changes nothing, so it is allowed";
}

// The real executable as a running planner, on the real clock.
class LivePlanner : public Planner {
 protected:
  void TearDown() override {
    if (planner_) {
      planner_->terminate();
    }
  }

  std::vector<std::string> variables() {
    return {"XDG_DATA_HOME=" + environment["XDG_DATA_HOME"], "KORVALEN_SAVER_PLAN=" + planPath(), "TZ=UTC"};
  }

  void startPlanner(const std::vector<std::string>& extra = {}) {
    auto arguments = variables();
    arguments.insert(arguments.end(), {KORVALEN_EXECUTABLE, "planner", "--tz", "UTC"});
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    auto child = engine::ChildProcess::start("/usr/bin/env", arguments);
    ASSERT_TRUE(child) << child.error();
    planner_.emplace(std::move(*child));
    // Ready once it has said what it keeps and planned once.
    for (int i = 0; i < 200 && log_.find("keeping") == std::string::npos; ++i) {
      planner_->pump(output_, log_, 50ms);
    }
    ASSERT_THAT(log_, HasSubstr("keeping " + planPath()));
  }

  // The item the plan shows any screen, looked at every 10 ms until it is `id`; the moment
  // it was first seen, or absent after `limit`.
  std::optional<Date> waitForShared(const std::string& id, std::chrono::milliseconds limit) {
    const auto wanted = (libraryFolder() / ("items/" + id + "/picture.png")).string();
    const auto until = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < until) {
      const auto plan = SaverPlan::read(planPath());
      if (plan && plan->shared && plan->shared->path == wanted) {
        return wallNow();
      }
      planner_->pump(output_, log_, 10ms);
    }
    return std::nullopt;
  }

  // Whether the planner's log says `text` within a second: the plan file can be seen
  // before the line about it has come through the pipe.
  bool logSays(const std::string& text) {
    const auto until = std::chrono::steady_clock::now() + 1s;
    while (log_.find(text) == std::string::npos && std::chrono::steady_clock::now() < until) {
      planner_->pump(output_, log_, 10ms);
    }
    return log_.find(text) != std::string::npos;
  }

  // Reads the planner's log for `time`, so whatever it did meanwhile is there.
  void pumpFor(std::chrono::milliseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < until) {
      planner_->pump(output_, log_, 10ms);
    }
  }

  static Date wallNow() { return std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now()); }

  std::int64_t contextSwitches() {
    std::int64_t total = 0;
    const auto tasks = fs::path("/proc") / std::to_string(planner_->pid()) / "task";
    for (const auto& task : fs::directory_iterator(tasks)) {
      std::ifstream status(task.path() / "status");
      std::string line;
      while (std::getline(status, line)) {
        if (line.find("ctxt_switches:") != std::string::npos) {
          total += std::stoll(line.substr(line.find(':') + 1));
        }
      }
    }
    return total;
  }

  std::optional<engine::ChildProcess> planner_;
  std::string output_;
  std::string log_;
};

TEST_F(LivePlanner, StepsAPlaylistAtItsMomentNotBeforeAndSleepsMeanwhile) {
  settings(R"({"playlists": [{"name": "Morning", "itemIDs": ["1", "2"], "intervalMinutes": 1}],
               "activePlaylist": "Morning"})");
  // The playlist began 57 seconds ago, so its step is 3 seconds ahead.
  const auto began = std::chrono::floor<std::chrono::seconds>(wallNow()) - 57s;
  PlaybackState state;
  state.monitors["*"] = PlaylistProgress{"Morning", 7, PlaylistState{"1", began, 0, {"1", "2"}}};
  ASSERT_TRUE(state.write(stateFile()));
  startPlanner();
  ASSERT_TRUE(waitForShared("1", 2s)) << log_;
  // Between its first plan and the step it has nothing to do, and does not wake.
  const auto step = began + 60s;
  std::this_thread::sleep_for(300ms);
  const auto switches = contextSwitches();
  std::this_thread::sleep_until(std::chrono::system_clock::time_point(step - 300ms));
  EXPECT_LE(contextSwitches() - switches, 1) << "it woke while it had nothing to do";
  const auto seen = waitForShared("2", 8s);
  ASSERT_TRUE(seen) << log_;
  EXPECT_GE(*seen, step) << "rewritten before the step was due";
  EXPECT_LE(*seen, step + 1s) << "rewritten more than a second after the step";
  EXPECT_TRUE(logSays("plan rewritten: * item 2 (activePlaylist); next change")) << log_;
  EXPECT_EQ(PlaybackState::read(stateFile()).state.monitors.at("*").state.currentID, "2");

  // Only one planner at a time, and the second says which one runs.
  auto arguments = variables();
  arguments.insert(arguments.end(), {KORVALEN_EXECUTABLE, "planner"});
  const auto second = engine::run("/usr/bin/env", arguments);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->exitCode, failed);
  EXPECT_THAT(second->error, HasSubstr(fmt::format("korvalen planner (pid {}) is planning already", planner_->pid())));
}

TEST_F(LivePlanner, FollowsEditsOfTheSettingsAndTheLibraryWithinASecond) {
  settings(R"({"lastWallpaper": {"itemID": "1"}})");
  startPlanner();
  ASSERT_TRUE(waitForShared("1", 2s)) << log_;

  // Replaced, as the tools save it.
  ASSERT_TRUE(Settings::save(*Settings::deserialize(R"({"lastWallpaper": {"itemID": "2"}})"), settingsFile()));
  EXPECT_TRUE(waitForShared("2", 1s)) << log_;
  // Written in place, as an editor may.
  {
    std::ofstream file(settingsFile(), std::ios::trunc);
    file << R"({"lastWallpaper": {"itemID": "3"}})";
  }
  EXPECT_TRUE(waitForShared("3", 1s)) << log_;
  // An edit that changes nothing shown rewrites nothing.
  ASSERT_TRUE(logSays("* item 3 (lastWallpaper); no change scheduled\n")) << log_;
  const auto rewrites = std::count(log_.begin(), log_.end(), '\n');
  const auto before = readText(planPath());
  settings(R"({"lastWallpaper": {"itemID": "3"}, "firstRunShown": true})");
  auto library = WallpaperLibrary::load(libraryFolder()).library;
  library.rename("2", "renamed");
  ASSERT_TRUE(library.save());
  pumpFor(500ms);
  EXPECT_EQ(readText(planPath()), before);
  EXPECT_EQ(std::count(log_.begin(), log_.end(), '\n'), rewrites);
  // The library loses item 3: the last wallpaper is missing and nothing is shown.
  library.remove("3");
  ASSERT_TRUE(library.save());
  const auto until = std::chrono::steady_clock::now() + 1s;
  while (std::chrono::steady_clock::now() < until && SaverPlan::read(planPath())->shared) {
    planner_->pump(output_, log_, 10ms);
  }
  EXPECT_FALSE(SaverPlan::read(planPath())->shared) << log_;
  EXPECT_TRUE(logSays("plan rewritten: * nothing (missing)")) << log_;

  // A settings file that cannot be read leaves the plan as it is, said once.
  settings("{\"lastWallpaper\": ");
  EXPECT_TRUE(logSays("the plan stays as it is until that is fixed")) << log_;
  EXPECT_THAT(log_, HasSubstr("settings.json"));
  EXPECT_FALSE(SaverPlan::read(planPath())->shared) << "the plan is the one from before";
}

// A schedule's boundary is a whole minute: wait for the next one at least 2.5 s ahead.
TEST_F(LivePlanner, TakesOverAtAScheduleBoundaryToTheSecond) {
  auto boundary = std::chrono::ceil<std::chrono::minutes>(wallNow());
  if (boundary - wallNow() < 2500ms) {
    boundary += 1min;
  }
  const auto minute = [](Date at) {
    const auto time = date::hh_mm_ss(at - std::chrono::floor<std::chrono::days>(at));
    return fmt::format("{:02}:{:02}", time.hours().count(), time.minutes().count());
  };
  settings(fmt::format(R"({{"playlists": [{{"name": "Day", "itemIDs": ["1", "2"],
      "schedule": [{{"from": "{}", "itemID": "2"}}, {{"from": "{}", "itemID": "1"}}]}}],
      "activePlaylist": "Day"}})",
                       minute(boundary), minute(boundary + 12h)));
  startPlanner();
  ASSERT_TRUE(waitForShared("1", 2s)) << log_;
  const auto seen =
      waitForShared("2", std::chrono::duration_cast<std::chrono::milliseconds>(boundary - wallNow()) + 3s);
  ASSERT_TRUE(seen) << log_;
  EXPECT_GE(*seen, boundary);
  EXPECT_LE(*seen, boundary + 1s);
}

// A screensaver running meanwhile picks up the plan the planner rewrote.
TEST_F(LivePlanner, ARunningScreensaverFollowsTheRewrittenPlan) {
  const auto ffmpeg = systemFfmpeg();
  for (const auto& [id, colour] : {std::pair{"1", "red"}, std::pair{"2", "blue"}}) {
    testing::makeMedia(ffmpeg, libraryFolder() / ("items/" + std::string(id) + "/picture.png"),
                       {"-f", "lavfi", "-i", std::string("color=") + colour + ":s=64x36", "-frames:v", "1"});
  }
  settings(R"({"lastWallpaper": {"itemID": "1"}})");
  startPlanner();
  ASSERT_TRUE(waitForShared("1", 2s)) << log_;
  auto arguments = variables();
  arguments.insert(arguments.end(), {KORVALEN_EXECUTABLE, "saver", "--headless", "--live", "--size", "64x36",
                                     "--seconds", "7.5", "--fps", "2", "--out", (folder / "frames").string()});
  auto saver = engine::ChildProcess::start("/usr/bin/env", arguments);
  ASSERT_TRUE(saver) << saver.error();
  std::this_thread::sleep_for(1500ms);
  settings(R"({"lastWallpaper": {"itemID": "2"}})");
  std::string out;
  std::string err;
  ASSERT_EQ(saver->wait(out, err), ok) << err;
  // "red" or "blue" by the middle pixel of a frame.
  const auto colourOf = [&](const std::string& frame) -> std::string {
    const auto pixel = engine::run(ffmpeg, {"-v", "error", "-i", (folder / "frames" / frame).string(), "-vf",
                                            "crop=1:1:32:18", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    if (!pixel || pixel->output.size() != 3) {
      return "unreadable";
    }
    const auto red = static_cast<unsigned char>(pixel->output[0]);
    const auto blue = static_cast<unsigned char>(pixel->output[2]);
    return red > 200 && blue < 60 ? "red" : blue > 200 && red < 60 ? "blue" : "other";
  };
  EXPECT_EQ(colourOf("frame-00000.png"), "red");
  EXPECT_EQ(colourOf("frame-00014.png"), "blue") << "the saver re-read the plan the planner rewrote";
}

}  // namespace
}  // namespace korvalen::cli
