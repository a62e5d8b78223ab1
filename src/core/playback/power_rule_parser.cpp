#include "core/playback/power_rule_parser.hpp"

#include "core/support/precondition.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace korvalen {
namespace {

template <std::size_t N>
std::string joined(const std::array<std::string_view, N>& words) {
  std::string out;
  for (const auto word : words) {
    out += (out.empty() ? "" : ", ") + std::string(word);
  }
  return out;
}

template <class Words>
bool among(std::string_view word, const Words& words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool among(std::string_view word, std::initializer_list<std::string_view> words) {
  return among<std::initializer_list<std::string_view>>(word, words);
}

PauseAction PowerSettings::*triggerField(std::string_view trigger) {
  using Field = PauseAction PowerSettings::*;
  static const std::vector<std::pair<std::vector<std::string_view>, Field>> synonyms{
      {{"fullscreen"}, &PowerSettings::onFullscreen},
      {{"maximized", "maximised"}, &PowerSettings::onMaximized},
      {{"focused", "focus"}, &PowerSettings::onFocused},
      {{"occluded", "covered"}, &PowerSettings::onOccluded},
      {{"battery"}, &PowerSettings::onBattery},
      {{"power-saving", "battery-saver", "saver", "energy-saver"}, &PowerSettings::onPowerSaving},
      {{"locked", "lock"}, &PowerSettings::onLocked},
      {{"rdp", "remote", "remote-desktop"}, &PowerSettings::onRemoteDesktop},
      {{"display-off", "monitor-off", "screen-off"}, &PowerSettings::onDisplayOff},
  };
  for (const auto& [words, field] : synonyms) {
    if (among(trigger, words)) {
      return field;
    }
  }
  return nullptr;
}

}  // namespace

std::string_view ruleWord(PauseAction action) {
  switch (action) {
    case PauseAction::keepRunning:
      return "keep";
    case PauseAction::mute:
      return "mute";
    case PauseAction::pause:
      return "pause";
    case PauseAction::stop:
      return "stop";
  }
  return "keep";
}

std::optional<PauseAction> pauseActionFromRaw(std::int64_t raw) {
  if (raw < 0 || raw > 3) {
    return std::nullopt;
  }
  return static_cast<PauseAction>(raw);
}

std::string PowerRuleParser::RuleError::description() const {
  switch (kind) {
    case Kind::malformed:
      return fmt::format("rule '{}' must look like trigger=action, e.g. fullscreen=pause", spec);
    case Kind::unknownTrigger:
      return fmt::format("unknown trigger '{}' in '{}'; expected one of {}", part, spec, joined(triggers));
    case Kind::unknownAction:
      return fmt::format("unknown action '{}' in '{}'; expected one of {}", part, spec, joined(actions));
  }
  return spec;
}

std::optional<PauseAction> PowerRuleParser::parseAction(std::string_view word) {
  const auto normal = text::lowercased(text::trimSpacesAndTabs(word));
  if (among(normal, {"keep", "keeprunning", "keep-running", "run", "ignore"})) {
    return PauseAction::keepRunning;
  }
  if (normal == "mute") {
    return PauseAction::mute;
  }
  if (normal == "pause") {
    return PauseAction::pause;
  }
  if (among(normal, {"stop", "free"})) {
    return PauseAction::stop;
  }
  return std::nullopt;
}

std::optional<GpuPreference> PowerRuleParser::parseGpu(std::string_view word) {
  const auto normal = text::lowercased(text::trimSpacesAndTabs(word));
  if (normal == "auto") {
    return GpuPreference::automatic;
  }
  if (among(normal, {"integrated", "igpu", "low-power", "minimum-power"})) {
    return GpuPreference::integrated;
  }
  if (among(normal, {"discrete", "dgpu", "high-performance"})) {
    return GpuPreference::discrete;
  }
  return std::nullopt;
}

std::expected<PowerSettings, PowerRuleParser::RuleError> PowerRuleParser::apply(const PowerSettings& power,
                                                                                std::string_view rule) {
  const std::string spec(rule);
  const auto equals = rule.find('=');
  if (equals == std::string_view::npos) {
    return std::unexpected(RuleError{RuleError::Kind::malformed, spec, ""});
  }
  const auto trigger = text::trimSpacesAndTabs(rule.substr(0, equals));
  const auto actionWord = text::trimSpacesAndTabs(rule.substr(equals + 1));
  if (trigger.empty() || actionWord.empty()) {
    return std::unexpected(RuleError{RuleError::Kind::malformed, spec, ""});
  }
  const auto action = parseAction(actionWord);
  if (!action) {
    return std::unexpected(RuleError{RuleError::Kind::unknownAction, spec, actionWord});
  }
  auto normal = text::lowercased(trigger);
  std::replace(normal.begin(), normal.end(), '_', '-');
  const auto field = triggerField(normal);
  if (field == nullptr) {
    return std::unexpected(RuleError{RuleError::Kind::unknownTrigger, spec, trigger});
  }
  PowerSettings out = power;
  out.*field = *action;
  return out;
}

std::string PowerRuleParser::describe(const PowerSettings& power) {
  const double percent = std::round(power.occludedCoverage * 100);
  KORVALEN_PRECONDITION(std::isfinite(percent) && percent >= -9223372036854775808.0 && percent < 9223372036854775808.0);
  return fmt::format(
      "fullscreen={} maximized={} focused={} occluded={}(>{}%) battery={} power-saving={} locked={} rdp={} "
      "display-off={} per-monitor={} fps={}/{} on battery gpu={}",
      ruleWord(power.onFullscreen), ruleWord(power.onMaximized), ruleWord(power.onFocused), ruleWord(power.onOccluded),
      static_cast<std::int64_t>(percent), ruleWord(power.onBattery), ruleWord(power.onPowerSaving),
      ruleWord(power.onLocked), ruleWord(power.onRemoteDesktop), ruleWord(power.onDisplayOff),
      power.perMonitor ? "on" : "off", power.fpsCap, power.fpsCapOnBattery, toString(power.gpu));
}

}  // namespace korvalen
