// The pure decisions the library store makes when something is offered for import or an
// item is removed: which files are wallpapers, which may never enter, where an item's file
// goes, what it is called, whether it is a duplicate. "/" and "\" both separate paths.
#pragma once

#include "core/library/library_item.hpp"

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvalen {

struct ImportOutcome {
  enum class Kind { rejected, duplicate, imported };
  Kind kind = Kind::imported;
  std::string detail;  // the reason, or the id of the item already holding the content

  static ImportOutcome rejected(std::string reason) { return {Kind::rejected, std::move(reason)}; }
  static ImportOutcome duplicate(std::string existingID) { return {Kind::duplicate, std::move(existingID)}; }
  static ImportOutcome imported() { return {Kind::imported, ""}; }
  bool operator==(const ImportOutcome&) const = default;
};

namespace LibraryRules {

const std::set<std::string>& videoExtensions();
const std::set<std::string>& imageExtensions();
const std::set<std::string>& webExtensions();
const std::set<std::string>& blockedExtensions();

// The last path component, trailing separators ignored.
std::string lastComponent(std::string_view path);
// The lower-cased text after the last "." of a name; none for a name without one, or whose
// only dot leads (a hidden file).
std::optional<std::string> extensionOf(std::string_view name);
WallpaperKind kindOf(std::string_view path);
// Nothing executable, and no component with a blocked extension (a file inside an ".app").
bool entersLibrary(std::string_view path, bool isExecutable);
std::string titleFor(std::string_view source, bool isFolder, const std::optional<std::string>& given);
// "items", the id, then "index.html" for a folder or the source's file name.
std::vector<std::string> relativePathFor(std::string_view id, std::string_view source, bool isFolder);
// A portrait picture is shown whole; everything else fills.
FitMode defaultFit(std::int64_t width, std::int64_t height);

struct Held {
  std::string id;
  std::string sha256;
};
ImportOutcome decideImport(bool exists, bool isFolder, bool hasIndexHTML, std::string_view file,
                           const std::optional<std::string>& hash, const std::vector<Held>& held);
// Derived caches for a removed item's content may go only when no remaining item has it.
bool forgetDerivedCache(std::string_view removedSha256, const std::vector<std::string>& remainingSha256);

}  // namespace LibraryRules
}  // namespace korvalen
