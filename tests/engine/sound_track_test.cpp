// A video's sound on the real FFmpeg libraries: level, rate, pause, looping and following
// the picture, measured on the samples a device would get.
#include "engine/sound_track.hpp"

#include "engine/process.hpp"
#include "support/clips.hpp"
#include "support/sound.hpp"
#include "support/temp_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

namespace korvalen::engine {
namespace {

namespace fs = std::filesystem;
using korvalen::testing::hear;
constexpr int sampleRate = korvalen::testing::deviceRate;
constexpr double toneRms = korvalen::testing::lavfiSineRms;

class SoundTrackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    media_ = std::make_unique<korvalen::testing::TempFolder>();
    const auto ffmpeg = korvalen::testing::ffmpegOnPath();
    // 440 Hz for two seconds, then 880 Hz for one; a picture beside it.
    const auto made =
        engine::run(ffmpeg, {"-v", "error", "-f", "lavfi", "-i", "testsrc2=s=64x48:r=10:d=3", "-f", "lavfi", "-i",
                             "sine=f=440:d=2[a];sine=f=880:d=1[b];[a][b]concat=n=2:v=0:a=1", "-c:v", "libx264", "-c:a",
                             "aac", "-shortest", (*media_ / "tone.mp4").string()});
    ASSERT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
    korvalen::testing::makeNumberedClip(ffmpeg, *media_ / "silent.mp4", 10, 10);
  }
  static void TearDownTestSuite() { media_.reset(); }

  static std::shared_ptr<SoundTrack> open(double start = 0, double end = 0) {
    auto track = SoundTrack::open(*media_ / "tone.mp4", start, end, sampleRate);
    EXPECT_TRUE(track.has_value()) << (track ? "" : track.error());
    EXPECT_TRUE(track && *track);
    // Time to decode ahead, as the device's first call would find it.
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    return track ? *track : nullptr;
  }

  // `seconds` of what a device playing only this track would get.
  static std::vector<float> pull(const std::shared_ptr<SoundTrack>& track, double seconds) {
    korvalen::testing::ListeningDevice device;
    device.add(track);
    return device.listen(seconds);
  }

  static std::unique_ptr<korvalen::testing::TempFolder> media_;
};

std::unique_ptr<korvalen::testing::TempFolder> SoundTrackTest::media_;

TEST_F(SoundTrackTest, PlaysAtItsLevelAndKeepsCount) {
  auto track = open();
  track->setLevel(0.5);
  EXPECT_EQ(hear(pull(track, 0.2)).rms, 0) << "paused until played";
  EXPECT_EQ(track->position(), 0);
  track->play();
  pull(track, 0.1);  // past the encoder's first, softer frame
  const auto heard = hear(pull(track, 0.4));
  EXPECT_NEAR(heard.rms, 0.5 * toneRms, 0.1 * toneRms);
  EXPECT_NEAR(heard.hertz, 440, 6);
  EXPECT_NEAR(track->position(), 0.5, 1e-9);
  track->setLevel(0);
  EXPECT_EQ(hear(pull(track, 0.1)).rms, 0);
  EXPECT_NEAR(track->position(), 0.6, 1e-9) << "silent, but it keeps time";
  track->setLevel(7);
  EXPECT_NEAR(hear(pull(track, 0.2)).rms, toneRms, 0.1 * toneRms) << "a level above 1 is 1";
  track->pause();
  EXPECT_EQ(hear(pull(track, 0.1)).rms, 0);
  EXPECT_NEAR(track->position(), 0.8, 1e-9);
  track->stop();
  track->play();
  EXPECT_EQ(hear(pull(track, 0.1)).rms, 0) << "a stopped track stays silent";
}

TEST_F(SoundTrackTest, HalfRatePlaysAnOctaveLowerAndTakesTwiceAsLong) {
  auto track = open();
  track->setLevel(1);
  track->setRate(0.5);
  track->play();
  pull(track, 0.1);
  const auto heard = hear(pull(track, 0.5));
  EXPECT_NEAR(heard.hertz, 220, 4);
  EXPECT_NEAR(heard.rms, toneRms, 0.1 * toneRms);
  EXPECT_NEAR(track->position(), 0.3, 1e-9);
}

TEST_F(SoundTrackTest, FollowsThePictureWhenItDriftsAndLoopsTheStretch) {
  auto track = open();
  track->setLevel(1);
  track->play();
  pull(track, 0.1);
  track->follow(0.25);  // within a fifth of a second: left alone
  EXPECT_NEAR(track->position(), 0.1, 1e-9);
  track->follow(2.2);
  EXPECT_EQ(track->position(), 2.2);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_NEAR(hear(pull(track, 0.3)).hertz, 880, 8) << "the jump lands in the second tone";

  // A stretch from 1.5 s to 2.5 s: half a second of each tone, then round again.
  auto looped = open(1.5, 2.5);
  looped->setLevel(1);
  looped->play();
  const auto first = pull(looped, 1.0);
  const auto again = pull(looped, 0.45);
  const auto half = first.size() / 2;
  EXPECT_NEAR(hear({first.begin() + 4800, first.begin() + static_cast<std::ptrdiff_t>(half) - 4800}).hertz, 440, 10);
  EXPECT_NEAR(hear({first.begin() + static_cast<std::ptrdiff_t>(half) + 4800, first.end() - 4800}).hertz, 880, 10);
  EXPECT_NEAR(hear({again.begin() + 4800, again.end() - 4800}).hertz, 440, 10) << "round to the stretch's start";
}

TEST_F(SoundTrackTest, NoSoundIsNoTrackAndAMissingFileIsOneLine) {
  const auto silent = SoundTrack::open(media_->path() / "silent.mp4", 0, 0, sampleRate);
  ASSERT_TRUE(silent.has_value()) << silent.error();
  EXPECT_EQ(*silent, nullptr);
  const auto missing = SoundTrack::open(media_->path() / "gone.mp4", 0, 0, sampleRate);
  ASSERT_FALSE(missing.has_value());
  EXPECT_THAT(missing.error(), ::testing::HasSubstr("gone.mp4: there is no such file"));
  EXPECT_EQ(missing.error().find('\n'), std::string::npos);
}

}  // namespace
}  // namespace korvalen::engine
