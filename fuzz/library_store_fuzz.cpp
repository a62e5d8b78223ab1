// "library.json" as the library store reads it: any text loads without failing; a file
// that is no library is refused whole; one that is a library saves to text that reads back
// with the same items, the same rows set aside and the same next id, and saves again to the
// same bytes. A new item never gets an id a row already has. The fast reader and the plain
// one read every text alike.
#include "core/library/wallpaper_library.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  auto loaded = WallpaperLibrary::parse(fuzz::text(data, size), "library.json");
  const auto plain = WallpaperLibrary::parse(fuzz::text(data, size), "library.json", WallpaperLibrary::Reading::plain);
  KORVALEN_FUZZ_CHECK(plain.problem == loaded.problem);
  KORVALEN_FUZZ_CHECK(plain.dropped == loaded.dropped);
  KORVALEN_FUZZ_CHECK(plain.library.serialize() == loaded.library.serialize());
  if (loaded.problem) {
    KORVALEN_FUZZ_CHECK(loaded.library.items().empty());
    KORVALEN_FUZZ_CHECK(!loaded.library.save().has_value());
    return 0;
  }
  const auto& library = loaded.library;
  KORVALEN_FUZZ_CHECK(library.find(library.nextID()) == nullptr);
  for (const auto& item : library.items()) {
    KORVALEN_FUZZ_CHECK(!item.relativePath.empty() && item.relativePath.front() != '/');
  }
  const auto text = library.serialize();
  const auto again = WallpaperLibrary::parse(text, "library.json");
  KORVALEN_FUZZ_CHECK(!again.problem);
  KORVALEN_FUZZ_CHECK(again.dropped.size() == loaded.dropped.size());
  KORVALEN_FUZZ_CHECK(again.library.items().size() == library.items().size());
  KORVALEN_FUZZ_CHECK(again.library.nextID() == library.nextID());
  KORVALEN_FUZZ_CHECK(again.library.serialize() == text);
  return 0;
}
