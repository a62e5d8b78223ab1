// The live wallpaper's decisions across monitors: what the planner answered, the user's own
// pauses, the session (power, lock, sleep) and each monitor's windows go through the playback
// policy one monitor at a time, giving every monitor its item, mode, reason and sound level.
// Sound comes from one monitor only. Also the choice of effect for a hand-over. Pure: no
// clock, no files.
#pragma once

#include "core/app/settings.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/planning/wallpaper_planner.hpp"
#include "core/playback/flash_guard.hpp"
#include "core/playback/playback_policy.hpp"
#include "core/rendering/transitions.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace korvalen::wallpaper {

// What is known about one monitor beyond the planner's answer.
struct MonitorFacts {
  MonitorActivity activity;              // from the window list; `monitorId` names the monitor
  std::optional<std::string> coveredBy;  // another program's desktop window hides ours
  bool flashing = false;                 // the flash guard tripped on what it shows
};

struct MonitorDirective {
  std::string monitorId;
  std::optional<std::string> itemID;
  bool held = false;  // shown frozen, never played: the item is known to flash
  PlaybackMode mode = PlaybackMode::running;
  bool muted = true;
  std::optional<std::string> reason;
  bool userPaused = false;
  double soundLevel = 0;  // above 0 on at most one monitor
  bool operator==(const MonitorDirective&) const = default;
};

struct Directives {
  std::vector<MonitorDirective> monitors;  // in the order of the facts
  std::int64_t fpsCap = 30;
  double rate = 1;
  bool operator==(const Directives&) const = default;
};

struct ControllerInput {
  const KorvalenSettings& settings;
  const WallpaperLibrary& library;
  const PlannerAnswer& answer;
  SystemState system;  // the session's part; its monitors are not looked at
  std::vector<MonitorFacts> monitors;
};

namespace PlaybackController {

// The reason a monitor hidden under another program's desktop window gives.
std::string coveredReason(const std::string& program);

Directives decide(const ControllerInput& input);

// How a monitor's flash violation is answered: skip to the next item only when the user asks
// for it and a playlist drives the monitor; otherwise it pauses.
FlashResponsePlan::Decision flashResponse(const AccessibilitySettings& accessibility, const MonitorAnswer& answer);

struct Handover {
  TransitionEffect effect;
  double seconds = 0;
  std::optional<std::string> note;  // why another effect stands in
};
struct HandoverInput {
  const TransitionSettings& transitions;
  std::optional<std::string> incomingTransition;  // the items' own choices
  std::optional<std::string> outgoingTransition;
  bool reducedMotion = false;
  bool incomingNeedsDecoder = true;
  bool sharesDecoderWithOutgoing = false;
  std::int64_t liveDecoders = 0;
  std::int64_t maxDecoders = 1;
  std::vector<std::string> runningIncoming;  // the items other monitors are handing over to
  std::string incoming;
};
// Absent: cut (transitions off, or too many hand-overs under way).
std::optional<Handover> chooseHandover(const HandoverInput& input);

}  // namespace PlaybackController

}  // namespace korvalen::wallpaper
