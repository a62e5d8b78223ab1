// Monitor identifiers: any saved and present keys resolve to one binding per present key,
// and distinct present keys each find their own saved selves exactly. The same bytes as an
// EDID block (as RandR hands it over): numbers only from a block with the EDID header, and
// one identifier per display whatever the numbers say.
#include "core/desktop/monitor_identity.hpp"
#include "fuzz.hpp"

#include <span>

#include <set>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto [savedText, presentText] = fuzz::halves(fuzz::text(data, size));
  const auto split = [](std::string_view text) {
    std::vector<std::string> keys;
    std::size_t start = 0;
    while (start <= text.size() && keys.size() < 16) {
      const auto end = std::min(text.find('\n', start), text.size());
      keys.emplace_back(text.substr(start, end - start));
      start = end + 1;
    }
    return keys;
  };
  const auto saved = split(savedText);
  const auto present = split(presentText);
  const auto bindings = MonitorIdentity::resolve(saved, present);
  KORVALEN_FUZZ_CHECK(bindings.size() == present.size());
  for (const auto& key : present) {
    (void)MonitorIdentity::deviceName(key);
  }
  if (std::set<std::string>(present.begin(), present.end()).size() == present.size()) {
    for (const auto& binding : MonitorIdentity::resolve(present, present)) {
      KORVALEN_FUZZ_CHECK(binding.quality == MonitorMatch::exact && binding.savedKey == binding.stableID);
    }
  }
  const std::span bytes(data, size);
  const auto numbers = ScreenIdentity::edidNumbers(bytes);
  if (numbers) {
    KORVALEN_FUZZ_CHECK(size >= 128 && data[0] == 0 && data[1] == 0xff && data[7] == 0);
  }
  std::vector<ScreenIdentity::Display> displays;
  for (std::size_t at = 0; at + 4 <= size && displays.size() < 8; at += 4) {
    const auto edid = ScreenIdentity::EdidNumbers{data[at], data[at + 1], data[at + 2]};
    displays.push_back({edid, (data[at + 3] & 1U) != 0, data[at + 3] / 2U, std::nullopt,
                        static_cast<double>(data[at] * 16), static_cast<double>(data[at + 1] * 9)});
  }
  KORVALEN_FUZZ_CHECK(ScreenIdentity::stableIDs(displays).size() == displays.size());
  return 0;
}
