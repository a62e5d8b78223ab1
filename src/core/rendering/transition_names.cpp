#include "core/rendering/transition_names.hpp"

#include "core/support/text.hpp"

#include <array>

namespace korvalen::TransitionNames {

std::optional<std::string_view> canonicalId(std::string_view text) {
  // The built-in effects arrive with the transition registry; the cross blend is always there.
  static constexpr std::array<std::string_view, 1> ids{"crossBlend"};
  const auto wanted = text::lowercased(text::trimWhitespaceAndNewlines(text));
  for (const auto id : ids) {
    if (text::lowercased(id) == wanted) {
      return id;
    }
  }
  return std::nullopt;
}

}  // namespace korvalen::TransitionNames
