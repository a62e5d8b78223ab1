#include "core/library/ping_pong.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

constexpr std::int64_t gib = 1'073'741'824;
constexpr double inf = std::numeric_limits<double>::infinity();

TEST(PingPongAssess, SegmentsFitTheMemoryBudgetInWholeFrames) {
  EXPECT_EQ(PingPong::bytesPerSecond(1920, 1080, 30), 93'312'000);
  EXPECT_EQ(PingPong::bytesPerSecond(0, -1, 0.5), 3'110'400) << "unknown size and rate";
  const auto plan = PingPong::assess(10, 1920, 1080, 30, gib, 100 * gib, 50'000'000, 0);
  ASSERT_TRUE(plan.allowed);
  EXPECT_NEAR(plan.segmentSeconds, 6.9, 1e-12);
  EXPECT_EQ(plan.peakBytesPerSegment, static_cast<std::int64_t>(plan.segmentSeconds * 93'312'000));
  EXPECT_EQ(plan.segmentCount(), 2);
  EXPECT_NEAR(plan.segmentLength(0), 6.9, 1e-12);
  EXPECT_NEAR(plan.segmentLength(1), 3.1, 1e-12);
  EXPECT_FALSE(plan.dropsTurnFrame(0));
  EXPECT_TRUE(plan.dropsTurnFrame(1));
  EXPECT_EQ(plan.seekSeconds(0), 0) << "a clip used from its start is never sought before 0";
  EXPECT_NEAR(plan.seekSeconds(1), 6.9 - 1.0 / 60, 1e-12);
  EXPECT_EQ(plan.alignedSeconds(), 10);

  const auto trimmed = PingPong::assess(10, 1920, 1080, 30, gib, 100 * gib, 1, 2.0);
  EXPECT_NEAR(trimmed.seekSeconds(0), 2.0 - 1.0 / 60, 1e-12);
  // A tiny budget still gives segments of at least two seconds; a short clip one segment.
  EXPECT_NEAR(PingPong::assess(30, 1920, 1080, 30, 1, gib, 1, 0).segmentSeconds, 2.0, 1e-12);
  EXPECT_EQ(PingPong::assess(1.5, 1920, 1080, 30, gib, gib, 1, 0).segmentSeconds, 1.5);
  // Without a frame rate the segments are cut in seconds.
  // 640×360 at an unknown rate is 345 600 bytes a second: 1 152 000 × 0.6 of it is 2 s.
  const auto unknownRate = PingPong::assess(5, 640, 360, 0, 1'152'000, gib, 1, 0);
  EXPECT_EQ(unknownRate.segmentSeconds, 2.0);
  EXPECT_EQ(unknownRate.segmentCount(), 3);
  EXPECT_EQ(unknownRate.segmentLength(2), 1.0);
}

TEST(PingPongAssess, RefusalsSayWhy) {
  EXPECT_TRUE(PingPong::assess(600, 1920, 1080, 30, gib, gib, 1, 0).allowed);
  const auto long_ = PingPong::assess(600.5, 1920, 1080, 30, gib, gib, 1, 0);
  EXPECT_FALSE(long_.allowed);
  EXPECT_EQ(long_.reason,
            "This clip is too long to reverse (over 10 minutes). Ping-pong suits short loops; a clip "
            "this long can simply loop as it is.");
  EXPECT_EQ(PingPong::assess(std::nan(""), 1, 1, 1, gib, gib, 1, 0).reason,
            "Korvalen does not know how long this clip is yet.");
  EXPECT_EQ(PingPong::assess(-1, 1, 1, 1, gib, gib, 1, 0).sourceSeconds, 0);
  EXPECT_EQ(PingPong::assess(10, 1920, 1080, 30, gib, 3 * 100 * 1'048'576 - 1, 100 * 1'048'576, 0).reason,
            "There is not enough disk space: about 300 MB is needed while it builds.");
}

