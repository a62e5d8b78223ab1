#include "engine/video_frames.hpp"

#include "core/library/ping_pong.hpp"
#include "core/support/numbers.hpp"
#include "engine/ffmpeg_file.hpp"

#include <fmt/format.h>

#include <regex>

namespace korvalen::engine {
namespace {

const std::regex& inputStream() {
  static const std::regex pattern(R"(Stream #0:\d+.*?: Video: (\w+))");
  return pattern;
}
const std::regex& outputSize() {
  static const std::regex pattern(R"(Stream #0:0.*: Video: rawvideo.*?, (\d+)x(\d+))");
  return pattern;
}
const std::regex& frameLine() {
  static const std::regex pattern(R"(\] n:\s*(\d+)\s+pts:\s*\S+\s+pts_time:\s*(\S+))");
  return pattern;
}

// showinfo counts frames from 0 in order; an index further ahead than this is not trusted.
constexpr std::size_t maxFrameIndexJump = 1024;

}  // namespace

std::expected<VideoFrames, std::string> VideoFrames::open(const std::filesystem::path& ffmpeg,
                                                          const std::filesystem::path& file) {
  auto child = ChildProcess::start(
      ffmpeg, {"-hide_banner", "-nostdin", "-loglevel", "info", "-i", ffmpegFile(file), "-map", "0:v:0", "-vf",
               "showinfo", "-fps_mode", "passthrough", "-pix_fmt", "bgra", "-f", "rawvideo", "-"});
  if (!child) {
    return std::unexpected(child.error());
  }
  VideoFrames frames(std::move(*child), file);
  // The frame size comes from ffmpeg's description of its output, before any frame.
  while (frames.width_ == 0 && frames.pump()) {
  }
  if (frames.width_ <= 0 || frames.height_ <= 0) {
    return std::unexpected(frames.failure());
  }
  return frames;
}

bool VideoFrames::pump() {
  if (ended_) {
    return false;
  }
  ended_ = !child_.pump(output_, error_);
  readErrorLines();
  return !ended_;
}

void VideoFrames::readErrorLines() {
  while (true) {
    // ffmpeg ends progress lines with "\r"; either ends a line.
    const auto end = error_.find_first_of("\r\n", errorRead_);
    if (end == std::string::npos) {
      break;
    }
    const std::string line = error_.substr(errorRead_, end - errorRead_);
    errorRead_ = end + 1;
    std::smatch match;
    if (std::regex_search(line, match, frameLine())) {
      const auto index = numbers::wholeNumber(match[1].str());
      // Frames arrive in order; an index far ahead of them is not one to make room for.
      if (index && *index >= 0 && static_cast<std::size_t>(*index) <= times_.size() + maxFrameIndexJump) {
        const auto at = static_cast<std::size_t>(*index);
        if (times_.size() <= at) {
          times_.resize(at + 1);
        }
        times_[at] = numbers::decimal(match[2].str());
      }
      continue;
    }
    if (line.find("Output #0") != std::string::npos) {
      inOutput_ = true;
    } else if (!inOutput_ && codec_.empty() && std::regex_search(line, match, inputStream())) {
      codec_ = match[1].str();
    } else if (!inOutput_ && !duration_ && line.find("Duration:") != std::string::npos) {
      // The probe's reading: hours beyond any integer are a very long clip, not a crash.
      duration_ = PingPong::parseProbe(line).seconds;
    } else if (inOutput_ && width_ == 0 && std::regex_search(line, match, outputSize())) {
      width_ = numbers::wholeNumber(match[1].str()).value_or(0);
      height_ = numbers::wholeNumber(match[2].str()).value_or(0);
    }
    if (!line.empty() && line.front() != ' ' && line.find("frame=") != 0) {
      lastProblem_ = line;
    }
  }
  // Keep the unread tail only.
  error_.erase(0, errorRead_);
  errorRead_ = 0;
}

std::string VideoFrames::failure() const {
  return fmt::format("{}: ffmpeg could not read it ({})", file_.string(),
                     lastProblem_.empty() ? "no video frames" : lastProblem_);
}

std::expected<bool, std::string> VideoFrames::next() {
  const auto frameBytes = static_cast<std::size_t>(width_ * height_ * 4);
  // Let go of the previous frame, now and then moving what follows it to the front.
  std::size_t start = index_ >= 0 ? frameStart_ + frameBytes : frameStart_;
  if (start > 0 && start >= output_.size() / 2) {
    output_.erase(0, start);
    start = 0;
  }
  frameStart_ = start;
  const auto wanted = static_cast<std::size_t>(index_ + 1);
  const auto buffered = [&] { return output_.size() - frameStart_; };
  // showinfo reports a frame before it is written, but the two pipes race: wait a little
  // for its line, never more than a few frames' worth.
  while (buffered() < frameBytes || (times_.size() <= wanted && buffered() < 4 * frameBytes)) {
    if (!pump()) {
      break;
    }
  }
  if (buffered() < frameBytes) {
    std::string rest;
    if (child_.wait(output_, rest) != 0) {
      error_ += rest;
      readErrorLines();
      return std::unexpected(failure());
    }
    return false;
  }
  ++index_;
  const std::optional<double> reported = wanted < times_.size() ? times_[wanted] : std::nullopt;
  if (reported) {
    seconds_ = *reported;
  } else if (index_ > 0) {
    seconds_ += 1.0 / 30;  // no time reported: keep the clock moving
  }
  return true;
}

std::span<const std::uint8_t> VideoFrames::pixels() const {
  const auto* start = reinterpret_cast<const std::uint8_t*>(output_.data()) + frameStart_;
  return {start, static_cast<std::size_t>(width_ * height_ * 4)};
}

}  // namespace korvalen::engine
