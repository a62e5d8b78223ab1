// Writes composed BGRA frames with the ffmpeg executable: a GIF, an MP4 a person can watch,
// one JPEG or PNG picture, or a folder of numbered PNG files ("frame-00000.png", ...).
// Thread: one at a time.
#pragma once

#include "engine/compositor.hpp"
#include "engine/process.hpp"

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

namespace korvalen::engine {

class FrameWriter {
 public:
  // By the output's ending: ".gif", ".mp4", ".jpg" or ".png" (the first frame alone), or
  // anything else for a folder of PNG files (created when missing). `filter`, when given, is
  // an ffmpeg filter chain applied to a single picture. The error is one
  // line.
  [[nodiscard]] static std::expected<FrameWriter, std::string> start(const std::filesystem::path& ffmpeg,
                                                                     const std::filesystem::path& out,
                                                                     std::int64_t width, std::int64_t height,
                                                                     double fps, const std::string& filter = "");
  // False once ffmpeg has stopped taking frames; `finish` then says why.
  bool write(const Picture& frame);
  [[nodiscard]] std::expected<void, std::string> finish();

 private:
  FrameWriter(ChildProcess child, std::filesystem::path out) : child_(std::move(child)), out_(std::move(out)) {}
  ChildProcess child_;
  std::filesystem::path out_;
  std::string output_;
  std::string error_;
};

}  // namespace korvalen::engine
