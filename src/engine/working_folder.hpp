// Working folders for media work. They hold copies of the user's videos, so only the user
// may look inside (mode 0700), whatever the umask says.
#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace korvalen::engine {

// Creates `folder` (its parent must exist) readable and writable by the user alone. The
// error is the system's text.
[[nodiscard]] std::expected<void, std::string> makePrivateFolder(const std::filesystem::path& folder);

}  // namespace korvalen::engine
