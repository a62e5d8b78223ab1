// The flash guard samples a playing video many times a second on every screen, and judges
// whole animations before they play: the per-frame luminance and the per-sample analysis
// must stay small next to decoding.
#include "core/playback/flash_analyzer.hpp"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>

namespace {

using korvalen::FlashAnalyzer;

constexpr std::int64_t width = 3840;
constexpr std::int64_t height = 2160;

const std::vector<std::uint8_t>& frame4k() {
  static const std::vector<std::uint8_t> frame = [] {
    std::vector<std::uint8_t> made(static_cast<std::size_t>(width * height * 4));
    std::mt19937 random(7);
    for (auto& byte : made) {
      byte = static_cast<std::uint8_t>(random());
    }
    return made;
  }();
  return frame;
}

// The yardstick for the luminance: copying the same 4K frame, in the same run. Compare the
// two bytes-per-second figures (goal: luminance at step 1 at least half of this).
void memcpy4k(benchmark::State& state) {
  const auto& frame = frame4k();
  std::vector<std::uint8_t> copy(frame.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), frame.data(), frame.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(frame.size()));
}
BENCHMARK(memcpy4k)->Unit(benchmark::kMillisecond);

void meanLuminance4k(benchmark::State& state) {
  const auto& frame = frame4k();
  const auto step = state.range(0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(FlashAnalyzer::meanLuminance(frame, width, height, width * 4, step));
  }
  // Bytes of the frame covered per second, whatever the step.
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(frame.size()));
}
BENCHMARK(meanLuminance4k)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Unit(benchmark::kMillisecond);

void observe(benchmark::State& state) {
  FlashAnalyzer analyzer;
  double time = 0;
  int frame = 0;
  for (auto _ : state) {
    // A picture flashing at 15 Hz keeps the transition list as full as it gets.
    benchmark::DoNotOptimize(analyzer.observe(time, (frame++ / 2) % 2 == 0 ? 0.1 : 0.9));
    time += 1.0 / 60;
  }
}
BENCHMARK(observe);

void judgeLoopWorstCase(benchmark::State& state) {
  // Tiny delays: the 50 000-sample bound is what stops it.
  const std::vector<double> luminances{0, 1};
  const std::vector<double> delays{1e-6, 1e-6};
  for (auto _ : state) {
    benchmark::DoNotOptimize(FlashAnalyzer::judgeLoop(luminances, delays, 1));
  }
}
BENCHMARK(judgeLoopWorstCase)->Unit(benchmark::kMillisecond);

}  // namespace
