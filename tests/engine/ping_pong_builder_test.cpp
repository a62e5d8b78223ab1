#include "engine/ping_pong_builder.hpp"

#include "core/support/json.hpp"
#include "engine/file_hash.hpp"
#include "support/clips.hpp"
#include "support/param_name.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <limits>
#include <memory>

namespace korvalen::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
namespace fs = std::filesystem;

constexpr double toTheEnd = std::numeric_limits<double>::infinity();
// At 64×48 and 10 fps a segment of the 2-second minimum (20 frames) fills this budget.
constexpr std::int64_t smallBudget = 100'000;

// What a loop of frames first..last should hold: forwards, then back without repeating the
// turn frame.
std::vector<int> expectedLoop(int first, int last) {
  std::vector<int> frames;
  for (int i = first; i <= last; ++i) {
    frames.push_back(i);
  }
  for (int i = last - 1; i >= first; --i) {
    frames.push_back(i);
  }
  return frames;
}

class PingPongBuild : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    clips_ = std::make_unique<korvalen::testing::TempFolder>();
    korvalen::testing::makeNumberedClip(korvalen::testing::ffmpegOnPath(), *clips_ / "count50.mp4", 50, 10);
  }
  static void TearDownTestSuite() { clips_.reset(); }

  PingPongBuilder::Request request(const fs::path& source) {
    PingPongBuilder::Request made;
    made.source = source;
    const auto hash = sha256OfFile(source);
    made.sha256 = hash.value_or("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
    made.cacheRoot = folder / "Korvalen";
    made.ffmpeg = ffmpeg;
    made.temporaryFolder = folder / "tmp";
    made.clock = [] { return *ISO8601::plain().parse("2026-11-22T10:00:00Z"); };
    fs::create_directories(made.temporaryFolder);
    return made;
  }

  PingPongBuilder::Result build(const PingPongBuilder::Request& made, const std::stop_token& stop = {}) {
    PingPongBuilder::Hooks hooks;
    hooks.log = [this](std::string_view line) { logged.emplace_back(line); };
    hooks.progress = [this](double fraction) { progress.push_back(fraction); };
    return PingPongBuilder::build(made, stop, hooks);
  }

  // Nothing of a build remains but, on success, the copy and its manifest.
  void expectNothingLeftBehind() const {
    EXPECT_TRUE(fs::is_empty(folder / "tmp")) << "the working folder was left";
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(folder / "Korvalen/cache/pingpong", missing)) {
      const auto name = entry.path().filename().string();
      EXPECT_FALSE(name.starts_with(".")) << "a partial file was left: " << name;
    }
  }

  static fs::path clip(const std::string& name) { return *clips_ / name; }

  korvalen::testing::TempFolder folder;
  fs::path ffmpeg = korvalen::testing::ffmpegOnPath();
  std::vector<std::string> logged;
  std::vector<double> progress;
  static std::unique_ptr<korvalen::testing::TempFolder> clips_;
};

std::unique_ptr<korvalen::testing::TempFolder> PingPongBuild::clips_;

struct LoopCase {
  std::string name;
  double trimStart;
  double trimEnd;
  std::int64_t budget;
  std::int64_t segments;
  int firstFrame;
  int lastFrame;
  std::string logLine;
};

class PingPongLoops : public PingPongBuild, public ::testing::WithParamInterface<LoopCase> {};

// clang-format off
INSTANTIATE_TEST_SUITE_P(FrameExact, PingPongLoops, ::testing::Values(
  LoopCase{"WholeClipInOneSegment", 0, toTheEnd, PingPongBuilder::defaultMemoryBudgetBytes, 1, 0, 49,
           "pingpong: 5.000 s at 10.000 fps, 1 segment(s) of 5.000 s"},
  LoopCase{"WholeClipInThreeSegments", 0, toTheEnd, smallBudget, 3, 0, 49,
           "pingpong: 5.000 s at 10.000 fps, 3 segment(s) of 2.000 s"},
  LoopCase{"TrimmedWindowInTwoSegments", 1.0, 3.5, smallBudget, 2, 10, 34,
           "pingpong: 2.500 s at 10.000 fps, 2 segment(s) of 2.000 s, window from 1.000 s"},
  LoopCase{"WindowOpenToTheEnd", 2.0, toTheEnd, PingPongBuilder::defaultMemoryBudgetBytes, 1, 20, 49,
           "pingpong: 3.000 s at 10.000 fps, 1 segment(s) of 3.000 s, window from 2.000 s"},
  // The last segment holds only the turn frame, which it drops: an empty part.
  LoopCase{"LastSegmentIsOnlyTheTurnFrame", 0, 2.1, smallBudget, 2, 0, 20,
           "pingpong: 2.100 s at 10.000 fps, 2 segment(s) of 2.000 s, window from 0.000 s"}
), korvalen::testing::ByName{});
// clang-format on

