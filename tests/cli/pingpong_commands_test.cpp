#include "cli/cli_fixture.hpp"
#include "core/support/json.hpp"
#include "engine/process.hpp"
#include "support/clips.hpp"

#include <csignal>
#include <fstream>
#include <thread>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;

class PingPongCommands : public Cli {
 protected:
  void SetUp() override {
    ffmpeg = systemFfmpeg();
    environment["TMPDIR"] = (folder / "tmp").string();
    fs::create_directories(folder / "tmp");
  }

  static std::string lastLine(const std::string& text) {
    const auto end = text.find_last_not_of('\n');
    const auto start = text.rfind('\n', end);
    return text.substr(start == std::string::npos ? 0 : start + 1,
                       end - (start == std::string::npos ? 0 : start + 1) + 1);
  }

  fs::path ffmpeg;
};

TEST_F(PingPongCommands, AssessCutsARealClip) {
  const auto clip = (folder / "clip.mp4").string();
  const auto made = engine::run(ffmpeg, {"-v", "error", "-f", "lavfi", "-i", "testsrc2=s=320x240:r=25", "-t", "4",
                                         "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", clip});
  ASSERT_TRUE(made && made->exitCode == 0);
  // 320×240 at 25 fps is 2 880 000 bytes a second; a 9 600 000-byte budget allows 2 s segments.
  const auto outcome = run({"pingpong", "assess", clip, "--trim", "0.5:end", "--budget", "9600000", "--json"});
  ASSERT_EQ(outcome.status, ok) << outcome.err;
  const auto plan = json::Json::parse(outcome.out);
  EXPECT_EQ(plan["sourceSeconds"], 3.5);
  EXPECT_EQ(plan["segmentSeconds"], 2.0);
  EXPECT_EQ(plan["segmentCount"], 2);
  EXPECT_EQ(plan["fps"], 25.0);
  EXPECT_THAT(run({"pingpong", "assess", clip}).out, HasSubstr("allowed: 1 segment(s) of 4 s"));
  korvalen::testing::writeText(folder / "broken.mp4", "not a video");
  expectOneLineError(run({"pingpong", "assess", (folder / "broken.mp4").string()}), failed,
                     "could not be read all the way through");
  expectOneLineError(run({"pingpong", "assess", clip, "--budget", "0"}), badUsage, "--budget");
}

TEST_F(PingPongCommands, BuildThenReuseThenListAndTrimTheCache) {
  const auto clip = folder / "count.mp4";
  korvalen::testing::makeNumberedClip(ffmpeg, clip, 30, 10);
  const auto cache = (folder / "Korvalen").string();
  const std::vector<std::string> build{"pingpong", "build",  clip.string(), "--cache", cache,
                                       "--budget", "100000", "--trim",      "0.5:end"};

  const auto built = run(build);
  ASSERT_EQ(built.status, ok) << built.err;
  EXPECT_THAT(built.out, HasSubstr("pingpong: 2.500 s at 10.000 fps, 2 segment(s) of 2.000 s, window from 0.500 s\n"
                                   "Built with libx264 in 2 segment(s).\n"));
  const fs::path output = lastLine(built.out);
  EXPECT_THAT(output.string(), EndsWith("-0.50-end.mp4"));
  EXPECT_EQ(korvalen::testing::frameNumbers(ffmpeg, output).size(), 49U);
  EXPECT_TRUE(fs::is_empty(folder / "tmp"));

  const auto again = run(build);
  EXPECT_EQ(again.out, "Using the copy built before.\n" + output.string() + "\n");

  const auto listed = run({"pingpong", "cache", "--cache", cache});
  EXPECT_THAT(listed.out, HasSubstr("1 cached copy(ies)"));
  EXPECT_THAT(listed.out, HasSubstr(output.filename().string()));
  const auto trimmed = json::Json::parse(run({"pingpong", "cache", "--cache", cache, "--trim-to", "0", "--json"}).out);
  EXPECT_EQ(trimmed["removed"], json::Json::array({output.string()}));
  EXPECT_EQ(trimmed["copies"], json::Json::array());
  EXPECT_FALSE(fs::exists(output));
  EXPECT_THAT(run({"pingpong", "cache", "--cache", cache}).out, StartsWith("No reversed copies are cached in "));
}

