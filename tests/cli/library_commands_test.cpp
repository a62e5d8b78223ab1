#include "cli/cli_fixture.hpp"
#include "core/app/settings_coding.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/saver_plan.hpp"
#include "core/support/json.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"

#include <csignal>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::Not;
using testing::readText;
using testing::writeText;

// The library commands on a real library folder under XDG_DATA_HOME, with media made by the
// real ffmpeg.
class Library : public Cli {
 protected:
  void SetUp() override {
    ffmpeg = systemFfmpeg();
    environment["XDG_DATA_HOME"] = (folder / "data").string();
  }

  std::string make(const std::string& name, const std::vector<std::string>& arguments) {
    const auto path = folder / ("media/" + name);
    testing::makeMedia(ffmpeg, path, arguments);
    return path.string();
  }

  std::string clip(const std::string& name, const std::string& seconds = "2") {
    return make(name, {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=30:d=" + seconds, "-c:v", "libx264", "-preset",
                       "ultrafast", "-pix_fmt", "yuv420p"});
  }

  [[nodiscard]] fs::path libraryFolder() const { return folder / "data/Korvalen/Library"; }

  json::Json listed() {
    const auto outcome = run({"library", "list", "--json"});
    EXPECT_EQ(outcome.status, ok) << outcome.err;
    return json::parse(outcome.out).value_or(json::Json());
  }

  fs::path ffmpeg;
};

TEST_F(Library, AddListShowAndTheKeysImportLearns) {
  const auto video =
      make("sea.mp4", {"-f", "lavfi", "-i", "testsrc2=s=320x180:r=25:d=2", "-f", "lavfi", "-i", "sine=duration=2",
                       "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
  const auto added = run({"library", "add", video, "--title", "The Sea"});
  ASSERT_EQ(added.status, ok) << added.err;
  EXPECT_THAT(added.out, HasSubstr("imported " + video + " as item 1: video \"The Sea\", 320x180"));
  EXPECT_EQ(added.err, "");  // no progress off a terminal

  const auto shown = run({"library", "show", "1", "--json"});
  ASSERT_EQ(shown.status, ok) << shown.err;
  const auto item = json::parse(shown.out).value();
  EXPECT_EQ(item["width"], 320);
  EXPECT_EQ(item["height"], 180);
  EXPECT_EQ(item["frameRate"], 25.0);
  EXPECT_EQ(item["codec"], "h264");
  EXPECT_EQ(item["hasAudio"], true);
  EXPECT_NEAR(item["durationSeconds"].get<double>(), 2, 0.1);
  EXPECT_EQ(item["sizeBytes"], static_cast<std::int64_t>(fs::file_size(video)));
  EXPECT_EQ(item["relativePath"], "items/1/sea.mp4");
  EXPECT_EQ(item["addedUTC"], "2026-11-22T10:00:00Z");
  EXPECT_FALSE(item.contains("flashedAt"));

  const auto text = run({"library", "show", "1"});
  EXPECT_THAT(text.out, HasSubstr("frame rate  25 fps"));
  EXPECT_THAT(text.out, HasSubstr((libraryFolder() / "items/1/sea.mp4").string()));
  EXPECT_THAT(run({"library", "list"}).out, HasSubstr("   1  video  The Sea"));

  const auto again = run({"library", "add", video});
  EXPECT_EQ(again.status, ok);
  EXPECT_THAT(again.out, HasSubstr("already in the library as item 1"));
  expectOneLineError(run({"library", "show", "7"}), failed, "no item with id \"7\"");
}

// On a terminal, a progress line names the file and how far its check has got, and is
// cleared at the end; the results themselves go to standard output either way.
TEST_F(Library, ProgressShowsOnATerminalAndJsonNamesEachOutcome) {
  const auto first = clip("first.mp4", "3");
  writeText(folder / "media/notes.txt", "n");
  interactive = true;
  const auto shown = run({"library", "add", first, (folder / "media/notes.txt").string(), "--json"});
  EXPECT_EQ(shown.status, failed);  // one of them was refused
  EXPECT_THAT(shown.err, HasSubstr("[1/2] first.mp4"));
  EXPECT_THAT(shown.err, HasSubstr("[2/2] notes.txt"));
  EXPECT_THAT(shown.err, ::testing::EndsWith("\r\033[K"));
  const auto report = json::parse(shown.out).value();
  ASSERT_EQ(report.size(), 2U);
  EXPECT_EQ(report[0]["result"], "imported");
  EXPECT_EQ(report[0]["item"]["id"], "1");
  EXPECT_EQ(report[1]["result"], "refused");
  EXPECT_EQ(report[1]["reason"], "'.txt' is not a supported wallpaper type");
  const auto again = run({"library", "add", first, "--json"});
  EXPECT_EQ(again.status, ok);
  EXPECT_EQ(json::parse(again.out).value()[0]["existingID"], "1");
}

TEST_F(Library, ListFiltersByKindTagAndAccentBlindSearch) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4"), "--title", "Café at night"}).status, ok);
  ASSERT_EQ(run({"library", "add", make("b.png", {"-f", "lavfi", "-i", "testsrc2=s=64x64", "-frames:v", "1"})}).status,
            ok);
  ASSERT_EQ(run({"library", "set", "2", "tags=Städte,calm", "author=Zoë"}).status, ok);
  const auto ids = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"library", "list", "--json"});
    const auto outcome = run(arguments);
    EXPECT_EQ(outcome.status, ok) << outcome.err;
    std::vector<std::string> out;
    const auto items = json::parse(outcome.out).value_or(json::Json::array());
    for (const auto& item : items) {
      out.push_back(item["id"]);
    }
    return out;
  };
  EXPECT_THAT(ids({}), ElementsAre("1", "2"));
  EXPECT_THAT(ids({"--kind", "image"}), ElementsAre("2"));
  EXPECT_THAT(ids({"--search", "CAFE"}), ElementsAre("1"));
  EXPECT_THAT(ids({"--search", "stadte"}), ElementsAre("2"));
  EXPECT_THAT(ids({"--search", "zoe"}), ElementsAre("2"));
  EXPECT_THAT(ids({"--tag", "CALM"}), ElementsAre("2"));
  EXPECT_THAT(ids({"--search", "snow"}), ElementsAre());
  expectOneLineError(run({"library", "list", "--kind", "movie"}), badUsage, "--kind");
}

