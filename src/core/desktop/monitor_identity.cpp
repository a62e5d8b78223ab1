#include "core/desktop/monitor_identity.hpp"

#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <list>

namespace korvalen {

std::string ScreenIdentity::device(std::uint32_t vendor, std::uint32_t model, std::uint32_t serial, bool builtin,
                                   std::uint32_t displayID, const std::optional<std::string>& uuid, bool hasTwin) {
  std::string text;
  if (vendor == 0 && model == 0 && serial == 0 && !hasTwin) {
    return builtin ? std::string("builtin") : fmt::format("display-{}", displayID);
  }
  text = fmt::format("{:04x}-{:04x}-{:08x}", vendor, model, serial);
  if (hasTwin) {
    if (uuid) {
      std::string compact;
      std::copy_if(uuid->begin(), uuid->end(), std::back_inserter(compact), [](char c) { return c != '-'; });
      text += "-" + text::lowercased(compact.substr(0, 12));
    } else {
      text += fmt::format("-{}", displayID);
    }
  }
  return text;
}

std::string ScreenIdentity::size(double width, double height) {
  return fmt::format("{}x{}", static_cast<std::int64_t>(std::round(width)),
                     static_cast<std::int64_t>(std::round(height)));
}

std::optional<ScreenIdentity::EdidNumbers> ScreenIdentity::edidNumbers(std::span<const std::uint8_t> edid) {
  static constexpr std::array<std::uint8_t, 8> header{0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  if (edid.size() < 128 || !std::equal(header.begin(), header.end(), edid.begin())) {
    return std::nullopt;
  }
  const auto byte = [&](std::size_t at) { return static_cast<std::uint32_t>(edid[at]); };
  // The manufacturer is stored big-endian; the product code and serial little-endian.
  return EdidNumbers{(byte(8) << 8U) | byte(9), byte(10) | (byte(11) << 8U),
                     byte(12) | (byte(13) << 8U) | (byte(14) << 16U) | (byte(15) << 24U)};
}

std::vector<std::string> ScreenIdentity::stableIDs(const std::vector<Display>& displays) {
  std::vector<std::string> ids;
  ids.reserve(displays.size());
  for (const auto& display : displays) {
    const auto same = std::count_if(displays.begin(), displays.end(),
                                    [&](const Display& other) { return other.numbers == display.numbers; });
    const auto& n = display.numbers;
    ids.push_back(device(n.vendor, n.model, n.serial, display.builtin, display.number, display.uuid, same > 1) + "|" +
                  size(display.width, display.height));
  }
  return ids;
}

namespace {

bool known(std::string_view text) {
  return !text.empty() && text::lowercased(std::string(text)).find("unknown") == std::string::npos;
}

// Letters and digits kept (in lower case), every run of anything else one "-", none at the ends.
std::string slug(const std::string& text) {
  std::string out;
  for (const char c : text::lowercased(text)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
    if (plain) {
      out += c;
    } else if (!out.empty() && out.back() != '-') {
      out += '-';
    }
  }
  while (!out.empty() && out.back() == '-') {
    out.pop_back();
  }
  return out;
}

std::string namedDevice(const ScreenIdentity::NamedOutput& output) {
  if (!known(output.make) && !known(output.model)) {
    return output.name.empty() ? std::string("output") : output.name;
  }
  std::string text;
  for (const auto* part : {&output.make, &output.model, &output.serial}) {
    if (known(*part)) {
      text += (text.empty() ? "" : " ") + *part;
    }
  }
  const auto made = slug(text);
  return made.empty() ? output.name : made;
}

}  // namespace

std::vector<std::string> ScreenIdentity::stableOutputIDs(const std::vector<NamedOutput>& outputs) {
  std::vector<std::string> ids;
  ids.reserve(outputs.size());
  for (const auto& output : outputs) {
    auto device = namedDevice(output);
    const auto same = std::count_if(outputs.begin(), outputs.end(),
                                    [&](const NamedOutput& other) { return namedDevice(other) == device; });
    if (same > 1 && device != output.name) {
      device += "-" + output.name;
    }
    ids.push_back(device + "|" + size(output.width, output.height));
  }
  return ids;
}

std::string_view toString(MonitorMatch match) {
  switch (match) {
    case MonitorMatch::none:
      return "none";
    case MonitorMatch::exact:
      return "exact";
    case MonitorMatch::sameDevice:
      return "sameDevice";
  }
  return "none";
}

std::optional<std::string> MonitorBinding::note() const {
  if (quality != MonitorMatch::sameDevice) {
    return std::nullopt;
  }
  const auto device = MonitorIdentity::deviceName(stableID).value_or(stableID);
  return device + " changed size or orientation since its wallpaper was saved; the wallpaper followed it";
}

std::optional<std::string> MonitorIdentity::deviceName(const std::optional<std::string>& stableID) {
  if (!stableID || stableID->empty()) {
    return std::nullopt;
  }
  const auto bar = stableID->find('|');
  if (bar == std::string::npos || bar == 0) {
    return std::nullopt;
  }
  return stableID->substr(0, bar);
}

std::vector<MonitorBinding> MonitorIdentity::resolve(const std::vector<std::string>& savedKeys,
                                                     const std::vector<std::string>& present) {
  std::vector<MonitorBinding> bindings;
  for (const auto& id : present) {
    bindings.push_back({id, std::nullopt, MonitorMatch::none});
  }
  std::list<std::string> free(savedKeys.begin(), savedKeys.end());
  for (auto& binding : bindings) {
    const auto found = std::find(free.begin(), free.end(), binding.stableID);
    if (found != free.end()) {
      binding.savedKey = *found;
      binding.quality = MonitorMatch::exact;
      free.erase(found);
    }
  }
  for (auto& binding : bindings) {
    if (binding.quality != MonitorMatch::none) {
      continue;
    }
    const auto device = deviceName(binding.stableID);
    std::vector<std::list<std::string>::iterator> candidates;
    for (auto key = free.begin(); key != free.end(); ++key) {
      if (deviceName(*key) == device) {
        candidates.push_back(key);
      }
    }
    if (candidates.size() == 1) {
      binding.savedKey = *candidates.front();
      binding.quality = MonitorMatch::sameDevice;
      free.erase(candidates.front());
    }
  }
  return bindings;
}

bool saysAnything(const MonitorAssignment& assignment) {
  const auto present = [](const std::optional<std::string>& text) {
    return text && !text::trimWhitespaceAndNewlines(*text).empty();
  };
  if (present(assignment.itemID)) {
    return true;
  }
  if (present(assignment.playlistName)) {
    return true;
  }
  return assignment.paused;
}

MonitorAssignments::Map MonitorAssignments::with(const Map& map, const std::string& stableID,
                                                 const MonitorAssignment& assignment) {
  if (!saysAnything(assignment)) {
    return without(map, stableID);
  }
  Map out = map;
  out[stableID] = assignment;
  return out;
}

MonitorAssignments::Map MonitorAssignments::without(const Map& map, const std::string& stableID) {
  Map out = map;
  out.erase(stableID);
  return out;
}

std::optional<MonitorAssignment> MonitorAssignments::effectiveFor(const Map& map,
                                                                  const std::vector<std::string>& present,
                                                                  const std::string& stableID) {
  return MonitorIdentity::value(map, present, stableID);
}

}  // namespace korvalen