TEST(PingPong, TrimsLoopLengthAndEdits) {
  EXPECT_TRUE(PingPong::forwardIsWholeSource(0, inf, 10));
  EXPECT_TRUE(PingPong::forwardIsWholeSource(0.001, 9.95, 10));
  EXPECT_FALSE(PingPong::forwardIsWholeSource(0.002, inf, 10));
  EXPECT_FALSE(PingPong::forwardIsWholeSource(0, 9.9, 10));
  EXPECT_TRUE(PingPong::forwardIsWholeSource(0, 3, 0));
  EXPECT_NEAR(PingPong::expectedSeconds(10, 30), 20 - 1.0 / 30, 1e-12);
  EXPECT_EQ(PingPong::expectedSeconds(10, 0), 20);
  using PingPong::AfterEdit;
  EXPECT_EQ(PingPong::whatToDoAfterEdit(true, false, 60, 1, 120), AfterEdit::rebuildNow);
  EXPECT_EQ(PingPong::whatToDoAfterEdit(true, false, 61, 1, 120), AfterEdit::offerRebuild);
  EXPECT_EQ(PingPong::whatToDoAfterEdit(true, false, 0, 1, 120), AfterEdit::askLater);
  EXPECT_EQ(PingPong::whatToDoAfterEdit(true, false, inf, 1, 120), AfterEdit::askLater);
  EXPECT_EQ(PingPong::whatToDoAfterEdit(true, true, 60, 1, 120), AfterEdit::nothing);
  EXPECT_EQ(PingPong::whatToDoAfterEdit(false, false, 60, 1, 120), AfterEdit::nothing);
}

TEST(PingPongCost, DescribesDiskAndTime) {
  EXPECT_EQ(PingPong::cost(60, 150 * 1'048'576).describe(),
            "About 300 MB on disk once built (450 MB while it builds), and roughly 15 seconds to 2 minutes to build, "
            "depending on whether your graphics card can encode video.");
  EXPECT_EQ((PingPongCost{1000, 1000, 0.2, 30.5}).describe(),
            "About 1 MB on disk once built, and roughly 1 second to 30 seconds to build, depending on whether your "
            "graphics card can encode video.");
  EXPECT_TRUE((PingPongCost{1, 2, 2.5, 60.5})
                  .describe()
                  .ends_with(", and roughly 2 seconds to 2 minutes to build, depending on whether your graphics card "
                             "can encode video."))
      << "2.5 rounds to even, 60.5 s is a second minute";
  EXPECT_EQ(PingPong::cost(-3, 0), (PingPongCost{2, 3, 0, 0}));
}

TEST(PingPongFfmpeg, ProbeProgressAndArguments) {
  const auto probe = PingPong::parseProbe(
      "  Duration: 00:01:02.50, start: 0.000000, bitrate: 5359 kb/s\n"
      "  Stream #0:0(und): Video: h264 (High), yuv420p(progressive), 1920x1080 [SAR 1:1 DAR 16:9], 29.97 fps, "
      "30 tbr, 15360 tbn\n");
  EXPECT_EQ(probe, (PingPongProbe{62.5, 30.0, 1920, 1080}));
  EXPECT_EQ(PingPong::parseProbe("Stream: 25 fps"), (PingPongProbe{std::nullopt, 25.0, std::nullopt, std::nullopt}));
  EXPECT_EQ(PingPong::parseProbe("nothing here"), PingPongProbe{});
  // Words and digits as Unicode has them: a combining mark after "tbr" makes another word,
  // so the rate is the one before "fps"; digits of any script count.
  EXPECT_EQ(PingPong::parseProbe("25 tbr\u0301 30 fps").fps, 30.0);
  EXPECT_EQ(PingPong::parseProbe("25 tbr 30 fps").fps, 25.0);
  EXPECT_EQ(PingPong::parseProbe("\u0663\u0660 fps").fps, 30.0);
  EXPECT_EQ(PingPong::parseProbe("1920x1080\u0301, 25 fps").width, std::nullopt);
  EXPECT_EQ(PingPong::parseProbe("0 fps").fps, std::nullopt);
  EXPECT_EQ(PingPong::parseProbe("99999999999999999999999 fps").fps, std::nullopt);
  // Hours too many for 64 bits are a clip far too long to reverse, never an empty one.
  const auto endless = PingPong::parseProbe("Duration: 99999999999999999999999:00:00.00, start: 0");
  ASSERT_TRUE(endless.seconds.has_value());
  EXPECT_GT(*endless.seconds, PingPong::maxClipSeconds);
  EXPECT_FALSE(PingPong::assess(*endless.seconds, 1920, 1080, 30, 1 << 30, 1LL << 40, 1000, 0).allowed);
  EXPECT_EQ(PingPong::parseProbe("Duration: " + std::string(400, '9') + ":00:00.00").seconds,
            std::numeric_limits<double>::max());
  EXPECT_EQ(PingPong::parseProgressSeconds("frame=10\nout_time_ms=1500000\nprogress=continue\nout_time_ms=2250000\n"),
            2.25);
  EXPECT_EQ(PingPong::parseProgressSeconds("progress=end"), std::nullopt);

  EXPECT_EQ(PingPong::segmentArguments("in.mp4", 6.883333, 3.1, "libx264", 8000000, "rev001.mp4", true),
            (std::vector<std::string>{"-y",        "-loglevel",
                                      "error",     "-progress",
                                      "pipe:1",    "-ss",
                                      "6.883333",  "-t",
                                      "3.100000",  "-i",
                                      "in.mp4",    "-an",
                                      "-vf",       "reverse,trim=start_frame=1,setpts=PTS-STARTPTS",
                                      "-c:v",      "libx264",
                                      "-b:v",      "8000000",
                                      "-pix_fmt",  "yuv420p",
                                      "-movflags", "+faststart",
                                      "rev001.mp4"}));
  EXPECT_EQ(PingPong::forwardArguments("in.mp4", 0, 2, "h264_nvenc", 1, "fwd.mp4")[13], "setpts=PTS-STARTPTS");
  EXPECT_EQ(PingPong::rateControlArguments("h264_qsv", 1), (std::vector<std::string>{"-global_quality", "23"}));
  EXPECT_EQ(PingPong::rateControlArguments("h264_amf", 1).size(), 6U);
  EXPECT_EQ(PingPong::concatListLines({"a"}, {"r0", "it's"}),
            (std::vector<std::string>{"file 'a'", "file 'it'\\''s'", "file 'r0'"}));
  EXPECT_EQ(PingPong::concatArguments("join.txt", "out.mp4")[8], "join.txt");
  EXPECT_EQ(PingPong::probeArguments("x.mp4"), (std::vector<std::string>{"-hide_banner", "-i", "x.mp4"}));
}

