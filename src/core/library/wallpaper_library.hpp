// The wallpaper library as a document: the items of "Library/library.json", read leniently
// (a bad row is set aside and reported, never the whole library), edited by id, and saved
// atomically with sorted keys. Ids are whole numbers written as text, handed out from a
// counter kept in the file, so an id once given is never given again.
//
// Rows that cannot be read are kept verbatim and written back as they were: a hand edit
// gone wrong is reported on every load until it is fixed, but never destroyed by a save.
// The files an item names (its copy, its thumbnail) are the engine's business.
#pragma once

#include "core/library/library_item.hpp"
#include "core/support/json.hpp"
#include "core/support/paths.hpp"

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen {

class WallpaperLibrary {
 public:
  static constexpr std::string_view fileName = "library.json";
  static constexpr std::string_view folderName = "Library";
  static constexpr std::int64_t currentVersion = 1;

  // "<Korvalen folder>/Library".
  static std::filesystem::path defaultFolder(const paths::Environment& environment);

  struct Loaded;
  // The library in `folder`. A missing file is an empty library; a file that cannot be read
  // is an empty library with `problem` set, and must then never be saved over (`save`
  // refuses while `problem` is set).
  static Loaded load(const std::filesystem::path& folder);
  // The same from the file's text; `source` names the file in messages. `plain` skips the
  // fast reader (which hands back anything it does not read exactly as the plain one), for
  // checking that the two agree.
  enum class Reading { fast, plain };
  static Loaded parse(std::string_view text, std::string_view source, Reading reading = Reading::fast);

  // Writes "library.json" atomically; refuses when the library was loaded from a file that
  // could not be read. The error is one line.
  [[nodiscard]] std::expected<void, std::string> save() const;
  // The file's text as `save` writes it.
  [[nodiscard]] std::string serialize() const;

  [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
  [[nodiscard]] std::filesystem::path file() const { return folder_ / fileName; }
  [[nodiscard]] const std::vector<LibraryItem>& items() const { return items_; }
  [[nodiscard]] const LibraryItem* find(std::string_view id) const;
  // The item's file on disk: the library folder joined with its relative path.
  [[nodiscard]] std::filesystem::path pathOf(const LibraryItem& item) const;
  // The folder holding an item's files ("items/<id>"), when its path lies in one.
  [[nodiscard]] std::optional<std::filesystem::path> itemFolderOf(const LibraryItem& item) const;

  // The id the next item will get; `add` with it moves the counter on.
  [[nodiscard]] std::string nextID() const;
  // Adds an item whose id is not yet used (else false, nothing changes). A numeric id moves
  // the counter past it.
  bool add(LibraryItem item);
  // The removed item, or absent when no item has that id.
  std::optional<LibraryItem> remove(std::string_view id);

  // Edits of one item; false when no item has that id.
  bool rename(std::string_view id, std::string title);
  bool setFit(std::string_view id, FitMode fit);
  bool setCrop(std::string_view id, std::optional<CropRect> crop);
  // A monitor's own crop; absent removes it.
  bool setMonitorCrop(std::string_view id, const std::string& monitor, std::optional<CropRect> crop);
  bool setTrim(std::string_view id, std::optional<double> start, std::optional<double> end);
  bool setMirror(std::string_view id, bool horizontal, bool vertical);
  // Any other change; the id and content hash stay what they were.
  bool edit(std::string_view id, const std::function<void(LibraryItem&)>& change);

  // What playback is handed for an item: its file's full path and its adjustments; with no
  // trim, the whole clip (0 to 0).
  [[nodiscard]] WallpaperContent contentOf(const LibraryItem& item) const;

 private:
  explicit WallpaperLibrary(std::filesystem::path folder) : folder_(std::move(folder)) {}
  LibraryItem* findMutable(std::string_view id);
  [[nodiscard]] json::Json toJson() const;
  void noteUsed(std::string_view id);

  std::filesystem::path folder_;
  std::vector<LibraryItem> items_;
  std::vector<json::Json> unreadable_;  // rows kept as they were
  std::int64_t nextNumber_ = 1;
  bool readOnly_ = false;  // loaded from a file that could not be read
  friend struct Loaded;
};

struct WallpaperLibrary::Loaded {
  WallpaperLibrary library;
  // One line per row set aside: "library.json item 3: sha256: missing".
  std::vector<std::string> dropped;
  // The file exists but is not a library; it is left exactly as it is.
  std::optional<std::string> problem;
  bool missing = false;
};

namespace LibrarySearch {
// Whether `query` appears in the item's title, one of its tags or its author, ignoring
// case and accents ("cafe" finds "Café").
bool matches(const LibraryItem& item, std::string_view query);
}  // namespace LibrarySearch

}  // namespace korvalen
