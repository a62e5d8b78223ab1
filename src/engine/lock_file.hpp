// Opening a lock file: the folder made if it is missing, the file created private to the
// user. The caller locks the descriptor with flock and closes it to let go.
#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace korvalen::engine {

// The open descriptor, or one line naming what could not be made or opened.
[[nodiscard]] std::expected<int, std::string> openLockFile(const std::filesystem::path& path);

}  // namespace korvalen::engine
