// Redaction runs over every log line and diagnostics bundle; the coverage measure runs once
// per display frame of a handover.
#include "core/diagnostics/redact.hpp"
#include "core/rendering/transitions.hpp"

#include <benchmark/benchmark.h>

#include <fmt/format.h>

namespace {

void redactLog(benchmark::State& state) {
  std::string log;
  for (int i = 0; log.size() < 10'000'000; ++i) {
    log += fmt::format(
        "2026-11-22T12:00:{:02d}Z import fetched https://cdn.example/v/{}.mp4?token=abcdef{:08d} "
        "status 200\n",
        i % 60, i, i);
    if (i % 50 == 0) {
      log += fmt::format(R"({{"user": "ann", "accessToken": "tok-{:012d}", "retries": 2}})", i) + "\n";
    }
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::Redact::secrets(log));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(log.size()));
}
BENCHMARK(redactLog)->Unit(benchmark::kMillisecond);

void coveredPerFrame(benchmark::State& state) {
  const auto effect = korvalen::TransitionRegistry::findOrDefault("zoomOut");
  double progress = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(effect.at(progress, 3840, 2160).covered());
    progress = progress >= 1 ? 0 : progress + 0.01;
  }
}
BENCHMARK(coveredPerFrame);

}  // namespace
