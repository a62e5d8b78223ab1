#include "core/playback/flash_analyzer.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace korvalen {
namespace {

struct Feed {
  const char* name;
  std::vector<double> levels;  // one sample every `interval` seconds from t = 0
  double interval;
  std::int64_t transitions;  // recorded at the end
  bool violated;
  std::int64_t peak;
};

class FlashAnalyzerFeed : public ::testing::TestWithParam<Feed> {};

TEST_P(FlashAnalyzerFeed, CountsOnlyQualifyingReversals) {
  FlashAnalyzer analyzer;
  for (std::size_t i = 0; i < GetParam().levels.size(); ++i) {
    analyzer.observe(static_cast<double>(i) * GetParam().interval, GetParam().levels[i]);
  }
  EXPECT_EQ(static_cast<std::int64_t>(analyzer.transitions().size()), GetParam().transitions);
  EXPECT_EQ(analyzer.violated(), GetParam().violated);
  EXPECT_EQ(analyzer.peakFlashesPerSecond(), GetParam().peak);
}

std::vector<double> alternating(double a, double b, std::size_t count) {
  std::vector<double> levels;
  for (std::size_t i = 0; i < count; ++i) {
    levels.push_back(i % 2 == 0 ? a : b);
  }
  return levels;
}

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// clang-format off
INSTANTIATE_TEST_SUITE_P(Flash, FlashAnalyzerFeed, ::testing::Values(
  Feed{"ConstantPicture",          std::vector<double>(30, 0.5),   0.05, 0, false, 0},
  Feed{"FirstSwingOnlySetsDirection", {0.0, 1.0},                  0.05, 0, false, 0},
  Feed{"SevenReversalsAreThreeFlashes", alternating(0, 1, 9),      0.05, 7, false, 3},
  Feed{"EightReversalsViolate",    alternating(0, 1, 10),          0.05, 8, true,  4},
  Feed{"BrightPairNeverQualifies", alternating(0.85, 1.0, 40),     0.05, 0, false, 0},
  Feed{"DarkerAtEightIsNotBelow",  alternating(0.8, 1.0, 40),      0.05, 0, false, 0},
  Feed{"DarkerJustBelowEight",     alternating(0.79, 1.0, 10),     0.05, 8, true,  4},
  Feed{"SmallSwingsNeverQualify",  alternating(0.5, 0.59, 40),     0.05, 0, false, 0},
  Feed{"ExactTenthQualifies",      alternating(0.0, 0.1, 10),      0.05, 8, true,  4},
  Feed{"JustUnderATenth",          alternating(0.0, 0.0999, 40),   0.05, 0, false, 0},
  Feed{"ClampedBeyondOne",         alternating(-3, 7, 10),         0.05, 8, true,  4},
  Feed{"NaNFirstSampleFreezes",    {nan, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0}, 0.05, 0, false, 0},
  Feed{"SlowFlashesStayUnder",     alternating(0, 1, 40),          0.34, 3, false, 1},
  // Small counter-moves build up from the peak until they reach 0.1.
  Feed{"CounterMovesAccumulate",   {0.0, 0.5, 0.45, 0.41, 0.39},   0.05, 1, false, 0}),
  korvalen::testing::ByName{});
// clang-format on

TEST(FlashAnalyzer, ObserveReturnsTrueOnTheTenthAlternatingSampleAndStaysViolated) {
  FlashAnalyzer analyzer;
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(analyzer.observe(i * 0.05, i % 2 == 0 ? 0.0 : 1.0), i == 9) << "sample " << i + 1;
  }
  // The picture settles (the drop to 0.3 is a ninth reversal, at t = 0.5): over the limit
  // until the reversal at t = 0.15 is more than a second old, then under it.
  for (int i = 10; i < 60; ++i) {
    EXPECT_EQ(analyzer.observe(i * 0.05, 0.3), i <= 23) << "sample " << i + 1;
  }
  EXPECT_TRUE(analyzer.violated()) << "sticky";
  EXPECT_EQ(analyzer.flashesInLastSecond(), 0);
  EXPECT_EQ(analyzer.peakFlashesPerSecond(), 4);
  analyzer.reset();
  EXPECT_FALSE(analyzer.violated());
  EXPECT_EQ(analyzer.peakFlashesPerSecond(), 0);
  EXPECT_TRUE(analyzer.transitions().empty());
}

