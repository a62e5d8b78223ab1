// The screensaver re-reads the plan every 3 seconds on every screen; reading and writing a
// realistic plan (several screens) must stay far below a millisecond.
#include "core/planning/saver_plan.hpp"

#include <benchmark/benchmark.h>

#include <fmt/format.h>

namespace {

korvalen::SaverPlan samplePlan(int screens) {
  korvalen::SaverPlan plan;
  for (int i = 0; i < screens; ++i) {
    korvalen::SaverContent content(korvalen::WallpaperKind::video, fmt::format("/Users/ann/Movies/clip-{}.mp4", i),
                                   "Clip", korvalen::FitMode::fill);
    content.crop = korvalen::CropRect{0.1, 0.1, 0.8, 0.8};
    content.trimEnd = 30.5;
    plan.screens[fmt::format("10ac-a0c4-{:08x}|2560x1440", i)] = content;
  }
  plan.shared = plan.screens.begin()->second;
  return plan;
}

void decodePlan(benchmark::State& state) {
  const auto text = samplePlan(static_cast<int>(state.range(0))).encode();
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::SaverPlan::decode(text));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(decodePlan)->Arg(1)->Arg(4)->Arg(16);

void encodePlan(benchmark::State& state) {
  const auto plan = samplePlan(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(plan.encode());
  }
}
BENCHMARK(encodePlan)->Arg(1)->Arg(4)->Arg(16);

}  // namespace
