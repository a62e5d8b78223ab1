// The policy runs every half second: gathering window activity and deciding must be far
// below a millisecond even with many windows and monitors.
#include "core/playback/activity_classifier.hpp"
#include "core/playback/playback_policy.hpp"

#include <benchmark/benchmark.h>

#include <random>

namespace {

using korvalen::ActivityClassifier::Rect;

std::vector<Rect> randomRects(std::size_t count) {
  std::mt19937 random(11);
  std::uniform_int_distribution<std::int64_t> coordinate(0, 3840);
  std::vector<Rect> rects;
  for (std::size_t i = 0; i < count; ++i) {
    const auto l = coordinate(random);
    const auto t = coordinate(random) / 2;
    rects.push_back({l, t, l + coordinate(random) / 4 + 1, t + coordinate(random) / 4 + 1});
  }
  return rects;
}

void unionArea(benchmark::State& state) {
  const auto rects = randomRects(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::ActivityClassifier::unionArea(rects));
  }
}
BENCHMARK(unionArea)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

void classify(benchmark::State& state) {
  std::vector<korvalen::MonitorInfo> monitors;
  for (std::int64_t i = 0; i < 4; ++i) {
    monitors.push_back({"monitor-" + std::to_string(i), i * 2560, 0, 2560, 1440});
  }
  std::vector<korvalen::WindowSnapshot> windows;
  for (const auto& rect : randomRects(200)) {
    korvalen::WindowSnapshot window;
    window.left = rect.l * 2;
    window.top = rect.t;
    window.right = rect.r * 2;
    window.bottom = rect.b;
    windows.push_back(window);
  }
  windows[7].isForeground = true;
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::ActivityClassifier::classify(monitors, windows, false));
  }
}
BENCHMARK(classify)->Unit(benchmark::kMicrosecond);

void evaluate(benchmark::State& state) {
  korvalen::SystemState system;
  system.onBattery = true;
  for (int i = 0; i < 8; ++i) {
    system.monitors.push_back({"monitor-" + std::to_string(i), i % 3 == 0, i % 2 == 0, i == 1, 0.1 * i});
  }
  korvalen::PowerSettings power;
  power.onMaximized = korvalen::PauseAction::mute;
  const korvalen::AccessibilitySettings accessibility;
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::PlaybackPolicy::evaluate(power, accessibility, system));
  }
}
BENCHMARK(evaluate)->Unit(benchmark::kMicrosecond);

}  // namespace
