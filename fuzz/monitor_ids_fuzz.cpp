// Monitor identifiers: any saved and present keys resolve to one binding per present key,
// and distinct present keys each find their own saved selves exactly.
#include "core/desktop/monitor_identity.hpp"
#include "fuzz.hpp"

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
  return 0;
}