TEST_P(PingPongLoops, HoldTheWindowForwardsThenBackwardsWithoutDoublingTheTurn) {
  const auto& param = GetParam();
  auto made = request(clip("count50.mp4"));
  made.trimStart = param.trimStart;
  made.trimEnd = param.trimEnd;
  made.memoryBudgetBytes = param.budget;
  const auto result = build(made);

  ASSERT_EQ(result.problem, std::nullopt);
  ASSERT_TRUE(result.output.has_value());
  EXPECT_EQ(*result.output, PingPong::cachePath(made.cacheRoot, made.sha256, made.trimStart, made.trimEnd));
  EXPECT_EQ(result.segments, param.segments);
  EXPECT_EQ(result.encoder, std::optional<std::string>("libx264"));
  EXPECT_EQ(korvalen::testing::frameNumbers(ffmpeg, *result.output), expectedLoop(param.firstFrame, param.lastFrame));
  EXPECT_THAT(logged, ElementsAre(param.logLine));

  ASSERT_FALSE(progress.empty());
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_GE(progress.front(), 0.0);
  EXPECT_EQ(progress.back(), 1.0);

  const auto manifest = PingPongBuilder::readManifest(*result.output);
  ASSERT_TRUE(manifest.has_value());
  EXPECT_EQ(manifest->schemaVersion, 3);
  EXPECT_EQ(manifest->sourceSha256, made.sha256);
  EXPECT_EQ(manifest->sourceLengthBytes, static_cast<std::int64_t>(fs::file_size(made.source)));
  EXPECT_EQ(manifest->encoder, "libx264");
  EXPECT_EQ(manifest->builtUtc, made.clock());
  EXPECT_EQ(manifest->outputBytes, static_cast<std::int64_t>(fs::file_size(*result.output)));
  EXPECT_EQ(PingPongBuilder::findUsable(made.cacheRoot, made.source, made.sha256, made.trimStart, made.trimEnd),
            result.output);
  expectNothingLeftBehind();
}

TEST_F(PingPongBuild, FallsBackAlongTheEncoderChainAndSticksToTheEncoderThatWorked) {
  auto made = request(clip("count50.mp4"));
  made.trimStart = 1.0;
  made.trimEnd = 3.5;
  made.memoryBudgetBytes = smallBudget;
  made.encoders = {"korvalen_no_such_encoder", "mpeg4"};
  const auto result = build(made);
  ASSERT_EQ(result.problem, std::nullopt);
  EXPECT_EQ(result.encoder, std::optional<std::string>("mpeg4"));
  EXPECT_EQ(korvalen::testing::frameNumbers(ffmpeg, *result.output), expectedLoop(10, 34));
  EXPECT_EQ(PingPongBuilder::readManifest(*result.output)->encoder, "mpeg4");
  expectNothingLeftBehind();
}

TEST_F(PingPongBuild, ANameFfmpegCouldTakeForAProtocolIsStillAFile) {
  fs::copy_file(clip("count50.mp4"), folder / "take: 1 'best'.mp4");
  const korvalen::testing::CurrentFolder inFolder(folder.path());
  auto made = request("take: 1 'best'.mp4");
  made.trimEnd = 1.0;
  const auto result = build(made);
  ASSERT_EQ(result.problem, std::nullopt);
  EXPECT_EQ(korvalen::testing::frameNumbers(ffmpeg, *result.output), expectedLoop(0, 9));
}

struct FailureCase {
  std::string name;
  std::string problem;
  std::function<void(PingPongBuilder::Request&, const fs::path& folder)> arrange;
};

class PingPongFailures : public PingPongBuild, public ::testing::WithParamInterface<FailureCase> {};

