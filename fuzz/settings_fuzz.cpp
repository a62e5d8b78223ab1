// The settings file and its three-way merge. What reads back is already repaired
// (sanitised() is idempotent), writes and reads back equal, and the merge keeps each side's
// change: a side that changed nothing leaves the other's edit as it is.
#include "core/app/settings_coding.hpp"
#include "core/app/settings_diff.hpp"
#include "fuzz.hpp"

namespace {

using korvalen::KorvalenSettings;

// Equality through the exact coding, so NaN-free records compare by value and dates exactly.
std::string exact(const KorvalenSettings& settings) {
  return korvalen::json::compact(korvalen::json::encode(settings, korvalen::json::Options{.exactDates = true}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto [first, second] = fuzz::halves(fuzz::text(data, size));
  const auto a = Settings::deserialize(first);
  const auto whole = Settings::deserialize(fuzz::text(data, size));
  if (whole) {
    KORVALEN_FUZZ_CHECK(exact(whole->sanitised()) == exact(*whole));
    const auto again = Settings::deserialize(Settings::serialize(*whole));
    KORVALEN_FUZZ_CHECK(again.has_value());
    KORVALEN_FUZZ_CHECK(Settings::serialize(*again) == Settings::serialize(*whole));
  }
  if (!a) {
    return 0;
  }
  const auto b = Settings::deserialize(second);
  if (!b) {
    return 0;
  }
  KORVALEN_FUZZ_CHECK(exact(SettingsDiff::apply(*a, *a, *b)) == exact(*b));
  KORVALEN_FUZZ_CHECK(exact(SettingsDiff::apply(*a, *b, *b)) == exact(*a));
  return 0;
}
