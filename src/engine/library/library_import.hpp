// Importing files and folders into the library: the library's rules decide what may enter
// and whether it is a duplicate (by the SHA-256 of its content); the decoder learns a
// video's size, length, frame rate, codec and sound and measures it for flashes in the same
// pass that finds its poster frame; the file is cloned into the item's own folder with its
// thumbnail. An item is added whole or not at all: anything that fails, or Ctrl-C, leaves
// no item and no file behind.
//
// Thread: one at a time (the decoder's threads are its own).
#pragma once

#include "core/library/library_rules.hpp"
#include "core/library/wallpaper_library.hpp"
#include "core/support/iso8601.hpp"
#include "engine/library/web_still.hpp"
#include "engine/media_decoder.hpp"

#include <atomic>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

// What a probe of the decoder tells about a file; the error when it will not decode.
[[nodiscard]] std::expected<MediaInfo, std::string> probeMedia(const std::filesystem::path& file);

struct ImportProgress {
  std::size_t filesDone = 0;
  std::size_t filesTotal = 0;
  std::string current;             // the file being imported
  std::optional<double> fraction;  // of the current file's check, 0 to 1
};

struct ImportOptions {
  std::optional<std::string> title;  // for every file imported (the rules' "given" title)
  // Where a downloaded file came from: its title (unless `title` is given), the site as the
  // item's `source`, the page, the author and the licence.
  std::optional<VideoMetadata> fetchedFrom;
  std::filesystem::path ffmpeg;  // writes the thumbnails
  // Web pages: korvalen-web makes their still (none without it), at this size.
  std::optional<std::filesystem::path> webView;
  std::int64_t stillWidth = 1920;
  std::int64_t stillHeight = 1080;
  // A remote page: its address, which the item's page leads to, with the network allowed.
  std::optional<std::string> webAddress;
  Date now{};
  const std::atomic<bool>* stop = nullptr;
  std::function<void(const ImportProgress&)> progress;
  // A flashing item was added: the library copy's absolute path, when, and its peak.
  std::function<void(const std::string&, Date, std::int64_t)> rememberFlashing;
};

struct ImportLine {
  enum class Result { imported, duplicate, refused, cancelled };
  std::string source;  // the path offered
  Result result = Result::refused;
  // Refused: the reason; duplicate: the id of the item holding the content.
  std::string detail;
  std::optional<LibraryItem> item;  // imported
  std::vector<std::string> notes;   // imported, with something worth saying (one line each)
};

std::string_view toString(ImportLine::Result result);

// What the library's rules make of a path offered for import, before anything is decoded
// or copied: `library check` shows it, and import acts on it.
struct ImportOffer {
  bool exists = false;
  bool isFolder = false;
  std::string file;  // what the rules judge: a folder's index page, else the path itself
  WallpaperKind kind = WallpaperKind::none;
  bool entersLibrary = true;          // nothing executable, nothing with a script's or bundle's name
  std::optional<std::string> sha256;  // of a wallpaper's content (a web folder: its whole tree)
  // The rules' decision; a path that may not enter, or whose content cannot be read, is
  // rejected with that reason.
  ImportOutcome outcome;
};
// `folder` says the path stands for a folder even when there is none (the rules then
// refuse it as a folder).
[[nodiscard]] ImportOffer considerImport(const std::filesystem::path& path, bool folder,
                                         const std::vector<LibraryRules::Held>& held);

struct ImportCandidate {
  std::filesystem::path path;
  bool isFolder = false;  // a web page's folder, or a folder that does not exist
};

// The files and web folders the given paths stand for: a file as it is; a folder with an
// "index.html" as one web wallpaper; any other folder searched, recursively and in name
// order, for files and web folders (hidden entries skipped). A path that does not exist
// stays, for the rules to refuse.
std::vector<ImportCandidate> gatherCandidates(const std::vector<std::filesystem::path>& paths);

// The item's thumbnail ("thumbnail.jpg" in `folder`) made from a web page's still.
[[nodiscard]] std::expected<void, std::string> thumbnailOfStill(const std::filesystem::path& ffmpeg,
                                                                const std::filesystem::path& still,
                                                                const std::filesystem::path& folder,
                                                                const LibraryItem& item);

// Imports each candidate into `library`, saving it after each item; one line per
// candidate, in order. Stops at the first Ctrl-C (`stop`), which is the last line.
std::vector<ImportLine> importInto(WallpaperLibrary& library, const std::vector<ImportCandidate>& candidates,
                                   const ImportOptions& options);

}  // namespace korvalen::engine