TEST_F(Library, SetTakesTheFieldNamesWithPlanPutsValueForms) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4")}).status, ok);
  const auto set = run({"library", "set", "1", "fit=fit", "crop=0.1,0.2,0.5,0.5", "crop@dell|1920x1080=0,0,0.5,1",
                        "trim=1.5:end", "mirrorHorizontal=true", "tags=a, b", "title=Renamed"});
  ASSERT_EQ(set.status, ok) << set.err;
  auto item = listed().at(0);
  EXPECT_EQ(item["fit"], "fit");
  EXPECT_EQ(item["crop"]["y"], 0.2);
  EXPECT_EQ(item["cropByMonitor"]["dell|1920x1080"]["width"], 0.5);
  EXPECT_EQ(item["trimStart"], 1.5);
  EXPECT_FALSE(item.contains("trimEnd"));
  EXPECT_EQ(item["mirrorHorizontal"], true);
  EXPECT_EQ(item["tags"], json::Json({"a", "b"}));
  EXPECT_EQ(item["title"], "Renamed");
  ASSERT_EQ(run({"library", "set", "1", "crop=", "crop@dell|1920x1080=", "trim=0.5:1"}).status, ok);
  item = listed().at(0);
  EXPECT_FALSE(item.contains("crop"));
  EXPECT_TRUE(item["cropByMonitor"].empty());
  EXPECT_EQ(item["trimEnd"], 1.0);

  const auto before = readText(libraryFolder() / "library.json");
  expectOneLineError(run({"library", "set", "1", "fit=zoom"}), badUsage, "fit");
  expectOneLineError(run({"library", "set", "1", "colour=red"}), badUsage, "colour: not a setting");
  expectOneLineError(run({"library", "set", "1", "sha256=abc"}), badUsage, "sha256: learned on import");
  expectOneLineError(run({"library", "set", "1", "crop=2,0,1,1"}), badUsage, "crop");
  expectOneLineError(run({"library", "set", "1", "trim=5:2"}), badUsage, "trim");
  expectOneLineError(run({"library", "set", "1", "title=\xff"}), badUsage, "title");
  expectOneLineError(run({"library", "set", "1", "novalue"}), badUsage, "KEY=VALUE");
  expectOneLineError(run({"library", "set", "9", "fit=fit"}), failed, "no item with id \"9\"");
  EXPECT_EQ(readText(libraryFolder() / "library.json"), before);
}

TEST_F(Library, AnUnreadableLibraryIsLeftExactlyAsItIs) {
  const std::string broken = "{\"items\": [ {\"id\": \"1\"";
  writeText(libraryFolder() / "library.json", broken);
  expectOneLineError(run({"library", "list"}), failed, "library.json is not a library");
  expectOneLineError(run({"library", "add", clip("a.mp4")}), failed, "left");
  expectOneLineError(run({"library", "remove", "1"}), failed, "left");
  expectOneLineError(run({"library", "set", "1", "fit=fit"}), failed, "left");
  EXPECT_EQ(readText(libraryFolder() / "library.json"), broken);
  EXPECT_FALSE(fs::exists(libraryFolder() / "items"));
}