TEST_F(PingPongCommands, BadInputIsOneLineNamingWhatIsWrong) {
  const auto clip = (folder / "count.mp4").string();
  korvalen::testing::makeNumberedClip(ffmpeg, clip, 10, 10);
  const auto cache = (folder / "Korvalen").string();
  expectOneLineError(run({"pingpong", "build", (folder / "none.mp4").string(), "--cache", cache}), failed,
                     "none.mp4: That clip is no longer on disk.");
  expectOneLineError(run({"pingpong", "build", clip, "--budget", "-1"}), badUsage, "--budget");
  expectOneLineError(run({"pingpong", "build", clip, "--trim", "3:1"}), badUsage, "--trim");
  expectOneLineError(run({"pingpong", "build", clip, "--encoder", ","}), badUsage, "--encoder");
  expectOneLineError(run({"pingpong", "build", clip, "--cache", cache, "--encoder", "korvalen_no_such_encoder"}),
                     failed, "count.mp4: This Mac could not encode the reversed copy");
  korvalen::testing::writeText(folder / "broken.mp4", std::string(2048, 'x'));
  expectOneLineError(run({"pingpong", "build", (folder / "broken.mp4").string(), "--cache", cache}), failed,
                     "broken.mp4: This clip could not be read all the way through");
  expectOneLineError(run({"pingpong", "cache", "--cache", cache, "--trim-to", "lots"}), badUsage, "--trim-to");
  EXPECT_TRUE(fs::is_empty(folder / "tmp"));
  EXPECT_FALSE(fs::exists(folder / "Korvalen/cache/pingpong")) << "nothing was built";
}

// Processes whose command line mentions `text`: to find a stray ffmpeg.
std::vector<std::string> processesMentioning(const std::string& text) {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "cmdline", std::ios::binary);
    const std::string line((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (line.find(text) != std::string::npos) {
      found.push_back(entry.path().filename().string());
    }
  }
  return found;
}

// The real executable, interrupted the way a terminal does it.
TEST_F(PingPongCommands, CtrlCCancelsCleanly) {
  const auto clip = (folder / "long.mp4").string();
  const auto made = engine::run(ffmpeg, {"-v", "error", "-f", "lavfi", "-i", "testsrc2=s=640x360:r=30", "-t", "20",
                                         "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", clip});
  ASSERT_TRUE(made && made->exitCode == 0);
  const auto temporary = (folder / "tmp").string();
  auto child = engine::ChildProcess::start(
      "/usr/bin/env", {"TMPDIR=" + temporary, KORVALEN_EXECUTABLE, "pingpong", "build", clip, "--cache",
                       (folder / "Korvalen").string(), "--ffmpeg", ffmpeg.string()});
  ASSERT_TRUE(child.has_value()) << child.error();

  // Interrupt once ffmpeg is writing the forward part.
  std::string output;
  std::string error;
  const auto started = [&] {
    for (const auto& entry : fs::directory_iterator(temporary)) {
      if (fs::exists(entry.path() / "fwd.mp4")) {
        return true;
      }
    }
    return false;
  };
  while (!started() && child->pump(output, error, std::chrono::milliseconds(10))) {
  }
  ASSERT_TRUE(started()) << error;
  ::kill(child->pid(), SIGINT);
  EXPECT_EQ(child->wait(output, error), failed);
  EXPECT_EQ(error, "korvalen: " + clip + ": The reversed copy was cancelled.\n");
  EXPECT_EQ(output, "");
  EXPECT_TRUE(fs::is_empty(temporary));
  EXPECT_THAT(processesMentioning(temporary), ElementsAre()) << "ffmpeg was left running";
  EXPECT_FALSE(fs::exists(folder / "Korvalen/cache/pingpong") && !fs::is_empty(folder / "Korvalen/cache/pingpong"));
}

}  // namespace
}  // namespace korvalen::cli
