#include "core/library/library_item.hpp"

#include "core/support/enum_words.hpp"

#include <array>
#include <functional>
#include <utility>

namespace korvalen {
namespace {

constexpr EnumWords<WallpaperKind, 5> kindWords{{
    {WallpaperKind::none, "none"},
    {WallpaperKind::solid, "solid"},
    {WallpaperKind::image, "image"},
    {WallpaperKind::video, "video"},
    {WallpaperKind::web, "web"},
}};

}  // namespace

std::string_view toString(WallpaperKind kind) {
  return wordFor(kindWords, kind);
}

std::optional<WallpaperKind> parseWallpaperKind(std::string_view text) {
  return valueFor(kindWords, text);
}

namespace json {

Result<WallpaperKind> Coding<WallpaperKind>::decode(const Json& json, const Options&) {
  return decodeWord<WallpaperKind>(json, parseWallpaperKind, "kind");
}

namespace {

// The five identity keys are required; any other key may be missing, but a present key of
// the wrong type fails the item.
constexpr auto libraryItemFields = [](auto& coder, auto& item) {
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

constexpr auto videoMetadataFields = [](auto& coder, auto& metadata) {
  coder.required("title", metadata.title);
  coder.optional("author", metadata.author);
  coder.optional("authorURL", metadata.authorURL);
  coder.optional("sourceURL", metadata.sourceURL);
  coder.optional("licence", metadata.licence);
  coder.required("provider", metadata.provider);
  coder.optional("durationSeconds", metadata.durationSeconds);
};

}  // namespace

KORVALEN_CODING_FROM_FIELDS(LibraryItem, libraryItemFields)

KORVALEN_CODING_FROM_FIELDS(VideoMetadata, videoMetadataFields)

}  // namespace json
}  // namespace korvalen

std::size_t std::hash<korvalen::LibraryItem>::operator()(const korvalen::LibraryItem& item) const noexcept {
  // Combine `id` then `sha256`, the two fields equality looks at.
  std::size_t seed = std::hash<std::string>{}(item.id);
  seed ^= std::hash<std::string>{}(item.sha256) + 0x9e3779b97f4a7c15ULL + (seed << 6U) + (seed >> 2U);
  return seed;
}