TEST_F(Library, ABrokenRowIsReportedAndTheRestUsable) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4")}).status, ok);
  auto text = json::parse(readText(libraryFolder() / "library.json")).value();
  text["items"].push_back(json::Json{{"id", "5"}, {"kind", "video"}});
  writeText(libraryFolder() / "library.json", json::pretty(text));
  const auto listedNow = run({"library", "list"});
  EXPECT_EQ(listedNow.status, ok);
  EXPECT_THAT(listedNow.err,
              HasSubstr("note: " + (libraryFolder() / "library.json").string() + " item 2: relativePath: missing"));
  EXPECT_THAT(listedNow.out, HasSubstr("1 of 1 item(s)"));
  ASSERT_EQ(run({"library", "add", clip("b.mp4", "1")}).status, ok);
  // The new item did not take the broken row's id, and the row is still there, after the
  // items that could be read.
  const auto saved = json::parse(readText(libraryFolder() / "library.json")).value();
  EXPECT_EQ(saved["items"].size(), 3U);
  EXPECT_EQ(saved["items"][1]["id"], "6");
  EXPECT_EQ(saved["items"][2], (json::Json{{"id", "5"}, {"kind", "video"}}));
}

TEST_F(Library, VerifyMarksMissingFilesAndUnmarksThemWhenBack) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4")}).status, ok);
  const auto copy = libraryFolder() / "items/1/a.mp4";
  fs::rename(copy, folder / "aside.mp4");
  const auto gone = run({"library", "verify"});
  EXPECT_EQ(gone.status, ok) << gone.err;
  EXPECT_THAT(gone.out, HasSubstr("item 1 \"a\" is missing"));
  EXPECT_EQ(listed().at(0)["missing"], true);
  EXPECT_THAT(run({"library", "list"}).out, HasSubstr("missing"));
  fs::rename(folder / "aside.mp4", copy);
  EXPECT_THAT(run({"library", "verify"}).out, HasSubstr("item 1 \"a\" is back"));
  EXPECT_EQ(listed().at(0)["missing"], false);
  EXPECT_THAT(run({"library", "verify"}).out, HasSubstr("1 item(s), 0 missing"));
}

TEST_F(Library, RemoveTakesTheFilesAndTheContentsPingPongCopies) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4")}).status, ok);
  const auto sha = listed().at(0)["sha256"].get<std::string>();
  const auto cache = folder / "data/Korvalen/cache/pingpong";
  fs::create_directories(cache);
  writeText(cache / (sha.substr(0, 16) + "-0.00-end.mp4"), "copy");
  const auto removed = run({"library", "remove", "1"});
  ASSERT_EQ(removed.status, ok) << removed.err;
  EXPECT_THAT(removed.out, HasSubstr("removed item 1 \"a\" and its files"));
  EXPECT_THAT(removed.out, HasSubstr("deleted its ping-pong copy"));
  EXPECT_FALSE(fs::exists(libraryFolder() / "items/1"));
  EXPECT_TRUE(fs::is_empty(cache));
  EXPECT_TRUE(listed().empty());
  expectOneLineError(run({"library", "remove", "1"}), failed, "no item with id \"1\"");
}

