// What happens when content flashes: the user's choice (off, warn, pause, skip) and its
// texts, whether to pause or skip once a violation is seen, whether a wallpaper known to
// flash may be restored at start-up, and the remembered list of files that flashed.
#pragma once

#include "core/playback/accessibility_settings.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <cstdint>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

// A file that was seen to flash, remembered in the settings so that it is not restored.
struct FlashingPath {
  std::string path;
  Date flashedAt{};
  std::int64_t peakFlashesPerSecond = 0;
  bool operator==(const FlashingPath&) const = default;
};

enum class FlashOutcome { pause, skipToNext };

namespace FlashResponsePlan {
struct Decision {
  FlashOutcome outcome = FlashOutcome::pause;
  std::string explanation;
  bool operator==(const Decision&) const = default;
};
Decision decide(bool skipRequested, bool playlistRunning);
}  // namespace FlashResponsePlan

namespace RestoreDecision {
// A remembered path blocks restoring even when the library item says it does not flash.
bool shouldRestore(std::optional<bool> itemKnownToFlash, bool remembered, const AccessibilitySettings& accessibility);
std::string explain(std::string_view name, std::int64_t peak, bool inLibrary);
}  // namespace RestoreDecision

enum class FlashGuardChoice { off, warn, pause, skip };

namespace FlashGuard {
inline constexpr std::string_view question = "When a wallpaper flashes more than three times a second";
inline constexpr FlashGuardChoice allChoices[] = {FlashGuardChoice::off, FlashGuardChoice::warn,
                                                  FlashGuardChoice::pause, FlashGuardChoice::skip};

std::string_view rawValue(FlashGuardChoice choice);
std::optional<FlashGuardChoice> fromRawValue(std::string_view raw);
std::string_view label(FlashGuardChoice choice);
FlashGuardChoice read(const AccessibilitySettings& accessibility);
// A copy of the settings with the choice applied; every other field kept.
AccessibilitySettings write(FlashGuardChoice choice, const AccessibilitySettings& accessibility);
std::string_view note(FlashGuardChoice choice, bool playlistRunning);
std::string_view warning(bool stillPlaying);
}  // namespace FlashGuard

namespace FlashingPaths {
// The first entry for `path`, ignoring case.
std::optional<FlashingPath> find(const std::vector<FlashingPath>& list, const std::optional<std::string>& path);
// Newest first, one entry per path (ignoring case), at most `keep` long. A negative `keep`
// is a programming error.
// How many flashing files the settings remember, the most recent first.
inline constexpr std::int64_t rememberedCount = 200;
std::vector<FlashingPath> remember(const std::vector<FlashingPath>& list, const std::string& path, Date when,
                                   std::int64_t peak, std::int64_t keep);
}  // namespace FlashingPaths

namespace json {
// Strict: all three keys are required.
template <>
struct Coding<FlashingPath> {
  static Json encode(const FlashingPath& value, const Options& options);
  [[nodiscard]] static Result<FlashingPath> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
