// Library items and the import rules over file names: an item that decodes writes back to
// JSON that decodes to the same JSON; the rules answer for any name without failing, and the
// storage path they give always starts "items/<id>/".
#include "core/library/library_item.hpp"
#include "core/library/library_rules.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto input = fuzz::text(data, size);
  if (const auto parsed = json::parse(input)) {
    if (auto item = json::decode<LibraryItem>(*parsed)) {
      const auto written = json::encode(*item);
      const auto again = json::decode<LibraryItem>(written);
      KORVALEN_FUZZ_CHECK(again.has_value());
      KORVALEN_FUZZ_CHECK(json::compact(json::encode(*again)) == json::compact(written));
    }
  }
  const auto [id, path] = fuzz::halves(input);
  (void)LibraryRules::kindOf(path);
  (void)LibraryRules::entersLibrary(path, false);
  if (const auto extension = LibraryRules::extensionOf(LibraryRules::lastComponent(path))) {
    KORVALEN_FUZZ_CHECK(extension->find('.') == std::string::npos);
  }
  (void)LibraryRules::titleFor(path, size % 2 == 0, std::nullopt);
  const auto stored = LibraryRules::relativePathFor(id, path, size % 3 == 0);
  KORVALEN_FUZZ_CHECK(stored.size() >= 2 && stored[0] == "items" && stored[1] == id);
  return 0;
}
