// How a picture is fitted to a surface: fill (cover, cropping), fit (inside, with bars),
// stretch (to the surface's shape) or center (at its own size). Written as those words.
#pragma once

#include "core/support/json.hpp"

#include <optional>
#include <string_view>

namespace korvalen {

enum class FitMode { fill, fit, stretch, center };

std::string_view toString(FitMode fit);
// Absent for a word that is not one of the four (exact, case-sensitive).
std::optional<FitMode> parseFitMode(std::string_view text);

namespace json {
template <>
struct Coding<FitMode> {
  static Json encode(FitMode fit, const Options&) { return std::string(toString(fit)); }
  [[nodiscard]] static Result<FitMode> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