TEST(PingPongCache, NamesValidityAndEviction) {
  EXPECT_EQ(PingPong::cachePath("/root", "0123456789abcdef0123", 1.5, inf),
            std::filesystem::path("/root/cache/pingpong/0123456789abcdef-1.50-end.mp4"));
  EXPECT_EQ(PingPong::cachePath("/root", "ab", 0, 12.345).filename(), "ab-0.00-12.35.mp4");
  const PingPongManifest manifest{3, "ABCDEF", 1234, "libx264", Date{}, 99};
  EXPECT_TRUE(PingPong::isValid(manifest, "abcdef", 1234));
  EXPECT_FALSE(PingPong::isValid(manifest, "abcdef", 1235));
  EXPECT_FALSE(PingPong::isValid(std::nullopt, "abcdef", 1234));
  auto old = manifest;
  old.schemaVersion = 2;
  EXPECT_FALSE(PingPong::isValid(old, "abcdef", 1234));
  EXPECT_EQ(*json::decode<PingPongManifest>(json::encode(manifest)), manifest);

  const Date t0{std::chrono::seconds{100}};
  const Date t1{std::chrono::seconds{200}};
  const std::vector<PingPongCacheEntry> entries{{"c", 2 * gib, t1}, {"a", 3 * gib, t0}, {"b", 2 * gib, t1}};
  EXPECT_EQ(PingPong::evict(entries, 4 * gib), std::vector<std::string>{"a"});
  EXPECT_EQ(PingPong::evict(entries, 1 * gib), (std::vector<std::string>{"a", "c", "b"}));
  EXPECT_TRUE(PingPong::evict(entries, 7 * gib).empty());
}

TEST(PingPongExplain, FfmpegErrorsBecomeSentences) {
  EXPECT_EQ(PingPong::explain("  [out] No space left on device\n"),
            "The disk filled up while building the reversed copy. Korvalen will keep playing the original.");
  EXPECT_EQ(PingPong::explain("in.mp4: invalid data found when processing input"),
            "This clip could not be read all the way through, so it could not be reversed. Korvalen will keep playing "
            "the original.");
  EXPECT_EQ(PingPong::explain("Unknown encoder 'h264_videotoolbox'; Invalid data"),
            "This Mac could not encode the reversed copy with any of the encoders available. Korvalen will keep "
            "playing the original.");
  EXPECT_EQ(PingPong::explain("Conversion failed!"),
            "The forwards-and-backwards copy could not be built. Korvalen will keep playing the original.");
}

}  // namespace
}  // namespace korvalen
