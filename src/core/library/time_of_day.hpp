// A wall-clock time of day (hour and minute), and one entry of a playlist's schedule: the
// item that plays from that time on.
#pragma once

#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"
#include "core/support/time_zone.hpp"

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen {

struct TimeOfDay {
  std::int64_t hour = 0;
  std::int64_t minute = 0;

  [[nodiscard]] std::int64_t minutesSinceMidnight() const { return hour * 60 + minute; }

  // Strict "H:MM" text: split at every ":" (empty pieces dropped), exactly two whole
  // numbers, hour 0...23 and minute 0...59.
  static std::optional<TimeOfDay> parse(std::string_view text);

  // The wall-clock hour and minute of `date` in `zone` (Gregorian calendar).
  static TimeOfDay of(Date date, const TimeZone& zone);

  // "07:30".
  [[nodiscard]] std::string text() const;

  bool operator==(const TimeOfDay&) const = default;
  // Ordered by minutes since midnight.
  std::strong_ordering operator<=>(const TimeOfDay& other) const {
    return minutesSinceMidnight() <=> other.minutesSinceMidnight();
  }
};

struct ScheduleEntry {
  TimeOfDay from;
  std::string itemID;
  bool operator==(const ScheduleEntry&) const = default;
};

namespace json {
template <>
struct Coding<TimeOfDay> {
  static Json encode(const TimeOfDay& time, const Options&) { return time.text(); }
  // "07:30", "07:30:15" (seconds dropped) or the older {"hour": 7, "minute": 30}.
  [[nodiscard]] static Result<TimeOfDay> decode(const Json& json, const Options& options);
};
template <>
struct Coding<ScheduleEntry> {
  static Json encode(const ScheduleEntry& entry, const Options& options);
  [[nodiscard]] static Result<ScheduleEntry> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