TEST(FlashAnalyzer, ATransitionCountsForExactlyOneSecond) {
  FlashAnalyzer analyzer;
  analyzer.observe(9.8, 0.0);
  analyzer.observe(9.9, 1.0);
  analyzer.observe(10.0, 0.0);
  ASSERT_EQ(analyzer.transitions(), std::vector<double>{10.0});
  analyzer.observe(11.0, 0.0);
  EXPECT_EQ(analyzer.transitions().size(), 1U) << "one second old still counts";
  analyzer.observe(11.0000011, 0.0);
  EXPECT_TRUE(analyzer.transitions().empty());
}

TEST(FlashAnalyzer, TimesOutOfOrderArePrunedOneByOne) {
  FlashAnalyzer analyzer;
  analyzer.observe(5.0, 0.0);
  analyzer.observe(5.1, 1.0);
  analyzer.observe(5.2, 0.0);  // reversal at 5.2
  analyzer.observe(3.0, 1.0);  // a clock that jumped back: reversal at 3.0
  analyzer.observe(4.5, 0.0);  // reversal at 4.5; 3.0 is now too old, 5.2 is not
  EXPECT_EQ(analyzer.transitions(), (std::vector<double>{5.2, 4.5}));
}

TEST(FlashAnalyzerLuminance, SrgbTableAndBgraOrder) {
  const auto& table = FlashAnalyzer::linear();
  EXPECT_EQ(table[0], 0.0);
  EXPECT_DOUBLE_EQ(table[255], 1.0);
  EXPECT_DOUBLE_EQ(table[10], 10.0 / 255 / 12.92) << "linear segment";
  EXPECT_NEAR(table[128], 0.2158605, 1e-6);

  EXPECT_NEAR(FlashAnalyzer::meanLuminance({255, 255, 255, 0}, 1, 1, 4, 1), 1.0, 1e-12);
  EXPECT_NEAR(FlashAnalyzer::meanLuminance({0, 0, 255, 255}, 1, 1, 4, 1), 0.2126, 1e-12) << "red is the third byte";
  EXPECT_NEAR(FlashAnalyzer::meanLuminance({255, 0, 0, 255}, 1, 1, 4, 1), 0.0722, 1e-12);
}

TEST(FlashAnalyzerLuminance, StrideStepAndBoundsDecideWhatIsRead) {
  // 2x2 pixels with 4 bytes of padding per row: white, black / black, white.
  const std::vector<std::uint8_t> frame{255, 255, 255, 0, 0,   0,   0,   0, 9, 9, 9, 9,
                                        0,   0,   0,   0, 255, 255, 255, 0, 9, 9, 9, 9};
  EXPECT_NEAR(FlashAnalyzer::meanLuminance(frame, 2, 2, 12, 1), 0.5, 1e-12);
  EXPECT_NEAR(FlashAnalyzer::meanLuminance(frame, 2, 2, 12, 2), 1.0, 1e-12) << "only the top-left pixel";
  // A buffer cut short inside the last pixel: that pixel is skipped, not read past the end.
  const std::vector<std::uint8_t> cut(frame.begin(), frame.begin() + 18);
  EXPECT_NEAR(FlashAnalyzer::meanLuminance(cut, 2, 2, 12, 1), 1.0 / 3, 1e-12);
  EXPECT_EQ(FlashAnalyzer::meanLuminance(frame, 0, 2, 12, 1), 0);
  EXPECT_EQ(FlashAnalyzer::meanLuminance(frame, 2, 2, 12, 0), 0);
  EXPECT_EQ(FlashAnalyzer::meanLuminance(std::vector<std::uint8_t>{}, 2, 2, 12, 1), 0);
  const std::span<const std::uint8_t> view(frame);
  EXPECT_EQ(FlashAnalyzer::meanLuminance(view, 2, 2, 12, 1), FlashAnalyzer::meanLuminance(frame, 2, 2, 12, 1));
}

