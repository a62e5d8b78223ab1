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
