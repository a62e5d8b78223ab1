// Parsing of the tool's value arguments (sizes, rectangles, numbers, switches). Every
// failure is a `UsageError` whose text names the argument, shown as one line, exit 2.
#pragma once

#include "core/library/library_item.hpp"
#include "core/rendering/crop_rect.hpp"
#include "core/rendering/trim_range.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <expected>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::cli {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failed command whose message is already one line (exit 1).
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Size {
  std::int64_t width = 0;
  std::int64_t height = 0;
};

// Locale-free number in "." notation; finite only.
double parseNumber(std::string_view text, std::string_view argument);
// A whole number in the signed 64-bit range.
std::int64_t parseInteger(std::string_view text, std::string_view argument);
// "WxH" with whole numbers from 0 to 1,000,000 each.
Size parseSize(std::string_view text, std::string_view argument);
// "X,Y,W,H" with 0 <= X, Y <= 1 and 0 < W, H <= 1.
CropRect parseCrop(std::string_view text, std::string_view argument);
// "START:END" in seconds; an empty END or "end" means to the end of the clip (infinite).
TrimRange parseTrim(std::string_view text, std::string_view argument);
// "on" or "off".
bool parseSwitch(std::string_view text, std::string_view argument);
WallpaperKind parseKind(std::string_view text, std::string_view argument);
FitMode parseFit(std::string_view text, std::string_view argument);
// A number within [low, high].
double parseInRange(std::string_view text, std::string_view argument, double low, double high);

// `text` when it is valid UTF-8 (what every JSON file we write must hold), else a
// `UsageError` naming the argument.
const std::string& requireText(const std::string& text, std::string_view argument);

// The non-empty pieces of "a,b,,c" split at `separator`.
std::vector<std::string> splitList(std::string_view text, char separator = ',');

// A file's JSON: a file that cannot be read is a `Failure`; text that is not JSON comes
// back as the parser's one-line message, for the caller to judge.
[[nodiscard]] std::expected<json::Json, std::string> readJsonFile(const std::string& path);

// A number for people: at most six decimals, no trailing zeros ("1", "0.05", "inf").
std::string formatNumber(double value);

}  // namespace korvalen::cli
