// The whole user configuration as one value record, with every default and the repairs that
// turn any decoded value into a legal one. Every field is read on its own: a bad field takes
// its default and never loses the others.
#pragma once

#include "core/library/library_item.hpp"
#include "core/library/playlist.hpp"
#include "core/playback/accessibility_settings.hpp"
#include "core/playback/flash_guard.hpp"
#include "core/playback/power_settings.hpp"
#include "core/rendering/enhance.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

struct ImportSettings {
  static constexpr std::array<std::string_view, 8> browserKeys{"chrome", "safari",   "firefox", "edge",
                                                               "brave",  "chromium", "opera",   "vivaldi"};
  std::int64_t preferredHeight = 0;  // 0: no preference
  bool includeAudio = false;
  bool askWhenUnavailable = true;
  std::string signInBrowser = "off";  // "off", "auto" or a browser key

  [[nodiscard]] ImportSettings sanitised() const;
  bool operator==(const ImportSettings&) const = default;
};

struct ToolSettings {
  bool autoUpdateDownloader = true;
  bool operator==(const ToolSettings&) const = default;
};

struct TransitionSettings {
  bool enabled = false;
  std::string defaultId = "crossBlend";
  double seconds = 1.2;
  std::int64_t maxConcurrent = 1;

  // 0 when transitions are off.
  [[nodiscard]] double effectiveSeconds() const;
  [[nodiscard]] TransitionSettings sanitised() const;
  bool operator==(const TransitionSettings&) const = default;
};

struct ScreensaverSettings {
  std::optional<std::string> itemId;  // the file key is "itemId", with a lower-case d
  bool playSound = false;
  bool operator==(const ScreensaverSettings&) const = default;
};

struct LastWallpaper {
  WallpaperKind kind = WallpaperKind::none;
  std::optional<std::string> path;
  FitMode fit = FitMode::fill;
  bool muted = true;
  bool mirrorHorizontal = false;
  bool mirrorVertical = false;
  double volume = 1.0;
  std::optional<std::string> itemID;  // the file key is "itemID", with a capital D
  bool operator==(const LastWallpaper&) const = default;
};

struct MonitorAssignment {
  std::optional<std::string> itemID;  // the file key is "itemId"
  std::optional<std::string> playlistName;
  bool paused = false;
  bool operator==(const MonitorAssignment&) const = default;
};

struct KorvalenSettings {
  PowerSettings power;
  AccessibilitySettings accessibility;
  EnhanceSettings enhance;
  std::vector<Playlist> playlists;
  std::optional<std::string> activePlaylist;
  std::optional<LastWallpaper> lastWallpaper;
  std::vector<FlashingPath> flashingPaths;
  std::map<std::string, MonitorAssignment> monitorWallpapers;
  bool firstRunShown = false;
  ImportSettings import;
  ToolSettings tools;
  TransitionSettings transitions;
  ScreensaverSettings screensaver;

  [[nodiscard]] KorvalenSettings sanitised() const;
  bool operator==(const KorvalenSettings&) const = default;
};

namespace json {
#define KORVALEN_SETTINGS_CODING(Type)                                                  \
  template <>                                                                           \
  struct Coding<Type> {                                                                 \
    static Json encode(const Type& value, const Options& options);                      \
    [[nodiscard]] static Result<Type> decode(const Json& json, const Options& options); \
  }
KORVALEN_SETTINGS_CODING(ImportSettings);
KORVALEN_SETTINGS_CODING(ToolSettings);
KORVALEN_SETTINGS_CODING(TransitionSettings);
KORVALEN_SETTINGS_CODING(ScreensaverSettings);
KORVALEN_SETTINGS_CODING(LastWallpaper);
KORVALEN_SETTINGS_CODING(MonitorAssignment);
// The lists and the map are read element by element: a bad element is dropped alone.
KORVALEN_SETTINGS_CODING(KorvalenSettings);
#undef KORVALEN_SETTINGS_CODING
}  // namespace json

}  // namespace korvalen
