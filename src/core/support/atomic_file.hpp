// Reading and writing the few files the core owns. Writes are atomic: a reader at the same
// moment sees the old file or the new one, never a part. Failures come back as one line of
// plain English naming the path.
#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

namespace korvalen::files {

// Creates the folder holding `path` (with any missing parents), writes `bytes` to a
// temporary file beside `path`, flushes it and renames it over `path`. On failure nothing
// at `path` changes and no temporary file is left behind.
[[nodiscard]] std::expected<void, std::string> writeAtomically(const std::filesystem::path& path,
                                                               std::string_view bytes);

// Removes the temporary files a killed save of `path` left beside it (those no live writer
// holds); every save does this too.
void sweepStaleTemporaries(const std::filesystem::path& path);

// The whole file as bytes.
[[nodiscard]] std::expected<std::string, std::string> read(const std::filesystem::path& path);

}  // namespace korvalen::files
