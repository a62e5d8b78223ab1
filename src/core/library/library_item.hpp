// The library's record of one wallpaper, the two enumerations that say what a wallpaper is
// and how it fills a screen, the metadata an import learns, and `WallpaperContent`, the
// resolved description that playback is handed.
#pragma once

#include "core/rendering/crop_rect.hpp"
#include "core/rendering/fit_mode.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

enum class WallpaperKind { none, solid, image, video, web };

std::string_view toString(WallpaperKind kind);
// Absent for a word that is not one of the raw strings (exact, case-sensitive).
std::optional<WallpaperKind> parseWallpaperKind(std::string_view text);

struct LibraryItem {
  std::string id;
  WallpaperKind kind = WallpaperKind::none;
  std::string relativePath;
  std::string title;
  std::string sha256;
  std::int64_t sizeBytes = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
  Date addedUTC{};
  std::string source = "local";
  std::optional<std::string> sourceURL;
  std::optional<std::string> author;
  std::optional<std::string> authorURL;
  std::optional<std::string> licence;
  std::vector<std::string> tags;
  bool aiGenerated = false;
  bool allowNetwork = false;
  FitMode fit = FitMode::fill;
  std::optional<CropRect> crop;
  std::map<std::string, CropRect> cropByMonitor;
  bool mirrorHorizontal = false;
  bool mirrorVertical = false;
  bool upscaleEnabled = false;
  std::optional<std::string> enhanceResampler;
  std::optional<double> enhanceSharpness;
  std::optional<std::string> transitionID;
  bool pingPongEnabled = false;
  std::optional<std::string> pingPongPath;
  std::optional<double> trimStart;
  std::optional<double> trimEnd;
  std::optional<Date> flashedAt;
  std::int64_t flashPeakPerSecond = 0;
  bool missing = false;
  // What import learned of a video (absent for what it could not tell, and for web pages).
  std::optional<double> durationSeconds;
  std::optional<double> frameRate;
  std::optional<std::string> codec;
  std::optional<bool> hasAudio;

  // The flash guard saw it flash.
  [[nodiscard]] bool knownToFlash() const { return flashedAt.has_value(); }

  // Identity is the file's: same `id` and `sha256`, whatever the adjustments say.
  bool operator==(const LibraryItem& other) const { return id == other.id && sha256 == other.sha256; }
};

struct VideoMetadata {
  std::string title;
  std::optional<std::string> author;
  std::optional<std::string> authorURL;
  std::optional<std::string> sourceURL;
  std::optional<std::string> licence;
  std::string provider;
  std::optional<double> durationSeconds;
  bool operator==(const VideoMetadata&) const = default;
};

struct WallpaperContent {
  WallpaperKind kind = WallpaperKind::none;
  std::string path;
  FitMode fit = FitMode::fill;
  std::optional<CropRect> crop;
  std::map<std::string, CropRect> cropByMonitor;
  double trimStart = 0;
  double trimEnd = 0;
  bool mirrorHorizontal = false;
  bool mirrorVertical = false;
  bool allowNetwork = false;
  std::optional<std::string> itemID;
  std::optional<std::string> transitionID;
  bool operator==(const WallpaperContent&) const = default;
};

namespace json {
// The five identity keys are required; any other key may be missing, but a present key of
// the wrong type fails the item.
inline constexpr auto libraryItemFields = [](auto& coder, auto& item) {
  coder.required("id", item.id);
  coder.required("kind", item.kind);
  coder.required("relativePath", item.relativePath);
  coder.required("title", item.title);
  coder.required("sha256", item.sha256);
  coder.defaulted("sizeBytes", item.sizeBytes);
  coder.defaulted("width", item.width);
  coder.defaulted("height", item.height);
  coder.defaulted("addedUTC", item.addedUTC);
  coder.defaulted("source", item.source);
  coder.optional("sourceURL", item.sourceURL);
  coder.optional("author", item.author);
  coder.optional("authorURL", item.authorURL);
  coder.optional("licence", item.licence);
  coder.defaulted("tags", item.tags);
  coder.defaulted("aiGenerated", item.aiGenerated);
  coder.defaulted("allowNetwork", item.allowNetwork);
  coder.defaulted("fit", item.fit);
  coder.optional("crop", item.crop);
  coder.defaulted("cropByMonitor", item.cropByMonitor);
  coder.defaulted("mirrorHorizontal", item.mirrorHorizontal);
  coder.defaulted("mirrorVertical", item.mirrorVertical);
  coder.defaulted("upscaleEnabled", item.upscaleEnabled);
  coder.optional("enhanceResampler", item.enhanceResampler);
  coder.optional("enhanceSharpness", item.enhanceSharpness);
  coder.optional("transitionID", item.transitionID);
  coder.defaulted("pingPongEnabled", item.pingPongEnabled);
  coder.optional("pingPongPath", item.pingPongPath);
  coder.optional("trimStart", item.trimStart);
  coder.optional("trimEnd", item.trimEnd);
  coder.optional("flashedAt", item.flashedAt);
  coder.defaulted("flashPeakPerSecond", item.flashPeakPerSecond);
  coder.defaulted("missing", item.missing);
  coder.optional("durationSeconds", item.durationSeconds);
  coder.optional("frameRate", item.frameRate);
  coder.optional("codec", item.codec);
  coder.optional("hasAudio", item.hasAudio);
};

template <>
struct Coding<WallpaperKind> {
  static Json encode(WallpaperKind kind, const Options&) { return std::string(toString(kind)); }
  [[nodiscard]] static Result<WallpaperKind> decode(const Json& json, const Options& options);
};
template <>
struct Coding<LibraryItem> {
  static Json encode(const LibraryItem& item, const Options& options);
  // The five identity keys are required; any present key of the wrong type fails the item.
  [[nodiscard]] static Result<LibraryItem> decode(const Json& json, const Options& options);
};
template <>
struct Coding<VideoMetadata> {
  static Json encode(const VideoMetadata& metadata, const Options& options);
  [[nodiscard]] static Result<VideoMetadata> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen

template <>
struct std::hash<korvalen::LibraryItem> {
  std::size_t operator()(const korvalen::LibraryItem& item) const noexcept;
};
