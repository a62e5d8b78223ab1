#include "cli/arguments.hpp"

#include "core/support/atomic_file.hpp"
#include "core/support/numbers.hpp"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <vector>

namespace korvalen::cli {
namespace {

[[noreturn]] void refuse(std::string_view argument, std::string_view expected, std::string_view text) {
  throw UsageError(fmt::format("{}: expected {}, got \"{}\"", argument, expected, text));
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (true) {
    const auto end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (end == std::string_view::npos) {
      return parts;
    }
    start = end + 1;
  }
}

std::optional<double> number(std::string_view text) {
  auto value = numbers::decimal(text);
  return value && std::isfinite(*value) ? value : std::nullopt;
}

}  // namespace

double parseNumber(std::string_view text, std::string_view argument) {
  if (auto value = number(text)) {
    return *value;
  }
  refuse(argument, "a number", text);
}

std::int64_t parseInteger(std::string_view text, std::string_view argument) {
  if (auto value = numbers::wholeNumber(text)) {
    return *value;
  }
  refuse(argument, "a whole number", text);
}

double parseInRange(std::string_view text, std::string_view argument, double low, double high) {
  const double value = parseNumber(text, argument);
  if (value < low || value > high) {
    refuse(argument, fmt::format("a number from {} to {}", formatNumber(low), formatNumber(high)), text);
  }
  return value;
}

Size parseSize(std::string_view text, std::string_view argument) {
  const auto parts = split(text, 'x');
  constexpr std::int64_t largest = 1'000'000;
  if (parts.size() == 2) {
    const auto width = numbers::wholeNumber(parts[0]);
    const auto height = numbers::wholeNumber(parts[1]);
    if (width && height && *width >= 0 && *height >= 0 && *width <= largest && *height <= largest) {
      return Size{*width, *height};
    }
  }
  refuse(argument, "WIDTHxHEIGHT in whole numbers from 0 to 1000000", text);
}

CropRect parseCrop(std::string_view text, std::string_view argument) {
  const auto parts = split(text, ',');
  if (parts.size() == 4) {
    const auto x = number(parts[0]);
    const auto y = number(parts[1]);
    const auto width = number(parts[2]);
    const auto height = number(parts[3]);
    if (x && y && width && height && *x >= 0 && *x <= 1 && *y >= 0 && *y <= 1 && *width > 0 && *width <= 1 &&
        *height > 0 && *height <= 1) {
      return CropRect{*x, *y, *width, *height};
    }
  }
  refuse(argument, "X,Y,W,H as fractions of the frame (X and Y from 0 to 1, W and H above 0 up to 1)", text);
}

TrimRange parseTrim(std::string_view text, std::string_view argument) {
  const auto parts = split(text, ':');
  if (parts.size() == 2) {
    const auto start = number(parts[0]);
    const bool open = parts[1].empty() || parts[1] == "end";
    const auto end = open ? std::optional<double>(std::numeric_limits<double>::infinity()) : number(parts[1]);
    if (start && end && *start >= 0 && *end > *start) {
      return TrimRange{*start, *end};
    }
  }
  refuse(argument, "START:END in seconds with END after START (END may be \"end\")", text);
}

bool parseSwitch(std::string_view text, std::string_view argument) {
  if (text == "on") {
    return true;
  }
  if (text == "off") {
    return false;
  }
  refuse(argument, "on or off", text);
}

WallpaperKind parseKind(std::string_view text, std::string_view argument) {
  if (auto kind = parseWallpaperKind(text)) {
    return *kind;
  }
  refuse(argument, "one of none, solid, image, video, web", text);
}

FitMode parseFit(std::string_view text, std::string_view argument) {
  if (auto fit = parseFitMode(text)) {
    return *fit;
  }
  refuse(argument, "one of fill, fit, stretch, center", text);
}

const std::string& requireText(const std::string& text, std::string_view argument) {
  if (!json::isValidUtf8(text)) {
    throw UsageError(fmt::format("{} {} is not valid UTF-8 text", argument, json::compact(json::Json(text))));
  }
  return text;
}

std::vector<std::string> splitList(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (const auto piece : split(text, separator)) {
    if (!piece.empty()) {
      pieces.emplace_back(piece);
    }
  }
  return pieces;
}

std::expected<json::Json, std::string> readJsonFile(const std::string& path) {
  auto bytes = files::read(path);
  if (!bytes) {
    throw Failure(bytes.error());
  }
  return json::parse(*bytes);
}

std::string formatNumber(double value) {
  if (!std::isfinite(value)) {
    return fmt::format("{}", value);
  }
  // Six decimals are finer than any pixel or setting a person reads; trailing zeros go.
  auto text = fmt::format("{:.6f}", value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') {
    text.pop_back();
  }
  return text == "-0" ? "0" : text;
}

}  // namespace korvalen::cli
