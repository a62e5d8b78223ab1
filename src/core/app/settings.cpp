#include "core/app/settings.hpp"

#include "core/rendering/transitions.hpp"
#include "core/support/numbers.hpp"
#include "core/support/text.hpp"

#include <algorithm>

namespace korvalen {
namespace {

constexpr auto importFields = [](auto& coder, auto& settings) {
  coder.lenient("preferredHeight", settings.preferredHeight);
  coder.lenient("includeAudio", settings.includeAudio);
  coder.lenient("askWhenUnavailable", settings.askWhenUnavailable);
  coder.lenient("signInBrowser", settings.signInBrowser);
};

constexpr auto toolFields = [](auto& coder, auto& settings) {
  coder.lenient("autoUpdateDownloader", settings.autoUpdateDownloader);
};

constexpr auto transitionFields = [](auto& coder, auto& settings) {
  coder.lenient("enabled", settings.enabled);
  coder.lenient("defaultId", settings.defaultId);
  coder.lenient("seconds", settings.seconds);
  coder.lenient("maxConcurrent", settings.maxConcurrent);
};

constexpr auto screensaverFields = [](auto& coder, auto& settings) {
  coder.lenient("itemId", settings.itemId);
  coder.lenient("playSound", settings.playSound);
};

constexpr auto lastWallpaperFields = [](auto& coder, auto& last) {
  coder.lenient("kind", last.kind);
  coder.lenient("path", last.path);
  coder.lenient("fit", last.fit);
  coder.lenient("muted", last.muted);
  coder.lenient("mirrorHorizontal", last.mirrorHorizontal);
  coder.lenient("mirrorVertical", last.mirrorVertical);
  coder.lenient("volume", last.volume);
  coder.lenient("itemID", last.itemID);
};

constexpr auto monitorAssignmentFields = [](auto& coder, auto& assignment) {
  coder.lenient("itemId", assignment.itemID);
  coder.lenient("playlistName", assignment.playlistName);
  coder.lenient("paused", assignment.paused);
};

// The lists and the map are written as they are and read element by element.
template <class T>
std::vector<T> kept(const std::vector<json::Lossy<T>>& elements) {
  std::vector<T> out;
  for (const auto& element : elements) {
    if (element.value) {
      out.push_back(*element.value);
    }
  }
  return out;
}

template <class T>
std::map<std::string, T> kept(const std::map<std::string, json::Lossy<T>>& elements) {
  std::map<std::string, T> out;
  for (const auto& [key, element] : elements) {
    if (element.value) {
      out.emplace(key, *element.value);
    }
  }
  return out;
}

}  // namespace

ImportSettings ImportSettings::sanitised() const {
  ImportSettings out = *this;
  out.preferredHeight = preferredHeight > 0 ? std::clamp<std::int64_t>(preferredHeight, 144, 4320) : 0;
  const auto browser = text::lowercased(text::trimWhitespaceAndNewlines(signInBrowser));
  const bool known = std::find(browserKeys.begin(), browserKeys.end(), browser) != browserKeys.end();
  out.signInBrowser = browser == "auto" || known ? browser : "off";
  return out;
}

double TransitionSettings::effectiveSeconds() const {
  return enabled ? sanitised().seconds : 0.0;
}

TransitionSettings TransitionSettings::sanitised() const {
  TransitionSettings out = *this;
  out.seconds = numbers::clampedOr(seconds, 0.2, 5.0, 1.2);
  const auto effect = TransitionRegistry::find(defaultId);
  out.defaultId = effect ? effect->id : std::string("crossBlend");
  out.maxConcurrent = std::clamp<std::int64_t>(maxConcurrent, 1, 8);
  return out;
}

KorvalenSettings KorvalenSettings::sanitised() const {
  KorvalenSettings out = *this;
  out.power = power.sanitised();
  out.accessibility = accessibility.sanitised();
  out.enhance = enhance.sanitised();
  out.import = import.sanitised();
  out.transitions = transitions.sanitised();
  return out;
}

namespace json {

KORVALEN_CODING_FROM_FIELDS(ImportSettings, importFields)
KORVALEN_CODING_FROM_FIELDS(ToolSettings, toolFields)
KORVALEN_CODING_FROM_FIELDS(TransitionSettings, transitionFields)
KORVALEN_CODING_FROM_FIELDS(ScreensaverSettings, screensaverFields)
KORVALEN_CODING_FROM_FIELDS(LastWallpaper, lastWallpaperFields)
KORVALEN_CODING_FROM_FIELDS(MonitorAssignment, monitorAssignmentFields)

Json Coding<KorvalenSettings>::encode(const KorvalenSettings& settings, const Options& options) {
  ObjectWriter out(options);
  out.put("power", settings.power)
      .put("accessibility", settings.accessibility)
      .put("enhance", settings.enhance)
      .put("playlists", settings.playlists)
      .putIfPresent("activePlaylist", settings.activePlaylist)
      .putIfPresent("lastWallpaper", settings.lastWallpaper)
      .put("flashingPaths", settings.flashingPaths)
      .put("monitorWallpapers", settings.monitorWallpapers)
      .put("firstRunShown", settings.firstRunShown)
      .put("import", settings.import)
      .put("tools", settings.tools)
      .put("transitions", settings.transitions)
      .put("screensaver", settings.screensaver);
  return out.take();
}

Result<KorvalenSettings> Coding<KorvalenSettings>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  KorvalenSettings settings;
  std::vector<Lossy<Playlist>> playlists;
  std::vector<Lossy<FlashingPath>> flashingPaths;
  std::map<std::string, Lossy<MonitorAssignment>> monitorWallpapers;
  in.lenient("power", settings.power);
  in.lenient("accessibility", settings.accessibility);
  in.lenient("enhance", settings.enhance);
  in.lenient("playlists", playlists);
  in.lenient("activePlaylist", settings.activePlaylist);
  in.lenient("lastWallpaper", settings.lastWallpaper);
  in.lenient("flashingPaths", flashingPaths);
  in.lenient("monitorWallpapers", monitorWallpapers);
  in.lenient("firstRunShown", settings.firstRunShown);
  in.lenient("import", settings.import);
  in.lenient("tools", settings.tools);
  in.lenient("transitions", settings.transitions);
  in.lenient("screensaver", settings.screensaver);
  settings.playlists = kept(playlists);
  settings.flashingPaths = kept(flashingPaths);
  settings.monitorWallpapers = kept(monitorWallpapers);
  return in.finishWith(std::move(settings));
}

}  // namespace json
}  // namespace korvalen
