#include "core/library/library_item.hpp"

#include <array>
#include <functional>
#include <utility>

namespace korvalen {
namespace {

constexpr std::array<std::pair<WallpaperKind, std::string_view>, 5> kindWords{{
    {WallpaperKind::none, "none"},
    {WallpaperKind::solid, "solid"},
    {WallpaperKind::image, "image"},
    {WallpaperKind::video, "video"},
    {WallpaperKind::web, "web"},
}};

constexpr std::array<std::pair<FitMode, std::string_view>, 4> fitWords{{
    {FitMode::fill, "fill"},
    {FitMode::fit, "fit"},
    {FitMode::stretch, "stretch"},
    {FitMode::center, "center"},
}};

template <class Enum, std::size_t N>
std::string_view wordFor(const std::array<std::pair<Enum, std::string_view>, N>& words, Enum value) {
  for (const auto& [candidate, word] : words) {
    if (candidate == value) {
      return word;
    }
  }
  return words.front().second;
}

template <class Enum, std::size_t N>
std::optional<Enum> valueFor(const std::array<std::pair<Enum, std::string_view>, N>& words, std::string_view text) {
  for (const auto& [value, word] : words) {
    if (word == text) {
      return value;
    }
  }
  return std::nullopt;
}

template <class Enum>
json::Result<Enum> decodeWord(const json::Json& json, std::optional<Enum> (*parse)(std::string_view),
                              std::string_view what) {
  if (!json.is_string()) {
    return std::unexpected(json::typeError(what, json));
  }
  const auto& text = json.get_ref<const std::string&>();
  if (auto value = parse(text)) {
    return *value;
  }
  return std::unexpected(json::Error{"", std::string("unknown ") + std::string(what) + " \"" + text + "\""});
}

}  // namespace

std::string_view toString(WallpaperKind kind) {
  return wordFor(kindWords, kind);
}

std::string_view toString(FitMode fit) {
  return wordFor(fitWords, fit);
}

std::optional<WallpaperKind> parseWallpaperKind(std::string_view text) {
  return valueFor(kindWords, text);
}

std::optional<FitMode> parseFitMode(std::string_view text) {
  return valueFor(fitWords, text);
}

namespace json {

Result<WallpaperKind> Coding<WallpaperKind>::decode(const Json& json, const Options&) {
  return decodeWord<WallpaperKind>(json, parseWallpaperKind, "kind");
}

Result<FitMode> Coding<FitMode>::decode(const Json& json, const Options&) {
  return decodeWord<FitMode>(json, parseFitMode, "fit mode");
}

Json Coding<LibraryItem>::encode(const LibraryItem& item, const Options& options) {
  ObjectWriter out(options);
  out.put("id", item.id)
      .put("kind", item.kind)
      .put("relativePath", item.relativePath)
      .put("title", item.title)
      .put("sha256", item.sha256)
      .put("sizeBytes", item.sizeBytes)
      .put("width", item.width)
      .put("height", item.height)
      .put("addedUTC", item.addedUTC)
      .put("source", item.source)
      .putIfPresent("sourceURL", item.sourceURL)
      .putIfPresent("author", item.author)
      .putIfPresent("authorURL", item.authorURL)
      .putIfPresent("licence", item.licence)
      .put("tags", item.tags)
      .put("aiGenerated", item.aiGenerated)
      .put("allowNetwork", item.allowNetwork)
      .put("fit", item.fit)
      .putIfPresent("crop", item.crop)
      .put("cropByMonitor", item.cropByMonitor)
      .put("mirrorHorizontal", item.mirrorHorizontal)
      .put("mirrorVertical", item.mirrorVertical)
      .put("upscaleEnabled", item.upscaleEnabled)
      .putIfPresent("enhanceResampler", item.enhanceResampler)
      .putIfPresent("enhanceSharpness", item.enhanceSharpness)
      .putIfPresent("transitionID", item.transitionID)
      .put("pingPongEnabled", item.pingPongEnabled)
      .putIfPresent("pingPongPath", item.pingPongPath)
      .putIfPresent("trimStart", item.trimStart)
      .putIfPresent("trimEnd", item.trimEnd)
      .putIfPresent("flashedAt", item.flashedAt)
      .put("flashPeakPerSecond", item.flashPeakPerSecond)
      .put("missing", item.missing);
  return out.take();
}

Result<LibraryItem> Coding<LibraryItem>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  LibraryItem item;
  in.required("id", item.id);
  in.required("kind", item.kind);
  in.required("relativePath", item.relativePath);
  in.required("title", item.title);
  in.required("sha256", item.sha256);
  in.defaulted("sizeBytes", item.sizeBytes);
  in.defaulted("width", item.width);
  in.defaulted("height", item.height);
  in.defaulted("addedUTC", item.addedUTC);
  in.defaulted("source", item.source);
  in.optional("sourceURL", item.sourceURL);
  in.optional("author", item.author);
  in.optional("authorURL", item.authorURL);
  in.optional("licence", item.licence);
  in.defaulted("tags", item.tags);
  in.defaulted("aiGenerated", item.aiGenerated);
  in.defaulted("allowNetwork", item.allowNetwork);
  in.defaulted("fit", item.fit);
  in.optional("crop", item.crop);
  in.defaulted("cropByMonitor", item.cropByMonitor);
  in.defaulted("mirrorHorizontal", item.mirrorHorizontal);
  in.defaulted("mirrorVertical", item.mirrorVertical);
  in.defaulted("upscaleEnabled", item.upscaleEnabled);
  in.optional("enhanceResampler", item.enhanceResampler);
  in.optional("enhanceSharpness", item.enhanceSharpness);
  in.optional("transitionID", item.transitionID);
  in.defaulted("pingPongEnabled", item.pingPongEnabled);
  in.optional("pingPongPath", item.pingPongPath);
  in.optional("trimStart", item.trimStart);
  in.optional("trimEnd", item.trimEnd);
  in.optional("flashedAt", item.flashedAt);
  in.defaulted("flashPeakPerSecond", item.flashPeakPerSecond);
  in.defaulted("missing", item.missing);
  return in.finishWith(std::move(item));
}

Json Coding<VideoMetadata>::encode(const VideoMetadata& metadata, const Options& options) {
  ObjectWriter out(options);
  out.put("title", metadata.title)
      .putIfPresent("author", metadata.author)
      .putIfPresent("authorURL", metadata.authorURL)
      .putIfPresent("sourceURL", metadata.sourceURL)
      .putIfPresent("licence", metadata.licence)
      .put("provider", metadata.provider)
      .putIfPresent("durationSeconds", metadata.durationSeconds);
  return out.take();
}

Result<VideoMetadata> Coding<VideoMetadata>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  VideoMetadata metadata;
  in.required("title", metadata.title);
  in.optional("author", metadata.author);
  in.optional("authorURL", metadata.authorURL);
  in.optional("sourceURL", metadata.sourceURL);
  in.optional("licence", metadata.licence);
  in.required("provider", metadata.provider);
  in.optional("durationSeconds", metadata.durationSeconds);
  return in.finishWith(std::move(metadata));
}

}  // namespace json
}  // namespace korvalen

std::size_t std::hash<korvalen::LibraryItem>::operator()(const korvalen::LibraryItem& item) const noexcept {
  // Combine `id` then `sha256`, the two fields equality looks at.
  std::size_t seed = std::hash<std::string>{}(item.id);
  seed ^= std::hash<std::string>{}(item.sha256) + 0x9e3779b97f4a7c15ULL + (seed << 6U) + (seed >> 2U);
  return seed;
}