// The plain computation, pixel by pixel in extended precision, as the reference.
double plainMeanLuminance(const std::vector<std::uint8_t>& bytes, std::int64_t width, std::int64_t height,
                          std::int64_t stride, std::int64_t step) {
  const auto& table = FlashAnalyzer::linear();
  long double sum = 0;
  std::int64_t count = 0;
  for (std::int64_t y = 0; y < height; y += step) {
    for (std::int64_t x = 0; x < width; x += step) {
      const auto offset = static_cast<std::size_t>(y * stride + x * 4);
      if (offset + 2 >= bytes.size()) {
        break;
      }
      sum += 0.0722 * table[bytes[offset]] + 0.7152 * table[bytes[offset + 1]] + 0.2126 * table[bytes[offset + 2]];
      ++count;
    }
  }
  return count == 0 ? 0 : static_cast<double>(sum / static_cast<long double>(count));
}

TEST(FlashAnalyzerLuminance, TheFastSumAgreesWithThePlainOneToATrillionth) {
  struct Frame {
    const char* name;
    std::int64_t width;
    std::int64_t height;
    std::int64_t stride;
    std::size_t cut;  // bytes taken away from the end
    int pattern;      // 0 random, 1 one grey level, 2 dark blue only
  };
  std::uint64_t seed = 0x9e3779b97f4a7c15ULL;
  const auto random = [&seed] {
    seed ^= seed << 13;
    seed ^= seed >> 7;
    seed ^= seed << 17;
    return static_cast<std::uint8_t>(seed >> 24);
  };
  for (const auto& f : std::vector<Frame>{{"4K random", 3840, 2160, 3840 * 4, 0, 0},
                                          {"4K one grey", 3840, 2160, 3840 * 4, 0, 1},
                                          {"4K dark blue", 3840, 2160, 3840 * 4, 0, 2},
                                          {"odd, padded, cut", 1001, 37, 1001 * 4 + 12, 4017, 0},
                                          {"narrow", 3, 5, 12, 0, 0}}) {
    std::vector<std::uint8_t> frame(static_cast<std::size_t>(f.stride * f.height) - f.cut);
    for (std::size_t i = 0; i < frame.size(); ++i) {
      frame[i] = f.pattern == 0 ? random() : f.pattern == 1 ? 187 : (i % 4 == 0 ? 1 : 0);
    }
    for (const std::int64_t step : {1, 2, 3, 7}) {
      const double plain = plainMeanLuminance(frame, f.width, f.height, f.stride, step);
      const double fast = FlashAnalyzer::meanLuminance(frame, f.width, f.height, f.stride, step);
      EXPECT_LE(std::fabs(fast - plain), 1e-12 * std::fabs(plain)) << f.name << " step " << step;
    }
  }
}

TEST(FlashAnalyzerLoop, JudgesTheLoopAcrossItsSeam) {
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0.1, 0.1}, 1), (FlashAnalyzer::Judgement{true, 5}));
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0.1, 0.1}, 0), FlashAnalyzer::Judgement{});
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0}, {0.1}, 1), FlashAnalyzer::Judgement{});
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0.1}, 1), FlashAnalyzer::Judgement{});
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0, 0}, 1), FlashAnalyzer::Judgement{});
  // Slow frames do not flash; played four times faster they do.
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0.4, 0.4}, 1).violated, false);
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {0.4, 0.4}, 4).violated, true);
  // Tiny delays stop at 50 000 samples instead of running for ever: 49 998 reversals.
  EXPECT_EQ(FlashAnalyzer::judgeLoop({0, 1}, {1e-9, 1e-9}, 1), (FlashAnalyzer::Judgement{true, 24999}));
}

}  // namespace
}  // namespace korvalen
