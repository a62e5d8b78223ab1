// A decoded still or animated picture for the software engine: its frames and their delays,
// the frame shown at a moment of its loop, and the luminance of each frame for the flash guard.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/compositor.hpp"
#include "engine/media_decoder.hpp"

#include <vector>

namespace korvalen::engine {

// A decoded frame as a picture of its own, numbered afresh.
Picture pictureOf(DecodedFrame&& frame);

class SoftwareImage final : public scene::DecodedImage {
 public:
  SoftwareImage(std::vector<Picture> frames, std::vector<double> delays)
      : frames_(std::move(frames)), delays_(std::move(delays)) {}
  [[nodiscard]] bool isAnimated() const override { return frames_.size() > 1; }
  [[nodiscard]] scene::PixelSize pixelSize() const override { return {frames_[0].width, frames_[0].height}; }
  [[nodiscard]] std::vector<double> frameDelays() const override { return delays_; }
  [[nodiscard]] std::vector<double> frameLuminances(const FitRect& region) const override;
  // The frame shown `seconds` into the loop.
  [[nodiscard]] const Picture* frameAt(double seconds) const;

 private:
  std::vector<Picture> frames_;
  std::vector<double> delays_;
};

}  // namespace korvalen::engine
