#include "core/library/library_rules.hpp"

#include "core/support/text.hpp"

#include <algorithm>

namespace korvalen::LibraryRules {
namespace {

bool isSeparator(char c) {
  return c == '/' || c == '\\';
}

bool sameHash(std::string_view a, std::string_view b) {
  return text::equalIgnoringCase(a, b);
}

}  // namespace

const std::set<std::string>& videoExtensions() {
  static const std::set<std::string> set{"mp4", "m4v", "mov", "webm", "mkv", "avi", "wmv"};
  return set;
}

const std::set<std::string>& imageExtensions() {
  static const std::set<std::string> set{"jpg", "jpeg", "png",  "bmp",  "gif", "webp",
                                         "tif", "tiff", "heic", "heif", "avif"};
  return set;
}

const std::set<std::string>& webExtensions() {
  static const std::set<std::string> set{"html", "htm"};
  return set;
}

const std::set<std::string>& blockedExtensions() {
  static const std::set<std::string> set{
      "exe", "dll",      "scr", "bat", "cmd",  "ps1",     "psm1", "vbs",         "msi", "com", "cpl",   "hta", "jar",
      "app", "workflow", "sh",  "zsh", "bash", "command", "scpt", "applescript", "pkg", "dmg", "dylib", "so"};
  return set;
}

std::string lastComponent(std::string_view path) {
  auto end = path.size();
  while (end > 0 && isSeparator(path[end - 1])) {
    --end;
  }
  auto start = end;
  while (start > 0 && !isSeparator(path[start - 1])) {
    --start;
  }
  return std::string(path.substr(start, end - start));
}

std::optional<std::string> extensionOf(std::string_view name) {
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) {
    return std::nullopt;
  }
  return text::lowercased(name.substr(dot + 1));
}

WallpaperKind kindOf(std::string_view path) {
  const auto extension = extensionOf(lastComponent(path));
  if (!extension) {
    return WallpaperKind::none;
  }
  if (videoExtensions().contains(*extension)) {
    return WallpaperKind::video;
  }
  if (imageExtensions().contains(*extension)) {
    return WallpaperKind::image;
  }
  if (webExtensions().contains(*extension)) {
    return WallpaperKind::web;
  }
  return WallpaperKind::none;
}

bool entersLibrary(std::string_view path, bool isExecutable) {
  if (isExecutable) {
    return false;
  }
  std::size_t start = 0;
  while (start < path.size()) {
    auto end = start;
    while (end < path.size() && !isSeparator(path[end])) {
      ++end;
    }
    if (end > start) {
      const auto extension = extensionOf(path.substr(start, end - start));
      if (extension && blockedExtensions().contains(*extension)) {
        return false;
      }
    }
    start = end + 1;
  }
  return true;
}

std::string titleFor(std::string_view source, bool isFolder, const std::optional<std::string>& given) {
  if (given) {
    return *given;
  }
  auto name = lastComponent(source);
  if (isFolder) {
    return name;
  }
  const auto extension = extensionOf(name);
  if (extension && !extension->empty()) {
    name.erase(name.rfind('.'));
  }
  return name;
}

std::vector<std::string> relativePathFor(std::string_view id, std::string_view source, bool isFolder) {
  return {"items", std::string(id), isFolder ? std::string("index.html") : lastComponent(source)};
}

FitMode defaultFit(std::int64_t width, std::int64_t height) {
  return width > 0 && height > 0 && width < height ? FitMode::fit : FitMode::fill;
}

ImportOutcome decideImport(bool exists, bool isFolder, bool hasIndexHTML, std::string_view file,
                           const std::optional<std::string>& hash, const std::vector<Held>& held) {
  if (isFolder && (!exists || !hasIndexHTML)) {
    return ImportOutcome::rejected("folder has no index.html");
  }
  if (!isFolder && !exists) {
    return ImportOutcome::rejected("file not found");
  }
  if (kindOf(file) == WallpaperKind::none) {
    const auto extension = extensionOf(lastComponent(file));
    return ImportOutcome::rejected("'" + (extension ? "." + *extension : std::string()) +
                                   "' is not a supported wallpaper type");
  }
  if (hash) {
    const auto found =
        std::find_if(held.begin(), held.end(), [&](const Held& item) { return sameHash(item.sha256, *hash); });
    if (found != held.end()) {
      return ImportOutcome::duplicate(found->id);
    }
  }
  return ImportOutcome::imported();
}

bool forgetDerivedCache(std::string_view removedSha256, const std::vector<std::string>& remainingSha256) {
  return std::none_of(remainingSha256.begin(), remainingSha256.end(),
                      [&](const std::string& hash) { return sameHash(hash, removedSha256); });
}

}  // namespace korvalen::LibraryRules
