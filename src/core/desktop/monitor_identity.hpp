// Stable monitor identifiers ("dell-id|2560x1440": which physical display, then its size) and
// matching saved per-monitor values to the monitors present, so a wallpaper follows its
// monitor through a change of size or orientation.
#pragma once

#include "core/app/settings.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
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

// The numbers a display reports of itself, from its EDID.
struct EdidNumbers {
  std::uint32_t vendor = 0;  // the manufacturer's three packed letters, as one big-endian number
  std::uint32_t model = 0;   // the product code
  std::uint32_t serial = 0;  // the serial number (0 when the display gives none)
  bool operator==(const EdidNumbers&) const = default;
};
// Read from a base EDID block; absent when the bytes are not one (too short, wrong header).
// The checksum is not required: displays with a wrong one are common and still identify.
std::optional<EdidNumbers> edidNumbers(std::span<const std::uint8_t> edid);

// One connected display as a platform sees it.
struct Display {
  EdidNumbers numbers;
  bool builtin = false;
  std::uint32_t number = 0;  // the platform's display number
  std::optional<std::string> uuid;
  double width = 0;  // current frame size, in points
  double height = 0;
};
// The stable identifier of each display, in order: a display has a twin when another in
// the list reports the same vendor, model and serial numbers.
std::vector<std::string> stableIDs(const std::vector<Display>& displays);

// An output as a compositor names it (Wayland): its make, model and serial when it says, its
// connector name ("DP-1"), and its size in pixels.
struct NamedOutput {
  std::string make;
  std::string model;
  std::string serial;
  std::string name;
  double width = 0;
  double height = 0;
};
// The stable identifier of each output, in order: make, model and serial in lower case with
// anything but letters and digits as "-", or the connector name when make and model are
// unknown; an output with a twin (another of the same make, model and serial) has its
// connector name appended. Then "|" and the size, as for displays.
std::vector<std::string> stableOutputIDs(const std::vector<NamedOutput>& outputs);
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
