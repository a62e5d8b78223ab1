#include "engine/software/software_image.hpp"

#include "core/playback/flash_analyzer.hpp"

#include <cmath>

namespace korvalen::engine {

Picture pictureOf(DecodedFrame&& frame) {
  Picture picture;
  picture.width = frame.width;
  picture.height = frame.height;
  picture.bgra = std::move(frame.pixels);
  picture.source = std::move(frame.source);
  picture.serial = Picture::freshSerial();
  return picture;
}

std::vector<double> SoftwareImage::frameLuminances(const FitRect& region) const {
  std::vector<double> values;
  values.reserve(frames_.size());
  for (const auto& frame : frames_) {
    values.push_back(regionLuminance(frame.bgra, frame.width, frame.height, frame.width * 4, region));
  }
  return values;
}

const Picture* SoftwareImage::frameAt(double seconds) const {
  double total = 0;
  for (const double delay : delays_) {
    total += delay;
  }
  if (frames_.size() < 2 || !(total > 0) || !std::isfinite(seconds)) {
    return &frames_[0];
  }
  double at = std::fmod(seconds, total);
  if (at < 0) {
    at += total;
  }
  for (std::size_t i = 0; i < frames_.size(); ++i) {
    if (at < delays_[i]) {
      return &frames_[i];
    }
    at -= delays_[i];
  }
  return &frames_.back();
}

}  // namespace korvalen::engine