constexpr std::string_view unreadable =
    "This clip could not be read all the way through, so it could not be reversed. Korvalen will keep playing the "
    "original.";

// clang-format off
INSTANTIATE_TEST_SUITE_P(EndInAProblem, PingPongFailures, ::testing::Values(
  FailureCase{"SourceGone", "That clip is no longer on disk.",
              [](auto& made, const auto& folder) { made.source = folder / "gone.mp4"; }},
  FailureCase{"SourceIsAFolder", "That clip is no longer on disk.",
              [](auto& made, const auto& folder) { made.source = folder / "tmp"; }},
  FailureCase{"CorruptSource", std::string(unreadable),
              [](auto& made, const auto& folder) {
                made.source = folder / "broken.mp4";
                korvalen::testing::writeText(made.source, std::string(4096, '\x7f') + "not a video");
              }},
  FailureCase{"NoFfmpeg", "The reversed copy could not be built: could not start /no/such/ffmpeg: No such file or "
                          "directory.",
              [](auto& made, const auto&) { made.ffmpeg = "/no/such/ffmpeg"; }},
  FailureCase{"EncoderThatDoesNotExist", "This Mac could not encode the reversed copy with any of the encoders "
                                         "available. Korvalen will keep playing the original.",
              [](auto& made, const auto&) { made.encoders = {"korvalen_no_such_encoder"}; }},
  FailureCase{"WindowPastTheEnd", "The trimmed part of this clip is empty, so there is nothing to reverse.",
              [](auto& made, const auto&) { made.trimStart = 7; }},
  FailureCase{"TooLong", "This clip is too long to reverse (over 10 minutes). Ping-pong suits short loops; a clip "
                         "this long can simply loop as it is.",
              [](auto& made, const auto& folder) {
                made.source = folder / "long.mp4";
                korvalen::testing::makeNumberedClip(korvalen::testing::ffmpegOnPath(), made.source, 601, 1);
              }}
), korvalen::testing::ByName{});
// clang-format on

TEST_P(PingPongFailures, LeaveNothingBehind) {
  auto made = request(clip("count50.mp4"));
  GetParam().arrange(made, folder.path());
  const auto result = build(made);
  EXPECT_EQ(result.problem, std::optional<std::string>(GetParam().problem));
  EXPECT_EQ(result.output, std::nullopt);
  EXPECT_THAT(logged, IsEmpty());
  expectNothingLeftBehind();
  EXPECT_FALSE(fs::exists(PingPong::cachePath(made.cacheRoot, made.sha256, made.trimStart, made.trimEnd)));
}

TEST_F(PingPongBuild, CancellingMidBuildStopsFfmpegAndLeavesNothingBehind) {
  auto made = request(clip("count50.mp4"));
  made.memoryBudgetBytes = smallBudget;
  std::stop_source stop;
  PingPongBuilder::Hooks hooks;
  int reports = 0;
  // The first sign of progress comes while the forward part is being encoded.
  std::vector<fs::perms> working;
  hooks.progress = [&](double) {
    ++reports;
    // The working folder holds a copy of the user's video: theirs alone, whatever the umask.
    for (const auto& entry : fs::directory_iterator(folder / "tmp")) {
      working.push_back(entry.status().permissions() & fs::perms::all);
    }
    stop.request_stop();
  };
  const mode_t mask = ::umask(0);
  const auto result = PingPongBuilder::build(made, stop.get_token(), hooks);
  EXPECT_EQ(result.problem, std::optional<std::string>("The reversed copy was cancelled."));
  EXPECT_EQ(result.output, std::nullopt);
  ::umask(mask);
  EXPECT_EQ(reports, 1) << "work went on after the cancellation";
  EXPECT_EQ(working, std::vector<fs::perms>{fs::perms::owner_all});
  expectNothingLeftBehind();
  EXPECT_FALSE(fs::exists(PingPong::cachePath(made.cacheRoot, made.sha256, made.trimStart, made.trimEnd)));
}

// A cached copy written by hand: the file and its manifest.
fs::path cacheCopy(const fs::path& root, const std::string& hash, std::int64_t sourceBytes, std::int64_t bytes) {
  auto path = PingPong::cachePath(root, hash, 0, toTheEnd);
  fs::create_directories(path.parent_path());
  korvalen::testing::writeText(path, std::string(static_cast<std::size_t>(bytes), 'v'));
  PingPongManifest manifest;
  manifest.sourceSha256 = hash;
  manifest.sourceLengthBytes = sourceBytes;
  manifest.outputBytes = bytes;
  korvalen::testing::writeText(PingPongBuilder::manifestURL(path), json::pretty(json::encode(manifest)));
  return path;
}

