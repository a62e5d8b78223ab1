#include "cli/cli_fixture.hpp"
#include "core/support/json.hpp"
#include "engine/process.hpp"

namespace korvalen::cli {
namespace {

using korvalen::testing::writeText;

TEST_F(Cli, TransitionsListAndFrame) {
  const auto list = run({"transitions", "list"});
  EXPECT_THAT(list.out, HasSubstr("slideLeft         Slide to the left       moving\n"));
  EXPECT_THAT(list.out, HasSubstr("wipeUp            Wipe from the bottom    still\n"));
  const auto frame = json::Json::parse(
      run({"transitions", "frame", "fadethroughblack", "--progress", "0.5", "--size", "1920x1080", "--json"}).out);
  EXPECT_EQ(frame["id"], "fadeThroughBlack");
  EXPECT_EQ(frame["covered"], 0.0);
  EXPECT_EQ(frame["incoming"]["clip"]["width"], 1920.0);
  EXPECT_THAT(run({"transitions", "frame", "slideLeft", "--progress", "0.3", "--size", "1920x1080"}).out,
              HasSubstr("covered 1, incoming visible 0.216, outgoing visible 0.784"));
  expectOneLineError(run({"transitions", "frame", "swirl", "--progress", "0.5", "--size", "10x10"}), badUsage,
                     "no transition named \"swirl\"");
  expectOneLineError(run({"transitions", "frame", "zoomIn", "--progress", "2", "--size", "10x10"}), badUsage,
                     "--progress");
}

TEST_F(Cli, TransitionsRenderWritesAPlayableFile) {
  systemFfmpeg();
  const auto out = (folder / "zoom.gif").string();
  const auto outcome =
      run({"transitions", "render", "zoomIn", "--size", "64x36", "--seconds", "0.5", "--fps", "10", "--out", out});
  ASSERT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("5 frames at 10 fps"));
  const auto ffprobe = engine::findExecutable("ffprobe", environment["PATH"]);
  ASSERT_TRUE(ffprobe.has_value());
  const auto probe = engine::run(*ffprobe, {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                                            "stream=width,height,nb_read_frames", "-of", "csv=p=0", out});
  ASSERT_TRUE(probe.has_value());
  EXPECT_EQ(probe->output, "64,36,5\n");
  expectOneLineError(run({"transitions", "render", "zoomIn", "--size", "64x36", "--out", "x.avi"}), badUsage, "--out");
}

TEST_F(Cli, LibraryCheckDecidesEachPath) {
  writeText(folder / "Sea at dusk.MP4", "video bytes");
  writeText(folder / "Copy.mov", "video bytes");
  writeText(folder / "notes.txt", "text");
  std::filesystem::create_directories(folder / "site");
  writeText(folder / "site/index.html", "<html>");
  // The held item's hash is that of "video bytes" (computed elsewhere), in capitals.
  writeText(folder / "library.json", R"([{"id":"held-1","kind":"video","relativePath":"items/held-1/a.mp4",
    "title":"A","sha256":"96B050B919F3FCA2FC8B6923537136A197AD13C583BEB1438D1A12CCBC999C42"}, {"id":"broken"}])");
  const auto outcome = run({"library", "check", (folder / "Copy.mov").string(), (folder / "notes.txt").string(),
                            (folder / "site").string(), (folder / "missing.mov").string(), "--size", "1080x1920",
                            "--json", "--library", (folder / "library.json").string()});
  ASSERT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_THAT(outcome.err, HasSubstr("item 1 skipped: kind: missing"));
  const auto report = json::Json::parse(outcome.out);
  EXPECT_EQ(report[0]["sha256"], "96b050b919f3fca2fc8b6923537136a197ad13c583beb1438d1a12ccbc999c42");
  EXPECT_EQ(report[0]["decision"], "duplicate of held-1");
  EXPECT_EQ(report[0]["defaultFit"], "fit");
  EXPECT_EQ(report[1]["decision"], "rejected: '.txt' is not a supported wallpaper type");
  EXPECT_EQ(report[2]["kind"], "web");
  EXPECT_EQ(report[2]["relativePath"], json::Json::parse(R"(["items","NEW-ID","index.html"])"));
  EXPECT_EQ(report[2]["decision"], "would be imported");
  EXPECT_EQ(report[3]["decision"], "rejected: file not found");

  const auto text = run({"library", "check", (folder / "Sea at dusk.MP4").string()});
  EXPECT_THAT(text.out, HasSubstr("kind video, title \"Sea at dusk\", stored as items/NEW-ID/Sea at dusk.MP4\n"
                                  "  would be imported\n"));
  writeText(folder / "run.sh", "#!/bin/sh\n");
  EXPECT_THAT(run({"library", "check", (folder / "run.sh").string()}).out,
              HasSubstr("refused: not something the library may hold"));
}

TEST_F(Cli, RedactFiltersStandardInputAndFiles) {
  input = R"({"apiToken": "abc123"} https://x.io/v?key=AbCdEf123456)";
  EXPECT_EQ(run({"redact"}).out, R"({"apiToken": "<set, 6 chars>"} https://x.io/v?key=<redacted>)");
  writeText(folder / "log.txt", "token=12345678 token=1234567\n");
  EXPECT_EQ(run({"redact", (folder / "log.txt").string()}).out, "token=<redacted> token=1234567\n");
  expectOneLineError(run({"redact", (folder / "none.txt").string()}), failed, "none.txt");
}

}  // namespace
}  // namespace korvalen::cli
