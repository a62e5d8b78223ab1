#include "core/rendering/fit_mode.hpp"

#include "core/support/enum_words.hpp"

namespace korvalen {
namespace {

constexpr EnumWords<FitMode, 4> fitWords{{
    {FitMode::fill, "fill"},
    {FitMode::fit, "fit"},
    {FitMode::stretch, "stretch"},
    {FitMode::center, "center"},
}};

}  // namespace

std::string_view toString(FitMode fit) {
  return wordFor(fitWords, fit);
}

std::optional<FitMode> parseFitMode(std::string_view text) {
  return valueFor(fitWords, text);
}

namespace json {

Result<FitMode> Coding<FitMode>::decode(const Json& json, const Options&) {
  return decodeWord<FitMode>(json, parseFitMode, "fit mode");
}

}  // namespace json
}  // namespace korvalen
