#include "core/wallpaper/playback_controller.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace korvalen::wallpaper {

namespace {

const MonitorAnswer* answerFor(const PlannerAnswer& answer, const std::string& monitorId) {
  const auto found = std::find_if(answer.monitors.begin(), answer.monitors.end(),
                                  [&](const MonitorAnswer& a) { return a.monitorId == monitorId; });
  return found != answer.monitors.end() ? &*found : &answer.shared;
}

bool playsSound(const WallpaperLibrary& library, const std::optional<std::string>& itemID) {
  const LibraryItem* item = itemID ? library.find(*itemID) : nullptr;
  return item != nullptr && item->kind == WallpaperKind::video && item->hasAudio.value_or(true);
}

}  // namespace

std::string PlaybackController::coveredReason(const std::string& program) {
  return fmt::format("covered by {}'s desktop window", program);
}

Directives PlaybackController::decide(const ControllerInput& input) {
  const auto& settings = input.settings;
  SystemState state = input.system;
  state.monitors.clear();
  for (const auto& facts : input.monitors) {
    state.monitors.push_back(facts.activity);
  }
  Directives out;
  // One evaluation per monitor: the user's pause and a flash violation belong to one monitor,
  // while the policy reads them as the system's.
  for (std::size_t index = 0; index < input.monitors.size(); ++index) {
    const auto& facts = input.monitors[index];
    const MonitorAnswer& answer = *answerFor(input.answer, facts.activity.monitorId);
    SystemState own = state;
    own.manuallyPaused = answer.paused;
    own.contentFlashes = facts.flashing;
    const auto decision = PlaybackPolicy::evaluate(settings.power, settings.accessibility, own);
    out.fpsCap = decision.fpsCap;
    out.rate = decision.playbackRate;
    const auto& playback = decision.monitors[index];
    MonitorDirective directive{facts.activity.monitorId, answer.itemID,   answer.held,  playback.mode,
                               playback.muted,           playback.reason, answer.paused};
    if (facts.coveredBy && directive.mode == PlaybackMode::running) {
      // Decoding for nobody to see: hold the frame until the other window goes.
      directive.mode = PlaybackMode::paused;
      directive.muted = true;
      directive.reason = coveredReason(*facts.coveredBy);
    }
    if (!answer.itemID) {
      directive.mode = PlaybackMode::stopped;
      directive.muted = true;
      if (!directive.reason) {
        directive.reason = answer.explanation.empty() ? std::string("nothing to show") : answer.explanation;
      }
    }
    out.monitors.push_back(std::move(directive));
  }
  if (input.monitors.empty()) {
    const auto decision = PlaybackPolicy::evaluate(settings.power, settings.accessibility, state);
    out.fpsCap = decision.fpsCap;
    out.rate = decision.playbackRate;
  }
  // Sound, when the user asked for it, from the first monitor that plays a video aloud.
  const auto last = settings.lastWallpaper.value_or(LastWallpaper{});
  if (!last.muted && last.volume > 0) {
    for (auto& directive : out.monitors) {
      if (directive.mode == PlaybackMode::running && !directive.muted && !directive.held &&
          playsSound(input.library, directive.itemID)) {
        directive.soundLevel = std::min(last.volume, 1.0);
        break;
      }
    }
  }
  return out;
}

FlashResponsePlan::Decision PlaybackController::flashResponse(const AccessibilitySettings& accessibility,
                                                              const MonitorAnswer& answer) {
  const bool playlist = answer.reason == PlanReason::activePlaylist || answer.reason == PlanReason::assignmentPlaylist;
  return FlashResponsePlan::decide(accessibility.skipFlashingWallpaper, playlist);
}

std::optional<PlaybackController::Handover> PlaybackController::chooseHandover(const HandoverInput& input) {
  const double seconds = input.transitions.sanitised().effectiveSeconds();
  if (!(seconds > 0)) {
    return std::nullopt;
  }
  if (!TransitionBudget::hasRoomForHandover(input.runningIncoming, input.incoming, input.transitions.maxConcurrent)) {
    return std::nullopt;
  }
  const auto requested =
      TransitionBudget::requested(input.incomingTransition, input.outgoingTransition, input.transitions.defaultId);
  const auto calm = TransitionBudget::forReducedMotion(requested, input.reducedMotion);
  auto choice = TransitionBudget::choose(calm, seconds, input.incomingNeedsDecoder, input.sharesDecoderWithOutgoing,
                                         input.liveDecoders, input.maxDecoders);
  if (!choice.effect) {
    return std::nullopt;
  }
  return Handover{std::move(*choice.effect), TransitionTiming(seconds).seconds, std::move(choice.note)};
}

}  // namespace korvalen::wallpaper
