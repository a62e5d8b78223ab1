// A pass over a large library is reshuffled at every wrap, and a scheduled playlist asks for
// its item on every poll: both must stay cheap at library scale.
#include "core/library/playlist_scheduler.hpp"

#include <benchmark/benchmark.h>

#include <fmt/format.h>

namespace {

using korvalen::PlaylistScheduler::scheduledItem;
using korvalen::PlaylistScheduler::shuffleOrder;

std::vector<std::string> itemIDs(std::size_t count) {
  std::vector<std::string> ids;
  ids.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    ids.push_back(fmt::format("item-{:08x}-4c6e-9a1b-{:012x}", i, i * 7919));
  }
  return ids;
}

void shuffle(benchmark::State& state) {
  const auto items = itemIDs(static_cast<std::size_t>(state.range(0)));
  std::uint64_t seed = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(shuffleOrder(items, seed++, items.front()));
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(shuffle)->Arg(100)->Arg(10000);

void scheduled(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const auto items = itemIDs(count);
  korvalen::Playlist playlist;
  playlist.name = "big";
  playlist.itemIDs = items;
  for (std::size_t i = 0; i < count; ++i) {
    // Spread over the day, listed out of order so the sort has work to do.
    const auto minute = static_cast<std::int64_t>((i * 7919) % 1440);
    playlist.schedule.push_back({{minute / 60, minute % 60}, items[i]});
  }
  const auto& zone = *korvalen::findTimeZone("Europe/Berlin");
  const auto now = korvalen::currentDate();
  for (auto _ : state) {
    benchmark::DoNotOptimize(scheduledItem(playlist, now, items, zone));
  }
}
BENCHMARK(scheduled)->Arg(10)->Arg(1000);

}  // namespace
