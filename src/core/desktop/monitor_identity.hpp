// Stable monitor identifiers ("dell-id|2560x1440": which physical display, then its size) and
// matching saved per-monitor values to the monitors present, so a wallpaper follows its
// monitor through a change of size or orientation.
#pragma once

#include "core/app/settings.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

namespace ScreenIdentity {
// "builtin", "display-N", or "%04x-%04x-%08x" of vendor, model and serial; a display with a
// twin (an identical monitor) gets "-" and its UUID (12 characters) or number appended.
std::string device(std::uint32_t vendor, std::uint32_t model, std::uint32_t serial, bool builtin,
                   std::uint32_t displayID, const std::optional<std::string>& uuid, bool hasTwin);
// "2560x1440" from a frame size in points, each rounded.
std::string size(double width, double height);
}  // namespace ScreenIdentity

enum class MonitorMatch { none, exact, sameDevice };
std::string_view toString(MonitorMatch match);

struct MonitorBinding {
  std::string stableID;
  std::optional<std::string> savedKey;
  MonitorMatch quality = MonitorMatch::none;

  // For a same-device binding: the sentence saying the wallpaper followed the monitor.
  [[nodiscard]] std::optional<std::string> note() const;
  bool operator==(const MonitorBinding&) const = default;
};

namespace MonitorIdentity {
// One binding per present monitor, in its order: exact keys first, then the single free key
// of the same device; an ambiguous takeover is refused.
std::vector<MonitorBinding> resolve(const std::vector<std::string>& savedKeys, const std::vector<std::string>& present);
// The text before the first "|"; absent when there is none or it is empty.
std::optional<std::string> deviceName(const std::optional<std::string>& stableID);

template <class V>
std::optional<V> value(const std::map<std::string, V>& map, const std::vector<std::string>& present,
                       const std::string& id) {
  if (map.empty()) {
    return std::nullopt;
  }
  std::vector<std::string> keys;
  for (const auto& [key, unused] : map) {
    keys.push_back(key);
  }
  for (const auto& binding : resolve(keys, present)) {
    if (binding.stableID == id) {
      return binding.savedKey ? std::optional<V>(map.at(*binding.savedKey)) : std::nullopt;
    }
  }
  return std::nullopt;
}
}  // namespace MonitorIdentity

// Whether an assignment says anything: a non-blank item or playlist, or a pause.
bool saysAnything(const MonitorAssignment& assignment);

namespace MonitorAssignments {
using Map = std::map<std::string, MonitorAssignment>;
// The assignment stored under `stableID`, or the key removed when it says nothing.
Map with(const Map& map, const std::string& stableID, const MonitorAssignment& assignment);
Map without(const Map& map, const std::string& stableID);
std::optional<MonitorAssignment> effectiveFor(const Map& map, const std::vector<std::string>& present,
                                              const std::string& stableID);
}  // namespace MonitorAssignments

}  // namespace korvalen
