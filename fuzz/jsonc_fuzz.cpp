// JSON with comments: stripping never fails, never adds a line or a byte, and what it makes
// of a text that then reads as JSON is plain JSON already (stripping it again changes
// nothing). Not idempotent on text that stays broken: "[,,]" strips to "[,]", which must
// stay an error rather than be stripped on to "[]".
#include "core/support/json.hpp"
#include "core/support/jsonc.hpp"
#include "fuzz.hpp"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto input = fuzz::text(data, size);
  const auto stripped = Jsonc::stripWithReport(input);
  if (korvalen::json::parse(stripped.text)) {
    KORVALEN_FUZZ_CHECK(Jsonc::strip(stripped.text) == stripped.text);
  }
  KORVALEN_FUZZ_CHECK(std::count(stripped.text.begin(), stripped.text.end(), '\n') <=
                      std::count(input.begin(), input.end(), '\n'));
  KORVALEN_FUZZ_CHECK(stripped.text.size() <= input.size());
  return 0;
}
