#include "core/playback/playback_policy.hpp"

#include "core/support/enum_words.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace korvalen {
namespace {

struct Trigger {
  std::string_view reason;
  PauseAction action;
};

void add(std::vector<Trigger>& triggers, bool condition, std::string_view reason, PauseAction action) {
  if (condition && action != PauseAction::keepRunning) {
    triggers.push_back({reason, action});
  }
}

MonitorPlayback resolve(const std::string& monitorId, const std::vector<Trigger>& triggers) {
  MonitorPlayback playback{monitorId, PlaybackMode::running, false, std::nullopt};
  if (triggers.empty()) {
    return playback;
  }
  PauseAction strongest = PauseAction::keepRunning;
  std::vector<std::string_view> reasons;
  for (const auto& trigger : triggers) {
    strongest = std::max(strongest, trigger.action);
    if (std::find(reasons.begin(), reasons.end(), trigger.reason) == reasons.end()) {
      reasons.push_back(trigger.reason);
    }
  }
  playback.mode = strongest == PauseAction::stop    ? PlaybackMode::stopped
                  : strongest == PauseAction::pause ? PlaybackMode::paused
                                                    : PlaybackMode::running;
  playback.muted = true;
  playback.reason = fmt::format("{}", fmt::join(reasons, ", "));
  return playback;
}

constexpr auto activityFields = [](auto& coder, auto& activity) {
  coder.required("monitorId", activity.monitorId);
  coder.defaulted("hasFullscreenWindow", activity.hasFullscreenWindow);
  coder.defaulted("hasMaximizedWindow", activity.hasMaximizedWindow);
  coder.defaulted("hasForegroundWindow", activity.hasForegroundWindow);
  coder.defaulted("coveredFraction", activity.coveredFraction);
};

constexpr auto stateFields = [](auto& coder, auto& state) {
  coder.defaulted("onBattery", state.onBattery);
  coder.defaulted("powerSaving", state.powerSaving);
  coder.defaulted("locked", state.locked);
  coder.defaulted("remoteSession", state.remoteSession);
  coder.defaulted("displayOff", state.displayOff);
  coder.defaulted("suspended", state.suspended);
  coder.defaulted("manuallyPaused", state.manuallyPaused);
  coder.defaulted("screensaverShowing", state.screensaverShowing);
  coder.defaulted("reducedMotion", state.reducedMotion);
  coder.defaulted("screenShareAppRunning", state.screenShareAppRunning);
  coder.defaulted("screenShareSafe", state.screenShareSafe);
  coder.defaulted("contentFlashes", state.contentFlashes);
  coder.defaulted("monitors", state.monitors);
};

}  // namespace

std::string_view toString(PlaybackMode mode) {
  switch (mode) {
    case PlaybackMode::running:
      return "running";
    case PlaybackMode::paused:
      return "paused";
    case PlaybackMode::stopped:
      return "stopped";
  }
  return "running";
}

std::optional<PlaybackMode> playbackModeNamed(std::string_view word) {
  for (const auto mode : {PlaybackMode::running, PlaybackMode::paused, PlaybackMode::stopped}) {
    if (toString(mode) == word) {
      return mode;
    }
  }
  return std::nullopt;
}

std::string MonitorPlayback::description() const {
  std::string text = fmt::format("{}: {}", monitorId, toString(mode));
  if (muted) {
    text += " muted";
  }
  if (reason) {
    text += fmt::format(" ({})", *reason);
  }
  return text;
}

PlaybackMode PlaybackDecision::decoderMode() const {
  const auto any = [this](PlaybackMode mode) {
    return std::any_of(monitors.begin(), monitors.end(), [mode](const auto& m) { return m.mode == mode; });
  };
  if (monitors.empty() || any(PlaybackMode::running)) {
    return PlaybackMode::running;
  }
  return any(PlaybackMode::paused) ? PlaybackMode::paused : PlaybackMode::stopped;
}

bool PlaybackDecision::muted() const {
  if (monitors.empty()) {
    return false;
  }
  const bool anyRunning =
      std::any_of(monitors.begin(), monitors.end(), [](const auto& m) { return m.mode == PlaybackMode::running; });
  return !anyRunning || std::any_of(monitors.begin(), monitors.end(), [](const auto& m) { return m.muted; });
}

bool PlaybackDecision::allRunning() const {
  return std::all_of(monitors.begin(), monitors.end(),
                     [](const auto& m) { return m.mode == PlaybackMode::running && !m.muted; });
}

