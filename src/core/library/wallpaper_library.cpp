#include "core/library/wallpaper_library.hpp"

#include "core/library/library_fast_reader.hpp"

#include "core/support/atomic_file.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <system_error>
#include <unordered_set>

namespace korvalen {
namespace {

// The number an id such as "42" stands for; absent for any other text.
std::optional<std::int64_t> idNumber(std::string_view id) {
  std::int64_t number = 0;
  const auto* end = id.data() + id.size();
  const auto [at, error] = std::from_chars(id.data(), end, number);
  if (id.empty() || error != std::errc{} || at != end || number < 1 || id.front() == '0') {
    return std::nullopt;
  }
  return number;
}

// A row's file must stay inside the library folder: removal deletes what an item names, so
// a hand-edited "../.." must never reach it.
std::optional<std::string> unsafePath(const std::string& relativePath) {
  const std::filesystem::path path(relativePath);
  if (relativePath.empty()) {
    return "relativePath: empty";
  }
  if (path.is_absolute() || relativePath.front() == '/') {
    return "relativePath: must lie inside the library folder";
  }
  for (const auto& part : path) {
    if (part == "..") {
      return "relativePath: must lie inside the library folder";
    }
  }
  return std::nullopt;
}

}  // namespace

std::filesystem::path WallpaperLibrary::defaultFolder(const paths::Environment& environment) {
  return paths::korvalenFolder(paths::homeFolder(environment), environment) / folderName;
}

WallpaperLibrary::Loaded WallpaperLibrary::load(const std::filesystem::path& folder) {
  const auto path = folder / fileName;
  std::error_code error;
  if (std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::not_found) {
    Loaded loaded{WallpaperLibrary(folder), {}, std::nullopt, true};
    return loaded;
  }
  auto bytes = files::read(path);
  if (!bytes) {
    Loaded loaded{WallpaperLibrary(folder), {}, bytes.error(), false};
    loaded.library.readOnly_ = true;
    return loaded;
  }
  auto loaded = parse(*bytes, path.string());
  loaded.library.folder_ = folder;
  return loaded;
}

WallpaperLibrary::Loaded WallpaperLibrary::parse(std::string_view text, std::string_view source, Reading reading) {
  Loaded loaded{WallpaperLibrary({}), {}, std::nullopt, false};
  auto& library = loaded.library;
  // Why a row cannot be taken, beyond its own decoding; `seen` holds the ids taken so far
  // (a search per row would make loading quadratic).
  std::unordered_set<std::string> seen;
  const auto refusal = [&seen](const LibraryItem& item) -> std::optional<std::string> {
    if (item.id.empty()) {
      return "id: empty";
    }
    if (auto unsafe = unsafePath(item.relativePath)) {
      return unsafe;
    }
    if (seen.contains(item.id)) {
      return fmt::format("id: \"{}\" is already used by an earlier item", item.id);
    }
    return std::nullopt;
  };
  const auto readCounter = [&](const json::Json& value) {
    if (auto number = json::decode<std::int64_t>(value); number && *number > 0) {
      library.nextNumber_ = *number;
    }
  };
  if (reading == Reading::fast) {
    auto document = LibraryFastReader::read(
        text, [&](const LibraryItem& item) { return !refusal(item) && seen.insert(item.id).second; });
    if (document) {
      if (document->nextID) {
        readCounter(*document->nextID);
      }
      library.items_ = std::move(document->items);
      for (const auto& item : library.items_) {
        library.noteUsed(item.id);
      }
      return loaded;
    }
    seen.clear();
  }
  const auto refuse = [&](std::string why) {
    loaded.problem = fmt::format("{} is not a library: {}", source, why);
    library.readOnly_ = true;
    return std::move(loaded);
  };
  auto json = json::parse(text);
  if (!json) {
    return refuse(json.error());
  }
  if (!json->is_object() || !json->contains("items") || !(*json)["items"].is_array()) {
    return refuse("expected an object with an \"items\" list");
  }
  if (const auto found = json->find("nextID"); found != json->end()) {
    readCounter(*found);
  }
  const auto& rows = (*json)["items"];
  library.items_.reserve(rows.size());
  for (std::size_t row = 0; row < rows.size(); ++row) {
    auto item = json::decode<LibraryItem>(rows[row]);
    std::optional<std::string> why;
    if (!item) {
      why = item.error().describe();
    } else {
      why = refusal(*item);
    }
    if (why) {
      loaded.dropped.push_back(fmt::format("{} item {}: {}", source, row + 1, *why));
      // Its id stays taken: once the row is mended it must not meet a newer item of that id.
      if (rows[row].is_object() && rows[row].contains("id") && rows[row]["id"].is_string()) {
        library.noteUsed(rows[row]["id"].get<std::string>());
      }
      library.unreadable_.push_back(rows[row]);
      continue;
    }
    seen.insert(item->id);
    library.noteUsed(item->id);
    library.items_.push_back(std::move(*item));
  }
  return loaded;
}

json::Json WallpaperLibrary::toJson() const {
  json::Json out = json::Json::object();
  json::Json rows = json::Json::array();
  for (const auto& item : items_) {
    rows.push_back(json::encode(item));
  }
  for (const auto& row : unreadable_) {
    rows.push_back(row);
  }
  out["items"] = std::move(rows);
  out["nextID"] = nextNumber_;
  out["version"] = currentVersion;
  return out;
}

std::string WallpaperLibrary::serialize() const {
  return json::pretty(toJson());
}

std::expected<void, std::string> WallpaperLibrary::save() const {
  if (readOnly_) {
    return std::unexpected(fmt::format("left {} as it is: it could not be read", file().string()));
  }
  const auto tree = toJson();
  if (auto bad = json::firstInvalidText(tree)) {
    return std::unexpected(fmt::format("{} is not valid UTF-8 text; nothing was written to {}", *bad, file().string()));
  }
  return files::writeAtomically(file(), json::pretty(tree));
}

const LibraryItem* WallpaperLibrary::find(std::string_view id) const {
  const auto found = std::find_if(items_.begin(), items_.end(), [&](const LibraryItem& item) { return item.id == id; });
  return found == items_.end() ? nullptr : &*found;
}

LibraryItem* WallpaperLibrary::findMutable(std::string_view id) {
  return const_cast<LibraryItem*>(std::as_const(*this).find(id));
}

std::filesystem::path WallpaperLibrary::pathOf(const LibraryItem& item) const {
  return folder_ / std::filesystem::path(item.relativePath);
}

std::optional<std::filesystem::path> WallpaperLibrary::itemFolderOf(const LibraryItem& item) const {
  const std::filesystem::path relative(item.relativePath);
  auto part = relative.begin();
  if (part == relative.end() || *part != "items" || ++part == relative.end() || *part != item.id) {
    return std::nullopt;
  }
  return folder_ / "items" / item.id;
}

std::string WallpaperLibrary::nextID() const {
  return std::to_string(nextNumber_);
}

void WallpaperLibrary::noteUsed(std::string_view id) {
  if (const auto number = idNumber(id); number && *number >= nextNumber_ && *number < INT64_MAX) {
    nextNumber_ = *number + 1;
  }
}

bool WallpaperLibrary::add(LibraryItem item) {
  if (item.id.empty() || find(item.id) != nullptr) {
    return false;
  }
  noteUsed(item.id);
  items_.push_back(std::move(item));
  return true;
}

std::optional<LibraryItem> WallpaperLibrary::remove(std::string_view id) {
  const auto found = std::find_if(items_.begin(), items_.end(), [&](const LibraryItem& item) { return item.id == id; });
  if (found == items_.end()) {
    return std::nullopt;
  }
  LibraryItem removed = std::move(*found);
  items_.erase(found);
  return removed;
}

bool WallpaperLibrary::edit(std::string_view id, const std::function<void(LibraryItem&)>& change) {
  auto* item = findMutable(id);
  if (item == nullptr) {
    return false;
  }
  LibraryItem changed = *item;
  change(changed);
  // Identity belongs to the file, not to an edit.
  changed.id = item->id;
  changed.sha256 = item->sha256;
  *item = std::move(changed);
  return true;
}

bool WallpaperLibrary::rename(std::string_view id, std::string title) {
  return edit(id, [&](LibraryItem& item) { item.title = std::move(title); });
}

bool WallpaperLibrary::setFit(std::string_view id, FitMode fit) {
  return edit(id, [&](LibraryItem& item) { item.fit = fit; });
}

bool WallpaperLibrary::setCrop(std::string_view id, std::optional<CropRect> crop) {
  return edit(id, [&](LibraryItem& item) { item.crop = crop; });
}

bool WallpaperLibrary::setMonitorCrop(std::string_view id, const std::string& monitor, std::optional<CropRect> crop) {
  return edit(id, [&](LibraryItem& item) {
    if (crop) {
      item.cropByMonitor[monitor] = *crop;
    } else {
      item.cropByMonitor.erase(monitor);
    }
  });
}

bool WallpaperLibrary::setTrim(std::string_view id, std::optional<double> start, std::optional<double> end) {
  return edit(id, [&](LibraryItem& item) {
    item.trimStart = start;
    item.trimEnd = end;
  });
}

bool WallpaperLibrary::setMirror(std::string_view id, bool horizontal, bool vertical) {
  return edit(id, [&](LibraryItem& item) {
    item.mirrorHorizontal = horizontal;
    item.mirrorVertical = vertical;
  });
}

WallpaperContent WallpaperLibrary::contentOf(const LibraryItem& item) const {
  WallpaperContent content;
  content.kind = item.kind;
  content.path = pathOf(item).string();
  content.fit = item.fit;
  content.crop = item.crop;
  content.cropByMonitor = item.cropByMonitor;
  // No trim is the whole clip, as a trim of 0 to 0 says.
  content.trimStart = item.trimStart.value_or(0);
  content.trimEnd = item.trimEnd.value_or(0);
  content.mirrorHorizontal = item.mirrorHorizontal;
  content.mirrorVertical = item.mirrorVertical;
  content.allowNetwork = item.allowNetwork;
  content.itemID = item.id;
  content.transitionID = item.transitionID;
  return content;
}

bool LibrarySearch::matches(const LibraryItem& item, std::string_view query) {
  const auto wanted = text::searchKey(query);
  const auto has = [&](std::string_view field) { return text::searchKey(field).find(wanted) != std::string::npos; };
  if (has(item.title) || (item.author && has(*item.author))) {
    return true;
  }
  return std::any_of(item.tags.begin(), item.tags.end(), [&](const std::string& tag) { return has(tag); });
}

}  // namespace korvalen
