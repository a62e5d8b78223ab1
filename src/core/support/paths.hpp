// Where Korvalen keeps its files. One function decides the Korvalen folder; the plan, the
// settings and the caches hang off it.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen::paths {

// Looks up an environment variable; absent when it is not set.
using Environment = std::function<std::optional<std::string>(std::string_view)>;

// The process's real environment.
Environment processEnvironment();

// The user database's home folder for the current user id; absent without a record.
std::optional<std::filesystem::path> recordedHomeFolder();

// The home folder recorded for the current user in the user database; only when there is
// no record, the process's own idea of home (the "HOME" variable).
std::filesystem::path homeFolder(const Environment& environment,
                                 const std::optional<std::filesystem::path>& recorded = recordedHomeFolder());

// The Korvalen folder under a home folder: "Library/Application Support/Korvalen" on macOS;
// "$XDG_DATA_HOME/Korvalen" elsewhere, with "~/.local/share" when that variable is unset,
// empty or not absolute.
std::filesystem::path korvalenFolder(const std::filesystem::path& home, const Environment& environment);

}  // namespace korvalen::paths
