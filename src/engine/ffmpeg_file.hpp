// How a file is named to ffmpeg. ffmpeg takes "take:2.mp4" for the protocol "take"; the
// "file:" protocol with an absolute path makes any name a plain file.
#pragma once

#include <filesystem>
#include <string>

namespace korvalen::engine {

inline std::string ffmpegFile(const std::filesystem::path& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return "file:" + (error ? path : absolute).string();
}

}  // namespace korvalen::engine