TEST_F(Library, AFlashingImportIsRememberedInTheSettingsAndHeldInThePlan) {
  const auto strobe = make("strobe.mp4", {"-f", "lavfi", "-i",
                                          "color=c=black:s=160x120:r=30,format=gray,geq=lum='if(lt(mod(T\\,0.2)\\,0.1)"
                                          "\\,255\\,0)'",
                                          "-t", "2", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
  ASSERT_EQ(run({"library", "add", clip("calm.mp4")}).status, ok);
  // The app's own edit of the settings is kept by the merge.
  ASSERT_EQ(run({"settings", "set", (folder / "data/Korvalen/settings.json").string(), "power.fpsCap=24"}).status, ok);
  const auto added = run({"library", "add", strobe});
  ASSERT_EQ(added.status, ok) << added.err;
  EXPECT_THAT(added.out, HasSubstr("flashes (5 flashes/s at the peak)"));
  const auto settings = Settings::read(folder / "data/Korvalen/settings.json").settings;
  ASSERT_EQ(settings.flashingPaths.size(), 1U);
  EXPECT_EQ(settings.flashingPaths[0].path, (libraryFolder() / "items/2/strobe.mp4").string());
  EXPECT_EQ(settings.flashingPaths[0].peakFlashesPerSecond, 5);
  EXPECT_EQ(settings.power.fpsCap, 24);
  const auto item = listed().at(1);
  EXPECT_EQ(item["flashedAt"], "2026-11-22T10:00:00Z");
  EXPECT_EQ(item["flashPeakPerSecond"], 5);
  EXPECT_EQ(listed().at(0)["flashPeakPerSecond"], 0);
  EXPECT_FALSE(listed().at(0).contains("flashedAt"));

  ASSERT_EQ(run({"plan", "put", "--shared", "--item", "2"}).status, ok);
  ASSERT_EQ(
      run({"library", "set", "1", "fit=center", "crop@dell|1920x1080=0,0,0.5,1", "trim=0.5:1.5", "mirrorVertical=true"})
          .status,
      ok);
  ASSERT_EQ(run({"plan", "put", "--screen", "dell|1920x1080", "--item", "1", "--title", "Calm"}).status, ok);
  const auto plan = SaverPlan::read(planPath()).value();
  ASSERT_TRUE(plan.shared);
  EXPECT_EQ(plan.shared->path, (libraryFolder() / "items/2/strobe.mp4").string());
  EXPECT_TRUE(plan.shared->isHeld());
  EXPECT_EQ(plan.shared->title, "strobe");
  const auto& calm = plan.screens.at("dell|1920x1080");
  EXPECT_EQ(calm.fit, FitMode::center);
  EXPECT_EQ(calm.crop, (CropRect{0, 0, 0.5, 1}));
  EXPECT_EQ(calm.trimStart, 0.5);
  EXPECT_EQ(calm.trimEnd, 1.5);
  EXPECT_TRUE(calm.mirrorVertical);
  EXPECT_FALSE(calm.isHeld());
  EXPECT_EQ(calm.title, "Calm");
  expectOneLineError(run({"plan", "put", "--shared", "--item", "9"}), failed, "no item with id \"9\"");
  expectOneLineError(run({"plan", "put", "--shared", "--item", "1", "--fit", "fit"}), badUsage, "--item");
  expectOneLineError(run({"plan", "put", "--shared", "--kind", "video"}), badUsage, "--path");
}

TEST_F(Library, ThumbnailsAndTheContactSheet) {
  ASSERT_EQ(run({"library", "add", clip("a.mp4"),
                 make("tall.png", {"-f", "lavfi", "-i", "testsrc2=s=180x320", "-frames:v", "1"})})
                .status,
            ok);
  writeText(folder / "media/site/index.html", "<html></html>");
  ASSERT_EQ(run({"library", "add", (folder / "media/site").string()}).status, ok);
  const auto out = (folder / "thumb.png").string();
  const auto written = run({"library", "thumbnail", "2", "--out", out});
  ASSERT_EQ(written.status, ok) << written.err;
  EXPECT_THAT(written.out, HasSubstr("101x180"));
  EXPECT_TRUE(fs::exists(out));
  expectOneLineError(run({"library", "thumbnail", "3", "--out", out}), failed, "item 3 has no thumbnail");
  expectOneLineError(run({"library", "thumbnail", "2", "--out", "x.gif"}), badUsage, "--out");
  const auto sheet = (folder / "sheet.png").string();
  const auto made = run({"library", "sheet", "--out", sheet, "--columns", "2"});
  ASSERT_EQ(made.status, ok) << made.err;
  EXPECT_THAT(made.out, HasSubstr("3 item(s)"));
  const auto probe = engine::run(ffmpeg, {"-v", "error", "-i", sheet, "-f", "null", "-"});
  EXPECT_TRUE(probe && probe->exitCode == 0);
  expectOneLineError(run({"library", "sheet", "--out", sheet, "--search", "nothing"}), failed, "no items");
}

// The saver cannot run a page: a page put into the plan brings the picture that stands for it.
TEST_F(Library, APagePutInThePlanBringsItsStill) {
  writeText(folder / "media/site/index.html", "<html></html>");
  ASSERT_EQ(run({"library", "add", (folder / "media/site").string()}).status, ok);
  const auto still = libraryFolder() / "items/1/still.png";
  if (!fs::exists(still)) {
    writeText(still, "a picture");  // as import makes it where a page can be shown
  }
  ASSERT_EQ(run({"plan", "put", "--shared", "--item", "1"}).status, ok);
  const auto plan = SaverPlan::read(planPath()).value();
  ASSERT_TRUE(plan.shared);
  EXPECT_EQ(plan.shared->kind, WallpaperKind::web);
  EXPECT_EQ(plan.shared->still, still.string());
  // One given by hand wins.
  ASSERT_EQ(run({"plan", "put", "--shared", "--item", "1", "--still", (folder / "mine.png").string()}).status, ok);
  EXPECT_EQ(SaverPlan::read(planPath()).value().shared->still, (folder / "mine.png").string());
}

// Killed at any moment, an import leaves the library as it was or with the whole item, and
// the next command leaves no file that no item owns.
TEST_F(Library, KillNineDuringImportsLeavesNoHalfItem) {
  const auto first = clip("first.mp4");
  ASSERT_EQ(run({"library", "add", first}).status, ok);
  const auto big = clip("big.mp4", "8");
  const auto variables = "XDG_DATA_HOME=" + environment["XDG_DATA_HOME"];
  const auto started = std::chrono::steady_clock::now();
  ASSERT_EQ(engine::run("/usr/bin/env", {variables, KORVALEN_EXECUTABLE, "library", "add", big})->exitCode, ok);
  const auto whole = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(run({"library", "remove", "2"}).status, ok);

  for (int attempt = 1; attempt <= 6; ++attempt) {
    auto child = engine::ChildProcess::start("/usr/bin/env", {variables, KORVALEN_EXECUTABLE, "library", "add", big});
    ASSERT_TRUE(child) << child.error();
    std::this_thread::sleep_for(whole * attempt / 6);
    ::kill(child->pid(), SIGKILL);
    std::string output;
    std::string error;
    child->wait(output, error);

    const auto items = listed();  // settles what the killed import left
    ASSERT_TRUE(items.is_array()) << "attempt " << attempt;
    std::set<std::string> owned;
    for (const auto& item : items) {
      owned.insert(item["id"].get<std::string>());
      EXPECT_TRUE(fs::exists(libraryFolder() / item["relativePath"].get<std::string>())) << "attempt " << attempt;
    }
    EXPECT_TRUE(owned.contains("1"));
    EXPECT_FALSE(fs::exists(libraryFolder() / "incoming")) << "attempt " << attempt;
    EXPECT_FALSE(fs::exists(libraryFolder() / "outgoing")) << "attempt " << attempt;
    for (const auto& entry : fs::directory_iterator(libraryFolder() / "items")) {
      EXPECT_TRUE(owned.contains(entry.path().filename().string()))
          << "attempt " << attempt << ": " << entry.path() << " belongs to no item";
    }
    for (const auto& entry : fs::directory_iterator(libraryFolder())) {
      EXPECT_THAT(entry.path().filename().string(), Not(HasSubstr(".tmp-"))) << "attempt " << attempt;
    }
    if (owned.size() > 1) {
      ASSERT_EQ(run({"library", "remove", *owned.rbegin()}).status, ok);
    }
  }
}

// Ctrl-C stops an import cleanly: the file under way leaves nothing, one line says so.
TEST_F(Library, CtrlCStopsAnImportAndLeavesNoHalfItem) {
  const auto big = clip("long.mp4", "30");
  auto child = engine::ChildProcess::start(
      "/usr/bin/env", {"XDG_DATA_HOME=" + environment["XDG_DATA_HOME"], KORVALEN_EXECUTABLE, "library", "add", big});
  ASSERT_TRUE(child) << child.error();
  // Interrupt once the item is being built (its staging folder is there).
  for (int wait = 0; wait < 400 && !fs::exists(libraryFolder() / "incoming"); ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(child->pid(), SIGINT);
  std::string output;
  std::string error;
  const int status = child->wait(output, error);
  if (output.find("imported") != std::string::npos) {
    GTEST_SKIP() << "the import finished before Ctrl-C reached it";
  }
  EXPECT_EQ(status, failed) << error;
  EXPECT_THAT(output, HasSubstr("stopped at " + big + ": nothing of it was added"));
  EXPECT_THAT(error, HasSubstr("stopped by Ctrl-C"));
  EXPECT_FALSE(fs::exists(libraryFolder() / "incoming"));
  EXPECT_TRUE(listed().empty());
  EXPECT_FALSE(fs::exists(libraryFolder() / "items/1"));
}

TEST_F(Library, CheckStillSaysWhatImportWouldDo) {
  const auto file = clip("a.mp4");
  ASSERT_EQ(run({"library", "add", file}).status, ok);
  const auto checked = run({"library", "check", file, "--library", (libraryFolder() / "library.json").string()});
  EXPECT_EQ(checked.status, ok) << checked.err;
  EXPECT_THAT(checked.out, HasSubstr("duplicate of 1"));
}

}  // namespace
}  // namespace korvalen::cli