TEST(PingPongCache, ACopyIsUsableOnlyWhileItsManifestMatchesTheSourceAsItIsNow) {
  korvalen::testing::TempFolder folder;
  const auto source = folder / "clip.mp4";
  korvalen::testing::writeText(source, "0123456789");
  const std::string hash(64, 'a');
  const auto copy = cacheCopy(folder.path(), hash, 10, 100);
  EXPECT_EQ(PingPongBuilder::manifestURL(copy).filename(), "aaaaaaaaaaaaaaaa-0.00-end.json");

  fs::last_write_time(copy, fs::file_time_type::clock::now() - std::chrono::hours(48));
  EXPECT_THAT(PingPongBuilder::findUsable(folder.path(), source, hash, 0, toTheEnd), Optional(copy));
  EXPECT_GT(fs::last_write_time(copy), fs::file_time_type::clock::now() - std::chrono::hours(1))
      << "finding a copy counts as using it";
  EXPECT_EQ(PingPongBuilder::findUsable(folder.path(), source, hash, 1, toTheEnd), std::nullopt) << "another window";

  korvalen::testing::writeText(source, "01234567890");
  EXPECT_EQ(PingPongBuilder::findUsable(folder.path(), source, hash, 0, toTheEnd), std::nullopt) << "the source grew";

  korvalen::testing::writeText(source, "0123456789");
  korvalen::testing::writeText(PingPongBuilder::manifestURL(copy), "{ not json");
  EXPECT_EQ(PingPongBuilder::readManifest(copy), std::nullopt);
  EXPECT_EQ(PingPongBuilder::findUsable(folder.path(), source, hash, 0, toTheEnd), std::nullopt);
  fs::remove(PingPongBuilder::manifestURL(copy));
  EXPECT_EQ(PingPongBuilder::findUsable(folder.path(), source, hash, 0, toTheEnd), std::nullopt);
}

TEST(PingPongCache, TrimmingDeletesTheLeastRecentlyUsedButNeverTheOneToKeep) {
  korvalen::testing::TempFolder folder;
  const auto now = fs::file_time_type::clock::now();
  std::vector<fs::path> copies;
  // Oldest first: 3000, 2000 and 2000 bytes of video, each with a manifest.
  for (const auto& [letter, bytes, hoursAgo] :
       std::vector<std::tuple<char, std::int64_t, int>>{{'a', 3000, 30}, {'b', 2000, 20}, {'c', 2000, 10}}) {
    copies.push_back(cacheCopy(folder.path(), std::string(64, letter), 10, bytes));
    fs::last_write_time(copies.back(), now - std::chrono::hours(hoursAgo));
  }
  const auto manifestBytes = static_cast<std::int64_t>(fs::file_size(PingPongBuilder::manifestURL(copies[0])));
  const auto entries = PingPongBuilder::cacheEntries(folder.path());
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0].bytes, 3000 + manifestBytes);

  // Everything fits: nothing goes.
  EXPECT_THAT(PingPongBuilder::trimCache(folder.path(), 10'000), IsEmpty());
  // Keeping the oldest: the next oldest goes instead.
  EXPECT_THAT(PingPongBuilder::trimCache(folder.path(), 6'000, copies[0]), ElementsAre(copies[1]));
  EXPECT_TRUE(fs::exists(copies[0]));
  EXPECT_FALSE(fs::exists(PingPongBuilder::manifestURL(copies[1])));
  // Without a copy to keep, the oldest goes.
  EXPECT_THAT(PingPongBuilder::trimCache(folder.path(), 4'000), ElementsAre(copies[0]));
  EXPECT_THAT(PingPongBuilder::cacheEntries(folder.path()).size(), 1U);
  EXPECT_THAT(PingPongBuilder::trimCache(folder.path(), 0), ElementsAre(copies[2]));
  EXPECT_THAT(folder.entries(), ElementsAre("cache", "cache/pingpong"));
}

}  // namespace
}  // namespace korvalen::engine
