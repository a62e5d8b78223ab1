// ISO 8601 dates: a date that parses prints in both forms, and each form parses back to the
// same date (the plain form to the whole second).
#include "core/support/iso8601.hpp"
#include "fuzz.hpp"

#include <chrono>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto date = ISO8601::parseEither(fuzz::text(data, size));
  if (!date) {
    return 0;
  }
  const auto plain = ISO8601::plain().format(*date);
  const auto exact = ISO8601::withFraction().format(*date);
  KORVALEN_FUZZ_CHECK(ISO8601::plain().parse(plain) == std::chrono::floor<std::chrono::seconds>(*date));
  const auto back = ISO8601::withFraction().parse(exact);
  KORVALEN_FUZZ_CHECK(back.has_value());
  KORVALEN_FUZZ_CHECK(std::chrono::floor<std::chrono::milliseconds>(*back) ==
                      std::chrono::floor<std::chrono::milliseconds>(*date));
  return 0;
}
