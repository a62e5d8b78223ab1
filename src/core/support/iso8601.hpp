// Dates and their ISO 8601 text forms. `Date` is the one point-in-time type of the code base.
// The two formatters are stateless, so the shared instances are safe from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen {

using Date = std::chrono::sys_time<std::chrono::microseconds>;

// The current time. Only the few places that are meant to read the clock call this.
Date currentDate();

namespace ISO8601 {

class Formatter {
 public:
  enum class Style {
    withFraction,  // 2024-05-01T12:00:00.123Z
    plain,         // 2024-05-01T12:00:00Z
  };
  explicit constexpr Formatter(Style style) : style_(style) {}

  // UTC with the letter Z; `plain` drops (truncates) any fraction of a second.
  [[nodiscard]] std::string format(Date date) const;
  // Accepts "Z" or a numeric offset ("+02:00", "-0530"). `withFraction` demands a fraction
  // of one or more digits, `plain` refuses one.
  [[nodiscard]] std::optional<Date> parse(std::string_view text) const;

 private:
  Style style_;
};

const Formatter& withFraction();
const Formatter& plain();

// The reading rule of our files: with a fraction first, then without.
std::optional<Date> parseEither(std::string_view text);

}  // namespace ISO8601
}  // namespace korvalen
