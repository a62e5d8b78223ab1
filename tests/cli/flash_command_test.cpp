#include "cli/cli_fixture.hpp"
#include "core/support/json.hpp"
#include "engine/process.hpp"

namespace korvalen::cli {
namespace {

// Clips made by ffmpeg's own sources, checked by the real `flash check`.
class FlashCheck : public Cli {
 protected:
  void SetUp() override { ffmpeg = systemFfmpeg(); }

  // A grey-level clip whose luminance follows `expression` (ffmpeg's geq, over X, Y, T, N).
  std::string clip(const std::string& name, const std::string& expression, const std::string& size = "160x120",
                   const std::string& rate = "30", const std::string& seconds = "3") {
    const auto path = (folder / name).string();
    std::vector<std::string> arguments{
        "-v",    "error", "-f",
        "lavfi", "-i",    "color=c=black:s=" + size + ":r=" + rate + ",format=gray,geq=lum='" + expression + "'",
        "-t",    seconds};
    if (name.ends_with(".mp4")) {
      arguments.insert(arguments.end(), {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    }
    arguments.push_back(path);
    const auto made = engine::run(ffmpeg, arguments);
    EXPECT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
    return path;
  }

  std::filesystem::path ffmpeg;
};

// Black and white every 0.1 s: five flashes a second.
const std::string fiveHertz = "if(lt(mod(T\\,0.2)\\,0.1)\\,255\\,0)";

TEST_F(FlashCheck, AFiveHertzFullFrameFlashTrips) {
  const auto file = clip("flash5.mp4", fiveHertz);
  const auto outcome = run({"flash", "check", file});
  EXPECT_EQ(outcome.status, failed) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("flash5.mp4: flashes \u2014 peak 5 flashes/s; over the limit first at 0.9"));
  EXPECT_THAT(outcome.out, HasSubstr("analysed 90 frame(s) (video, 160x120)"));
}

TEST_F(FlashCheck, SlowFlashesAndACalmClipDoNot) {
  const auto slow = clip("flash15.mp4", "if(lt(mod(T\\,0.6667)\\,0.3333)\\,255\\,0)");
  const auto outcome = run({"flash", "check", slow, "--json"});
  EXPECT_EQ(outcome.status, ok) << outcome.err;
  const auto report = json::Json::parse(outcome.out);
  EXPECT_EQ(report["flashes"], false);
  EXPECT_EQ(report["peakFlashesPerSecond"], 2);
  EXPECT_EQ(report["frames"], 90);
  EXPECT_TRUE(report["firstViolationSeconds"].is_null());

  // A relative name ffmpeg would otherwise take for a protocol ("calm:").
  std::filesystem::rename(clip("calm.mp4", "128+100*sin(T)"), folder / "calm: take 1.mp4");
  const korvalen::testing::CurrentFolder inFolder(folder.path());
  EXPECT_EQ(run({"flash", "check", "calm: take 1.mp4"}).status, ok);
}

TEST_F(FlashCheck, PlayedFasterSlowFlashesTrip) {
  // Six seconds, so that the fast replay still holds a full second of edges.
  const auto slow = clip("flash15.mp4", "if(lt(mod(T\\,0.6667)\\,0.3333)\\,255\\,0)", "160x120", "30", "6");
  EXPECT_EQ(run({"flash", "check", slow}).status, ok);
  EXPECT_EQ(run({"flash", "check", slow, "--rate", "3"}).status, failed);
}

TEST_F(FlashCheck, ASmallFlashingCornerTripsOnlyWhenTheRegionCoversIt) {
  const auto file = clip("corner.mp4", "if(lt(X\\,20)*lt(Y\\,20)*lt(mod(T\\,0.2)\\,0.1)\\,255\\,0)");
  EXPECT_EQ(run({"flash", "check", file}).status, ok);
  EXPECT_EQ(run({"flash", "check", file, "--region", "0,0,0.125,0.1667"}).status, failed);
  EXPECT_EQ(run({"flash", "check", file, "--region", "0.5,0.5,0.5,0.5"}).status, ok);
  EXPECT_EQ(run({"flash", "check", file, "--region", "0,0,0.125,0.1667", "--step", "4"}).status, failed);
}

TEST_F(FlashCheck, AnAnimatedGifIsJudgedAsALoop) {
  const auto gif = clip("flash.gif", "if(lt(mod(N\\,2)\\,1)\\,255\\,0)", "64x64", "10", "1");
  const auto outcome = run({"flash", "check", gif, "--json"});
  EXPECT_EQ(outcome.status, failed) << outcome.err;
  const auto report = json::Json::parse(outcome.out);
  EXPECT_EQ(report["kind"], "animation");
  EXPECT_EQ(report["peakFlashesPerSecond"], 5);
  // Half as fast, the same loop stays under the limit.
  EXPECT_EQ(run({"flash", "check", gif, "--rate", "0.5"}).status, ok);
}

TEST_F(FlashCheck, UnreadableFilesAndBadArgumentsAreOneLine) {
  korvalen::testing::writeText(folder / "notes.txt", "not a video");
  expectOneLineError(run({"flash", "check", (folder / "notes.txt").string()}), failed,
                     "notes.txt: it is not a video or picture that can be read");
  expectOneLineError(run({"flash", "check", (folder / "missing.mp4").string()}), failed,
                     "missing.mp4: there is no such file");
  expectOneLineError(run({"flash", "check", "x.mp4", "--step", "0"}), badUsage, "--step");
  expectOneLineError(run({"flash", "check", "x.mp4", "--region", "0,0,2,1"}), badUsage, "--region");
  // Decoded in-process: no ffmpeg executable is needed.
  const auto calm = clip("calm.mp4", "128+100*sin(T)");
  environment["PATH"] = (folder / "empty").string();
  EXPECT_EQ(run({"flash", "check", calm}).status, ok);
}

}  // namespace
}  // namespace korvalen::cli
