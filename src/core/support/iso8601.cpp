#include "core/support/iso8601.hpp"

#include <date/date.h>

#include <charconv>
#include <cstdint>

namespace korvalen {

Date currentDate() {
  return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

namespace ISO8601 {
namespace {

// Reads exactly `count` digits at `pos`; advances `pos`.
bool digits(std::string_view text, std::size_t& pos, std::size_t count, int& out) {
  if (pos + count > text.size()) {
    return false;
  }
  int value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + (c - '0');
  }
  out = value;
  pos += count;
  return true;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
  if (pos < text.size() && text[pos] == c) {
    ++pos;
    return true;
  }
  return false;
}

}  // namespace

std::string Formatter::format(Date date) const {
  using namespace std::chrono;
  if (style_ == Style::plain) {
    return date::format("%Y-%m-%dT%H:%M:%SZ", floor<seconds>(date));
  }
  return date::format("%Y-%m-%dT%H:%M:%SZ", floor<milliseconds>(date));
}

std::optional<Date> Formatter::parse(std::string_view text) const {
  using namespace std::chrono;
  std::size_t pos = 0;
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!digits(text, pos, 4, year) || !expect(text, pos, '-') || !digits(text, pos, 2, month) ||
      !expect(text, pos, '-') || !digits(text, pos, 2, day) || !expect(text, pos, 'T') || !digits(text, pos, 2, hour) ||
      !expect(text, pos, ':') || !digits(text, pos, 2, minute) || !expect(text, pos, ':') ||
      !digits(text, pos, 2, second)) {
    return std::nullopt;
  }
  const date::year_month_day ymd{date::year{year}, date::month{static_cast<unsigned>(month)},
                                 date::day{static_cast<unsigned>(day)}};
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  microseconds fraction{0};
  if (pos < text.size() && text[pos] == '.') {
    if (style_ == Style::plain) {
      return std::nullopt;
    }
    ++pos;
    const std::size_t start = pos;
    std::int64_t micros = 0;
    std::int64_t scale = 100000;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      micros += (text[pos] - '0') * scale;
      scale /= 10;
      ++pos;
    }
    if (pos == start) {
      return std::nullopt;
    }
    fraction = microseconds{micros};
  } else if (style_ == Style::withFraction) {
    return std::nullopt;
  }
  minutes offset{0};
  if (expect(text, pos, 'Z')) {
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    const int sign = text[pos] == '-' ? -1 : 1;
    ++pos;
    int offsetHours = 0;
    int offsetMinutes = 0;
    if (!digits(text, pos, 2, offsetHours)) {
      return std::nullopt;
    }
    expect(text, pos, ':');
    if (!digits(text, pos, 2, offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) {
      return std::nullopt;
    }
    offset = minutes{sign * (offsetHours * 60 + offsetMinutes)};
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) {
    return std::nullopt;
  }
  const auto days = date::sys_days{ymd};
  const Date utc = Date{days.time_since_epoch()} + hours{hour} + minutes{minute} + seconds{second} + fraction - offset;
  // An offset can carry a date out of the four-digit years ("0000-01-01T00:00:01+20:30");
  // such a date could be read but never written back readably, so it is not read at all.
  const date::year_month_day inUtc{floor<date::days>(utc)};
  if (inUtc.year() < date::year{0} || inUtc.year() > date::year{9999}) {
    return std::nullopt;
  }
  return utc;
}

const Formatter& withFraction() {
  static constexpr Formatter formatter{Formatter::Style::withFraction};
  return formatter;
}

const Formatter& plain() {
  static constexpr Formatter formatter{Formatter::Style::plain};
  return formatter;
}

std::optional<Date> parseEither(std::string_view text) {
  if (auto date = withFraction().parse(text)) {
    return date;
  }
  return plain().parse(text);
}

}  // namespace ISO8601
}  // namespace korvalen
