#include "core/support/numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace korvalen::numbers {
namespace {

// from_chars takes "-" but not "+"; a "+" may lead, but not in front of another sign.
bool dropPlus(std::string_view& text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    return text.empty() || text.front() != '-';
  }
  return true;
}

template <class T>
std::optional<T> whole(std::string_view text) {
  if (!dropPlus(text) || text.empty()) {
    return std::nullopt;
  }
  T value{};
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<std::int64_t> wholeNumber(std::string_view text) {
  return whole<std::int64_t>(text);
}

std::optional<double> decimal(std::string_view text) {
  return whole<double>(text);
}

double clampedOr(double value, double low, double high, double fallback) {
  return std::isfinite(value) ? std::clamp(value, low, high) : fallback;
}

std::string readableBytes(std::int64_t bytes) {
  constexpr std::array units{"KB", "MB", "GB", "TB"};
  if (bytes < 1024) {
    return fmt::format("{} B", bytes);
  }
  auto value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, units.at(unit));
}

}  // namespace korvalen::numbers
