#include "core/playback/power_settings.hpp"

#include "core/support/enum_words.hpp"
#include "core/support/numbers.hpp"
#include "core/support/text.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen {
namespace {

constexpr EnumWords<PauseAction, 4> actionWords{{
    {PauseAction::keepRunning, "keepRunning"},
    {PauseAction::mute, "mute"},
    {PauseAction::pause, "pause"},
    {PauseAction::stop, "stop"},
}};

constexpr EnumWords<GpuPreference, 3> gpuWords{{
    {GpuPreference::automatic, "auto"},
    {GpuPreference::integrated, "integrated"},
    {GpuPreference::discrete, "discrete"},
}};

constexpr auto powerFields = [](auto& coder, auto& power) {
  coder.lenient("onFullscreen", power.onFullscreen);
  coder.lenient("onMaximized", power.onMaximized);
  coder.lenient("onFocused", power.onFocused);
  coder.lenient("onOccluded", power.onOccluded);
  coder.lenient("occludedCoverage", power.occludedCoverage);
  coder.lenient("perMonitor", power.perMonitor);
  coder.lenient("onBattery", power.onBattery);
  coder.lenient("onPowerSaving", power.onPowerSaving);
  coder.lenient("onLocked", power.onLocked);
  coder.lenient("onRemoteDesktop", power.onRemoteDesktop);
  coder.lenient("onDisplayOff", power.onDisplayOff);
  coder.lenient("fpsCap", power.fpsCap);
  coder.lenient("fpsCapOnBattery", power.fpsCapOnBattery);
  coder.lenient("gpu", power.gpu);
};

}  // namespace

std::string_view toString(PauseAction action) {
  return wordFor(actionWords, action);
}

std::optional<PauseAction> parseSettingsAction(std::string_view text) {
  const auto word = text::lowercased(text::trimSpacesAndTabs(text));
  if (word == "keeprunning" || word == "keep") {
    return PauseAction::keepRunning;
  }
  if (word == "mute") {
    return PauseAction::mute;
  }
  if (word == "pause") {
    return PauseAction::pause;
  }
  if (word == "stop") {
    return PauseAction::stop;
  }
  return std::nullopt;
}

std::string_view toString(GpuPreference preference) {
  return wordFor(gpuWords, preference);
}

std::optional<GpuPreference> parseGpuPreference(std::string_view text) {
  return valueFor(gpuWords, text);
}

PowerSettings PowerSettings::sanitised() const {
  PowerSettings out = *this;
  out.occludedCoverage = numbers::clampedOr(occludedCoverage, 0.1, 1.0, 0.9);
  out.fpsCap = std::clamp(fpsCap, minimumFpsCap, maximumFpsCap);
  out.fpsCapOnBattery = std::clamp(fpsCapOnBattery, minimumFpsCap, maximumFpsCap);
  return out;
}

namespace json {

Result<PauseAction> Coding<PauseAction>::decode(const Json& json, const Options&) {
  if (!json.is_string()) {
    return std::unexpected(typeError("an action", json));
  }
  const auto& word = json.get_ref<const std::string&>();
  if (auto action = parseSettingsAction(word)) {
    return *action;
  }
  return std::unexpected(Error{"", "unknown action '" + word + "'"});
}

Result<GpuPreference> Coding<GpuPreference>::decode(const Json& json, const Options&) {
  return decodeWord<GpuPreference>(json, parseGpuPreference, "graphics preference");
}

KORVALEN_CODING_FROM_FIELDS(PowerSettings, powerFields)

}  // namespace json
}  // namespace korvalen
