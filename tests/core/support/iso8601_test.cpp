#include "core/support/iso8601.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace korvalen {
namespace {

using namespace std::chrono;

Date at(int year, unsigned month, unsigned day, int hour, int minute, int second, int micros = 0) {
  const auto days = sys_days{std::chrono::year{year} / std::chrono::month{month} / std::chrono::day{day}};
  return Date{days.time_since_epoch()} + hours{hour} + minutes{minute} + seconds{second} + microseconds{micros};
}

TEST(ISO8601Format, PlainDropsTheFractionAndWithFractionKeepsMilliseconds) {
  const Date date = at(2024, 5, 1, 12, 0, 0, 123456);
  EXPECT_EQ(ISO8601::plain().format(date), "2024-05-01T12:00:00Z");
  EXPECT_EQ(ISO8601::withFraction().format(date), "2024-05-01T12:00:00.123Z");
  EXPECT_EQ(ISO8601::withFraction().format(at(2024, 5, 1, 12, 0, 0)), "2024-05-01T12:00:00.000Z");
  // Before 1970 the fraction is still truncated toward the earlier second.
  EXPECT_EQ(ISO8601::plain().format(at(1969, 12, 31, 23, 59, 59, 500000)), "1969-12-31T23:59:59Z");
}

struct ParseCase {
  const char* text;
  bool plain;
  bool withFraction;
};

class ISO8601Parse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ISO8601Parse, AcceptsItsOwnFormOnly) {
  const auto& param = GetParam();
  EXPECT_EQ(ISO8601::plain().parse(param.text).has_value(), param.plain) << param.text;
  EXPECT_EQ(ISO8601::withFraction().parse(param.text).has_value(), param.withFraction) << param.text;
  EXPECT_EQ(ISO8601::parseEither(param.text).has_value(), param.plain || param.withFraction) << param.text;
}

INSTANTIATE_TEST_SUITE_P(
    Dates, ISO8601Parse,
    ::testing::Values(ParseCase{"2024-05-01T12:00:00Z", true, false}, ParseCase{"2024-05-01T12:00:00.5Z", false, true},
                      ParseCase{"2024-05-01T12:00:00.123456Z", false, true},
                      ParseCase{"2024-05-01T12:00:00+02:00", true, false},
                      ParseCase{"2024-05-01T12:00:00-0530", true, false},
                      ParseCase{"2024-05-01T12:00:00", false, false}, ParseCase{"2024-05-01 12:00:00Z", false, false},
                      ParseCase{"2023-02-29T00:00:00Z", false, false}, ParseCase{"2024-02-29T00:00:00Z", true, false},
                      ParseCase{"2024-05-01T24:00:00Z", false, false}, ParseCase{"2024-05-01T12:00:00.Z", false, false},
                      ParseCase{"2024-05-01T12:00:00Zjunk", false, false}, ParseCase{"", false, false}));

TEST(ISO8601ParseValues, OffsetsAndFractionsGiveTheRightInstant) {
  EXPECT_EQ(*ISO8601::plain().parse("2024-05-01T14:00:00+02:00"), at(2024, 5, 1, 12, 0, 0));
  EXPECT_EQ(*ISO8601::plain().parse("2024-05-01T06:30:00-0530"), at(2024, 5, 1, 12, 0, 0));
  EXPECT_EQ(*ISO8601::withFraction().parse("2024-05-01T12:00:00.25Z"), at(2024, 5, 1, 12, 0, 0, 250000));
  const Date date = at(2031, 12, 31, 23, 59, 58);
  EXPECT_EQ(*ISO8601::plain().parse(ISO8601::plain().format(date)), date);
}

// An offset may not carry a date out of the years that four digits can write back: such a
// date would read, but the file written from it would not (a fuzzing find).
TEST(ISO8601ParseValues, OffsetsStayWithinTheFourDigitYears) {
  EXPECT_EQ(ISO8601::plain().parse("0000-01-01T00:00:01+20:30"), std::nullopt);
  EXPECT_EQ(ISO8601::plain().parse("9999-12-31T23:00:00-02:00"), std::nullopt);
  const auto first = ISO8601::plain().parse("0000-01-01T20:30:00+20:30");
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(ISO8601::plain().format(*first), "0000-01-01T00:00:00Z");
  EXPECT_EQ(ISO8601::plain().parse(ISO8601::plain().format(*first)), first);
}

TEST(ISO8601Threads, SharedFormattersWorkFromManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (std::size_t t = 0; t < failures.size(); ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 2000; ++i) {
        const Date date = at(2000 + static_cast<int>(t), 1, 1, 0, 0, i % 60);
        if (ISO8601::plain().parse(ISO8601::plain().format(date)) != date) {
          ++failures[t];
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace korvalen
