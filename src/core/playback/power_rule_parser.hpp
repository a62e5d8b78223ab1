// The tiny rule language over the power settings ("fullscreen=pause", "battery=mute") and
// the one-line description of them.
#pragma once

#include "core/playback/power_settings.hpp"

#include <array>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen {

// The rule word of an action: "keep", "mute", "pause", "stop".
std::string_view ruleWord(PauseAction action);
// An action from its ordering value 0...3; absent otherwise.
std::optional<PauseAction> pauseActionFromRaw(std::int64_t raw);

namespace PowerRuleParser {

inline constexpr std::array<std::string_view, 9> triggers{
    "fullscreen", "maximized", "focused", "occluded", "battery", "power-saving", "locked", "rdp", "display-off"};
inline constexpr std::array<std::string_view, 4> actions{"keep", "mute", "pause", "stop"};

struct RuleError {
  enum class Kind { malformed, unknownTrigger, unknownAction };
  Kind kind = Kind::malformed;
  std::string spec;  // the rule as written
  std::string part;  // the trigger or action as written, trimmed (empty for malformed)

  [[nodiscard]] std::string description() const;
  bool operator==(const RuleError&) const = default;
};

// A copy of `power` with the field the rule names set to its action. The action is checked
// before the trigger.
[[nodiscard]] std::expected<PowerSettings, RuleError> apply(const PowerSettings& power, std::string_view rule);
std::optional<PauseAction> parseAction(std::string_view word);
std::optional<GpuPreference> parseGpu(std::string_view word);
// "fullscreen=pause maximized=keep focused=keep occluded=keep(>90%) battery=keep ..."
std::string describe(const PowerSettings& power);

}  // namespace PowerRuleParser
}  // namespace korvalen
