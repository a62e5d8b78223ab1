#include "cli/cli_fixture.hpp"
#include "core/planning/saver_plan.hpp"
#include "engine/media_decoder.hpp"
#include "engine/process.hpp"

namespace korvalen::cli {
namespace {

class SaverCommand : public Cli {
 protected:
  void SetUp() override { ffmpeg = systemFfmpeg(); }
  std::filesystem::path ffmpeg;
};

TEST_F(SaverCommand, HeadlessWritesFramesByItsOwnClockAndTheControllersLines) {
  const auto clip = (folder / "orange.mp4").string();
  const auto made = engine::run(ffmpeg, {"-v", "error", "-f", "lavfi", "-i", "color=c=orange:s=64x36:r=10", "-t", "2",
                                         "-c:v", "libx264", "-pix_fmt", "yuv444p", clip});
  ASSERT_TRUE(made && made->exitCode == 0);
  ASSERT_EQ(run({"plan", "put", "--shared", "--kind", "video", "--path", clip, "--fit", "fit"}).status, ok);
  const auto frames = folder / "frames";
  const auto outcome =
      run({"saver", "--headless", "--size", "80x40", "--seconds", "1.2", "--fps", "5", "--out", frames.string()});
  ASSERT_EQ(outcome.status, ok) << outcome.err;
  EXPECT_EQ(outcome.out, "wrote 6 frame(s) of 80x40 at 5 fps to " + frames.string() + "\n");
  EXPECT_THAT(outcome.err, HasSubstr("] screen display-0|80x40 -> orange.mp4 fit=fit"));
  EXPECT_THAT(outcome.err, HasSubstr("] stopped: stopAnimation"));
  ASSERT_TRUE(std::filesystem::exists(frames / "frame-00005.png"));
  EXPECT_FALSE(std::filesystem::exists(frames / "frame-00006.png"));
  // The written frame: the clip fitted, 16:9 in 2:1, with black bars at the sides.
  auto decoder = engine::MediaDecoder::open(frames / "frame-00003.png");
  ASSERT_TRUE(decoder.has_value()) << decoder.error();
  engine::DecodedFrame frame;
  ASSERT_EQ((*decoder)->next(frame), true);
  ASSERT_EQ(frame.width, 80);
  const auto at = [&](int x, int y) { return frame.pixels.data() + (y * frame.stride() + x * 4); };
  EXPECT_NEAR(at(40, 20)[2], 255, 8);  // orange: red high, green about 165, blue low
  EXPECT_NEAR(at(40, 20)[1], 165, 8);
  EXPECT_LE(at(1, 20)[2], 2) << "the bar left of the picture is black";

  const auto movie = folder / "run.mp4";
  ASSERT_EQ(run({"saver", "--headless", "--size", "64x32", "--seconds", "1", "--out", movie.string(), "--screen",
                 "dell|64x32"})
                .status,
            ok);
  auto watched = engine::MediaDecoder::open(movie);
  ASSERT_TRUE(watched.has_value()) << watched.error();
  EXPECT_EQ((*watched)->info().width, 64);
}

TEST_F(SaverCommand, BadArgumentsAndAMissingPlanAreOneLine) {
  expectOneLineError(run({"saver", "--size", "8x8", "--seconds", "1", "--out", "x"}), badUsage, "--headless");
  expectOneLineError(run({"saver", "--headless", "--size", "0x8", "--seconds", "1", "--out", "x"}), badUsage, "--size");
  expectOneLineError(run({"saver", "--headless", "--size", "8x8", "--seconds", "-1", "--out", "x"}), badUsage,
                     "--seconds");
  expectOneLineError(run({"saver", "--headless", "--size", "8x8", "--seconds", "1", "--fps", "0", "--out", "x"}),
                     badUsage, "--fps");
  // No plan: black frames, and the line that says so.
  const auto outcome = run({"saver", "--headless", "--size", "8x8", "--seconds", "0.2", "--out",
                            (folder / "black").string(), "--plan", (folder / "none.json").string()});
  EXPECT_EQ(outcome.status, ok);
  EXPECT_THAT(outcome.err, HasSubstr("error: ["));
  EXPECT_THAT(outcome.err, HasSubstr("] no plan at " + (folder / "none.json").string() + ": black"));
}

// The display server: --backend, else WAYLAND_DISPLAY, else DISPLAY, else one line naming both
// (which wins when both are set is tried on a real compositor).
TEST_F(SaverCommand, TheDisplayServerIsTheOneAskedForElseTheOneTheEnvironmentNames) {
  environment.erase("DISPLAY");
  environment.erase("WAYLAND_DISPLAY");
  for (const auto& command : std::vector<std::vector<std::string>>{{"screens"}, {"wallpaper"}}) {
    const auto outcome = run(command);
    expectOneLineError(outcome, failed, "WAYLAND_DISPLAY");
    EXPECT_THAT(outcome.err, HasSubstr("DISPLAY (X11)")) << command.front();
    expectOneLineError(run({command.front(), "--backend", "mir"}), badUsage, "--backend: \"mir\"");
  }
  expectOneLineError(run({"wallpaper", "--layer", "top"}), badUsage, "--layer");
  expectOneLineError(run({"wallpaper", "--placement", "background"}), badUsage, "--placement");
}

}  // namespace
}  // namespace korvalen::cli
