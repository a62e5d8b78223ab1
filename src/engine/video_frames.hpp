// Decoded frames of a media file as exact BGRA pixels with their presentation times, read
// from the ffmpeg executable through a pipe. Nothing scales or filters the pixels; ffmpeg's
// "showinfo" only reports each frame's time. Thread: one thread at a time.
#pragma once

#include "engine/process.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korvalen::engine {

class VideoFrames {
 public:
  // Starts decoding the first video stream of `file`. Fails with one line naming the file
  // when ffmpeg cannot read it.
  [[nodiscard]] static std::expected<VideoFrames, std::string> open(const std::filesystem::path& ffmpeg,
                                                                    const std::filesystem::path& file);

  // Moves to the next frame: true when there is one, false at the end, or the error.
  [[nodiscard]] std::expected<bool, std::string> next();

  [[nodiscard]] std::span<const std::uint8_t> pixels() const;
  [[nodiscard]] std::int64_t width() const { return width_; }
  [[nodiscard]] std::int64_t height() const { return height_; }
  [[nodiscard]] std::int64_t stride() const { return width_ * 4; }
  // The current frame's presentation time in seconds, and its index from 0.
  [[nodiscard]] double seconds() const { return seconds_; }
  [[nodiscard]] std::int64_t index() const { return index_; }
  // What ffmpeg said of the input: its video codec ("h264", "gif") and duration.
  [[nodiscard]] const std::string& codec() const { return codec_; }
  [[nodiscard]] std::optional<double> duration() const { return duration_; }

  // Stops decoding early; the child is terminated and reaped.
  void cancel() { child_.terminate(); }

 private:
  VideoFrames(ChildProcess child, std::filesystem::path file) : child_(std::move(child)), file_(std::move(file)) {}
  bool pump();
  void readErrorLines();
  [[nodiscard]] std::string failure() const;

  ChildProcess child_;
  std::filesystem::path file_;
  std::string output_;
  std::string error_;
  std::size_t errorRead_ = 0;
  bool ended_ = false;
  bool inOutput_ = false;  // past ffmpeg's "Output #0" header
  std::string codec_;
  std::optional<double> duration_;
  std::int64_t width_ = 0;
  std::int64_t height_ = 0;
  std::vector<std::optional<double>> times_;  // per frame index, from showinfo
  std::string lastProblem_;
  std::int64_t index_ = -1;
  double seconds_ = 0;
  std::size_t frameStart_ = 0;  // where the current frame starts in `output_`
};

}  // namespace korvalen::engine
