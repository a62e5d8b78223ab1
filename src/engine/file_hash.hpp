// Content hashes of files, for telling duplicates apart on import.
#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace korvalen::engine {

// The SHA-256 of the file's bytes, as 64 lower-case hexadecimal digits; read in chunks, so
// large videos need little memory.
[[nodiscard]] std::expected<std::string, std::string> sha256OfFile(const std::filesystem::path& path);

}  // namespace korvalen::engine
