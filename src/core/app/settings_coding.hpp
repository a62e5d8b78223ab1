// Reading and writing "settings.json". The file may be edited by hand, so it is read as JSON
// with comments and trailing commas, every field leniently; a file that cannot be read never
// stops the program: it falls back to the defaults and says why in one line.
#pragma once

#include "core/app/settings.hpp"
#include "core/support/json.hpp"
#include "core/support/paths.hpp"

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::Settings {

// "settings.json" in the Korvalen folder of the user's home folder.
std::filesystem::path defaultPath(const paths::Environment& environment);

struct Loaded {
  KorvalenSettings settings;
  std::optional<std::string> problem;
};

// A missing file: the defaults, written to disk. An unreadable one: the defaults and the
// problem text; the file is left exactly as it is.
Loaded load(const std::filesystem::path& path);

// Like `load`, but never writes: a missing file gives the defaults and `missing`.
struct Read {
  KorvalenSettings settings;
  std::optional<std::string> problem;  // the file exists but could not be read
  bool missing = false;
  std::string text;  // the file as it was, when it could be read
};
Read read(const std::filesystem::path& path);

// Creates the folders and replaces the file atomically; the problem text on failure.
[[nodiscard]] std::expected<void, std::string> save(const KorvalenSettings& settings,
                                                    const std::filesystem::path& path);

// Pretty-printed, keys sorted, dates without fraction.
std::string serialize(const KorvalenSettings& settings);

// Comments stripped, decoded leniently, repaired. Fails only when the text is not JSON at
// all or its top level is not an object.
[[nodiscard]] std::expected<KorvalenSettings, std::string> deserialize(std::string_view text);
// The same without the repair, to see what repair changes.
[[nodiscard]] std::expected<KorvalenSettings, std::string> deserializeUnrepaired(std::string_view text);

// Notes on list elements in the file that could not be read, such as
// "2 playlist(s) in settings.json could not be read and were left out".
std::vector<std::string> dropped(std::string_view text, const KorvalenSettings& read);

}  // namespace korvalen::Settings
