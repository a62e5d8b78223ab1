// The settings file is read at every launch and after every hand edit; a large one
// (thousands of playlists) must still load in milliseconds. Lenient reading costs more than
// a plain parse; this shows how much.
#include "core/app/settings_coding.hpp"
#include "core/support/jsonc.hpp"

#include <benchmark/benchmark.h>

#include <fmt/format.h>

namespace {

std::string largeSettings(int playlists) {
  korvalen::KorvalenSettings settings;
  for (int i = 0; i < playlists; ++i) {
    korvalen::Playlist playlist;
    playlist.name = fmt::format("Playlist {}", i);
    for (int j = 0; j < 8; ++j) {
      playlist.itemIDs.push_back(fmt::format("item-{:04d}-{:02d}", i, j));
    }
    playlist.schedule.push_back({{7, 30}, playlist.itemIDs.front()});
    playlist.schedule.push_back({{21, 0}, playlist.itemIDs.back()});
    settings.playlists.push_back(playlist);
  }
  // Hand-edited files carry comments and trailing commas.
  auto text = korvalen::Settings::serialize(settings);
  std::string annotated;
  annotated.reserve(text.size() * 2);
  for (const char c : text) {
    annotated.push_back(c);
    if (c == '\n') {
      annotated += "  // a note about the next line\n";
    }
  }
  return annotated;
}

void jsoncStrip(benchmark::State& state) {
  const auto text = largeSettings(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::Jsonc::strip(text));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(jsoncStrip)->Arg(5000);

void settingsDeserialize(benchmark::State& state) {
  const auto text = largeSettings(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::Settings::deserialize(text));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(settingsDeserialize)->Arg(5000)->Unit(benchmark::kMillisecond);

// The baseline: nlohmann parsing the same bytes, comments already gone.
void plainParse(benchmark::State& state) {
  const auto text = korvalen::Jsonc::strip(largeSettings(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    benchmark::DoNotOptimize(korvalen::json::Json::parse(text));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(plainParse)->Arg(5000)->Unit(benchmark::kMillisecond);

}  // namespace
