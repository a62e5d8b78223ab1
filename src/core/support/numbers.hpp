// Locale-free number reading: "." is the decimal separator whatever the user's locale.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::numbers {

// The whole text as a decimal integer with an optional sign ("+7", "-3"); nothing around it.
std::optional<std::int64_t> wholeNumber(std::string_view text);

// Clamps to [low, high] when finite; otherwise the fallback. How records repair numbers.
double clampedOr(double value, double low, double high, double fallback);

// The whole text as a decimal number with an optional sign ("2.5", "+1e3", "-0.25").
std::optional<double> decimal(std::string_view text);

// A size for people: "512 B", "1.5 KB", "20.0 MB" (units of 1024).
std::string readableBytes(std::int64_t bytes);

}  // namespace korvalen::numbers
