// Content hashes of files, for telling duplicates apart on import.
#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace korvalen::engine {

// The SHA-256 of the file's bytes, as 64 lower-case hexadecimal digits; read in chunks, so
// large videos need little memory.
[[nodiscard]] std::expected<std::string, std::string> sha256OfFile(const std::filesystem::path& path);

// A folder's content as one SHA-256: every regular file below it (links not followed), in
// order of their paths, each as its path, its size and its own SHA-256. Two folders with
// the same files in the same places hash alike.
[[nodiscard]] std::expected<std::string, std::string> sha256OfTree(const std::filesystem::path& folder);

}  // namespace korvalen::engine
