// The screensaver and every wallpaper window place content on each resize and plan change;
// placement must cost nanoseconds, not microseconds.
#include "core/rendering/video_fit.hpp"

#include <benchmark/benchmark.h>

namespace {

using korvalen::CropRect;
using korvalen::FitMode;

void placeWithoutCrop(benchmark::State& state) {
  const auto fit = static_cast<FitMode>(state.range(0));
  std::int64_t surface = 1080;
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::VideoFit::compute(3840, 2160, 1920, surface, fit));
    surface = surface == 1080 ? 1200 : 1080;
  }
}
BENCHMARK(placeWithoutCrop)->DenseRange(0, 3)->ArgName("fit");

void placeWithCrop(benchmark::State& state) {
  const std::optional<CropRect> crop = CropRect{0.25, 0.1, 0.5, 0.8};
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::VideoFit::compute(3840, 2160, 2560, 1440, FitMode::fill, crop));
  }
}
BENCHMARK(placeWithCrop);

}  // namespace
