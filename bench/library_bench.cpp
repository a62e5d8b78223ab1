// Every library command starts by loading "library.json": a 10 000-item library must load
// in well under 50 ms, within 1.5 times of nlohmann merely parsing the same text (the
// yardstick, in the same run: compare the two times).
#include "core/library/wallpaper_library.hpp"

#include <benchmark/benchmark.h>

#include <fmt/format.h>

namespace {

using korvalen::LibraryItem;
using korvalen::WallpaperLibrary;

const std::string& libraryText() {
  static const std::string text = [] {
    auto library = WallpaperLibrary::parse(R"({"items": []})", "library.json").library;
    for (int i = 0; i < 10'000; ++i) {
      LibraryItem item;
      item.id = library.nextID();
      item.kind = i % 5 == 0 ? korvalen::WallpaperKind::image : korvalen::WallpaperKind::video;
      item.title = fmt::format("Clip number {} at dusk", i);
      item.relativePath = fmt::format("items/{}/clip-{}.mp4", item.id, i);
      item.sha256 = fmt::format("{:064x}", static_cast<unsigned>(i) * 2654435761U);
      item.sizeBytes = 48'000'000 + i;
      item.width = 1920;
      item.height = 1080;
      item.durationSeconds = 20.5;
      item.frameRate = 30;
      item.codec = "h264";
      item.hasAudio = i % 2 == 0;
      item.tags = {"calm", "nature"};
      if (i % 10 == 0) {
        item.cropByMonitor["10ac-a0c4-0000001|2560x1440"] = korvalen::CropRect{0.1, 0, 0.8, 1};
      }
      library.add(std::move(item));
    }
    return library.serialize();
  }();
  return text;
}

void loadLibrary10k(benchmark::State& state) {
  const auto& text = libraryText();
  for (auto _ : state) {
    auto loaded = WallpaperLibrary::parse(text, "library.json");
    benchmark::DoNotOptimize(loaded.library.items().data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(loadLibrary10k)->Unit(benchmark::kMillisecond);

void nlohmannParse10k(benchmark::State& state) {
  const auto& text = libraryText();
  for (auto _ : state) {
    auto parsed = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(parsed.size());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(nlohmannParse10k)->Unit(benchmark::kMillisecond);

void saveText10k(benchmark::State& state) {
  const auto library = WallpaperLibrary::parse(libraryText(), "library.json").library;
  for (auto _ : state) {
    benchmark::DoNotOptimize(library.serialize());
  }
}
BENCHMARK(saveText10k)->Unit(benchmark::kMillisecond);

}  // namespace
