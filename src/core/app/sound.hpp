// Volume and mute arithmetic shared by the wallpaper controls. Volumes are fractions 0...1.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::Sound {

inline constexpr std::string_view heldQuietExplanation =
    "A power or accessibility rule is keeping the wallpaper silent";

// NaN is 0; otherwise clamped to [0, 1].
double clamp(double volume);
bool isSilent(bool userMuted, bool policyMuted, double volume);
double effective(bool userMuted, bool policyMuted, double volume);
// A percentage typed by the user ("50", "12.5"); otherwise the current volume.
double parsePercent(std::optional<std::string_view> text, double current);
// Rounded half to even.
std::int64_t toPercent(double volume);

struct Setting {
  bool muted = false;
  double volume = 0;
  bool operator==(const Setting&) const = default;
};

// Unmuting a silent volume restores half volume.
Setting toggled(bool muted, double volume);
// Moving the slider unmutes unless it is moved to 0.
bool slid(bool muted, double to);
// A rule, not the user, holds the sound silent.
bool isHeldQuiet(bool userMuted, bool audible, double volume);
// "off", "quiet" or "50%".
std::string label(bool userMuted, bool audible, double volume);

}  // namespace korvalen::Sound
