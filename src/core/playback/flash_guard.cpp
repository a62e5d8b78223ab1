#include "core/playback/flash_guard.hpp"

#include "core/support/precondition.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

namespace korvalen {

FlashResponsePlan::Decision FlashResponsePlan::decide(bool skipRequested, bool playlistRunning) {
  if (!skipRequested) {
    return {FlashOutcome::pause, "content flashes beyond the WCAG limit; playback paused"};
  }
  if (playlistRunning) {
    return {FlashOutcome::skipToNext, "content flashes beyond the WCAG limit; skipping to the next wallpaper"};
  }
  return {FlashOutcome::pause,
          "content flashes beyond the WCAG limit; there is no playlist to skip to, so playback paused instead"};
}

bool RestoreDecision::shouldRestore(std::optional<bool> itemKnownToFlash, bool remembered,
                                    const AccessibilitySettings& accessibility) {
  const bool flashes = itemKnownToFlash.value_or(false) || remembered;
  if (!flashes) {
    return true;
  }
  return !accessibility.flashGuard || accessibility.onFlashing == PauseAction::keepRunning;
}

std::string RestoreDecision::explain(std::string_view name, std::int64_t peak, bool inLibrary) {
  return fmt::format(
      "not restoring '{}': it is known to flash (peaked at {}/s). {}change what happens on flashing in "
      "Settings > Accessibility.",
      name, peak,
      inLibrary ? "Crop or trim past the flashing part, choose 'Check it again' on it, or "
                : "Import it into your library to crop or trim past the flashing part, or ");
}

std::string_view FlashGuard::rawValue(FlashGuardChoice choice) {
  switch (choice) {
    case FlashGuardChoice::off:
      return "off";
    case FlashGuardChoice::warn:
      return "warn";
    case FlashGuardChoice::pause:
      return "pause";
    case FlashGuardChoice::skip:
      return "skip";
  }
  return "off";
}

std::optional<FlashGuardChoice> FlashGuard::fromRawValue(std::string_view raw) {
  for (const auto choice : allChoices) {
    if (rawValue(choice) == raw) {
      return choice;
    }
  }
  return std::nullopt;
}

std::string_view FlashGuard::label(FlashGuardChoice choice) {
  switch (choice) {
    case FlashGuardChoice::off:
      return "Don't check for flashing";
    case FlashGuardChoice::warn:
      return "Warn me, keep playing";
    case FlashGuardChoice::pause:
      return "Pause it and tell me";
    case FlashGuardChoice::skip:
      return "Skip to the next wallpaper";
  }
  return "";
}

FlashGuardChoice FlashGuard::read(const AccessibilitySettings& accessibility) {
  if (!accessibility.flashGuard) {
    return FlashGuardChoice::off;
  }
  if (accessibility.onFlashing == PauseAction::keepRunning) {
    return FlashGuardChoice::warn;
  }
  return accessibility.skipFlashingWallpaper ? FlashGuardChoice::skip : FlashGuardChoice::pause;
}

AccessibilitySettings FlashGuard::write(FlashGuardChoice choice, const AccessibilitySettings& accessibility) {
  AccessibilitySettings out = accessibility;
  out.flashGuard = choice != FlashGuardChoice::off;
  out.onFlashing = choice == FlashGuardChoice::warn ? PauseAction::keepRunning : PauseAction::pause;
  out.skipFlashingWallpaper = choice == FlashGuardChoice::skip;
  return out;
}

std::string_view FlashGuard::note(FlashGuardChoice choice, bool playlistRunning) {
  switch (choice) {
    case FlashGuardChoice::off:
      return "Flashing content will play like anything else. Nothing will warn you.";
    case FlashGuardChoice::warn:
      return "The wallpaper keeps playing; the warning appears above the player.";
    case FlashGuardChoice::pause:
      return "Playback stops on the last frame and the warning appears above the player.";
    case FlashGuardChoice::skip:
      return playlistRunning
                 ? "The next wallpaper in the playlist takes over."
                 : "No playlist is running, so there is nothing to skip to \u2014 it will pause instead and "
                   "tell you.";
  }
  return "";
}

std::string_view FlashGuard::warning(bool stillPlaying) {
  return stillPlaying ? "This wallpaper flashes more than three times a second (WCAG 2.3.1). It is still playing, "
                        "because Settings is set to warn only."
                      : "Playback stopped: this wallpaper flashes more than three times a second (WCAG 2.3.1). Trim "
                        "past the flashing part, or play it anyway.";
}

std::optional<FlashingPath> FlashingPaths::find(const std::vector<FlashingPath>& list,
                                                const std::optional<std::string>& path) {
  if (!path) {
    return std::nullopt;
  }
  for (const auto& entry : list) {
    if (text::equalIgnoringCase(entry.path, *path)) {
      return entry;
    }
  }
  return std::nullopt;
}

std::vector<FlashingPath> FlashingPaths::remember(const std::vector<FlashingPath>& list, const std::string& path,
                                                  Date when, std::int64_t peak, std::int64_t keep) {
  KORVALEN_PRECONDITION(keep >= 0);
  std::vector<FlashingPath> out{FlashingPath{path, when, peak}};
  for (const auto& entry : list) {
    if (!text::equalIgnoringCase(entry.path, path)) {
      out.push_back(entry);
    }
  }
  if (out.size() > static_cast<std::size_t>(keep)) {
    out.resize(static_cast<std::size_t>(keep));
  }
  return out;
}

namespace json {
namespace {

constexpr auto flashingPathFields = [](auto& coder, auto& flashing) {
  coder.required("path", flashing.path);
  coder.required("flashedAt", flashing.flashedAt);
  coder.required("peakFlashesPerSecond", flashing.peakFlashesPerSecond);
};

}  // namespace

KORVALEN_CODING_FROM_FIELDS(FlashingPath, flashingPathFields)

}  // namespace json

}  // namespace korvalen
