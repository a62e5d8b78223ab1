// Which transition ids exist. The settings ask this when they repair a transition id.
#pragma once

#include <optional>
#include <string_view>

namespace korvalen::TransitionNames {

// The registry's own id for a transition named `text` (trimmed, any case), or absent.
std::optional<std::string_view> canonicalId(std::string_view text);

}  // namespace korvalen::TransitionNames