std::string PlaybackDecision::describe() const {
  const double motion = playbackRate * 100;
  if (monitors.empty()) {
    return fmt::format("no monitors; fps cap {}; motion {:.0f}%", fpsCap, motion);
  }
  if (allRunning()) {
    return fmt::format("running on all monitors; fps cap {}; motion {:.0f}%", fpsCap, motion);
  }
  std::vector<std::string> parts;
  for (const auto& monitor : monitors) {
    parts.push_back(monitor.description());
  }
  return fmt::format("{}; decoders {}; fps cap {}; motion {:.0f}%", fmt::join(parts, "; "), toString(decoderMode()),
                     fpsCap, motion);
}

std::string PlaybackDecision::stoppedBecause() const {
  std::vector<std::string> reasons;
  for (const auto& monitor : monitors) {
    if (monitor.mode != PlaybackMode::stopped || !monitor.reason) {
      continue;
    }
    std::string_view rest = *monitor.reason;
    while (!rest.empty()) {
      const auto comma = rest.find(", ");
      const auto reason = rest.substr(0, comma);
      if (reason != manualPauseReason && std::find(reasons.begin(), reasons.end(), reason) == reasons.end()) {
        reasons.emplace_back(reason);
      }
      rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 2);
    }
  }
  return fmt::format("{}", fmt::join(reasons, ", "));
}

PlaybackDecision PlaybackPolicy::evaluate(const PowerSettings& powerSettings,
                                          const AccessibilitySettings& accessibilitySettings,
                                          const SystemState& state) {
  const auto power = powerSettings.sanitised();
  const auto access = accessibilitySettings.sanitised();
  std::vector<Trigger> global;
  add(global, state.manuallyPaused, PlaybackDecision::manualPauseReason, PauseAction::pause);
  add(global, state.suspended, "suspending", PauseAction::pause);
  add(global, state.screensaverShowing, "screensaver showing", PauseAction::pause);
  add(global, state.screenShareSafe, "screen-share safe mode", PauseAction::pause);
  add(global, state.reducedMotion, "reduced motion", access.onReducedMotion);
  add(global, state.screenShareAppRunning, "meeting app running", access.onScreenShare);
  add(global, state.contentFlashes && access.flashGuard, "content flashes (WCAG 2.3.1)", access.onFlashing);
  add(global, state.powerSaving, "power saving", power.onPowerSaving);
  add(global, state.onBattery, "on battery", power.onBattery);
  add(global, state.locked, "locked", power.onLocked);
  add(global, state.remoteSession, "remote desktop", power.onRemoteDesktop);
  add(global, state.displayOff, "display off", power.onDisplayOff);

  PlaybackDecision decision;
  for (const auto& monitor : state.monitors) {
    // Without per-monitor mode a full-screen window anywhere counts everywhere.
    const auto anyOf = [&](auto condition) {
      return power.perMonitor ? condition(monitor)
                              : std::any_of(state.monitors.begin(), state.monitors.end(), condition);
    };
    auto triggers = global;
    add(triggers, anyOf([](const MonitorActivity& m) { return m.hasFullscreenWindow; }), "fullscreen",
        power.onFullscreen);
    add(triggers, anyOf([](const MonitorActivity& m) { return m.hasMaximizedWindow; }), "maximized window",
        power.onMaximized);
    add(triggers, anyOf([](const MonitorActivity& m) { return m.hasForegroundWindow; }), "app in focus",
        power.onFocused);
    add(triggers, anyOf([&](const MonitorActivity& m) { return m.coveredFraction >= power.occludedCoverage; }),
        "covered", power.onOccluded);
    decision.monitors.push_back(resolve(monitor.monitorId, triggers));
  }
  decision.fpsCap = state.onBattery || state.powerSaving ? std::min(power.fpsCap, power.fpsCapOnBattery) : power.fpsCap;
  decision.playbackRate = access.motionScale;
  return decision;
}

PlaybackDecision PlaybackPolicy::evaluate(const PowerSettings& power, const SystemState& state) {
  return evaluate(power, AccessibilitySettings{}, state);
}

namespace json {

KORVALEN_CODING_FROM_FIELDS(MonitorActivity, activityFields)

KORVALEN_CODING_FROM_FIELDS(SystemState, stateFields)

Result<PlaybackMode> Coding<PlaybackMode>::decode(const Json& json, const Options&) {
  return decodeWord<PlaybackMode>(json, playbackModeNamed, "playback mode");
}

Json Coding<MonitorPlayback>::encode(const MonitorPlayback& playback, const Options& options) {
  ObjectWriter out(options);
  out.put("monitorId", playback.monitorId)
      .put("mode", playback.mode)
      .put("muted", playback.muted)
      .putIfPresent("reason", playback.reason);
  return out.take();
}

Json Coding<PlaybackDecision>::encode(const PlaybackDecision& decision, const Options& options) {
  return ObjectWriter(options)
      .put("monitors", decision.monitors)
      .put("fpsCap", decision.fpsCap)
      .put("playbackRate", decision.playbackRate)
      .take();
}

}  // namespace json
}  // namespace korvalen
