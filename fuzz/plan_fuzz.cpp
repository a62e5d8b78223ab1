// The saver plan: what decodes writes back to text that decodes to the same text, and every
// screen's content comes from one of the three rules.
#include "core/planning/saver_plan.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto plan = SaverPlan::decode(fuzz::text(data, size));
  if (!plan) {
    return 0;
  }
  const auto written = plan->encode();
  const auto again = SaverPlan::decode(written);
  KORVALEN_FUZZ_CHECK(again.has_value());
  KORVALEN_FUZZ_CHECK(again->encode() == written);
  for (const auto& [id, content] : plan->screens) {
    const auto chosen = plan->contentForScreen(id);
    KORVALEN_FUZZ_CHECK(chosen.has_value());
    KORVALEN_FUZZ_CHECK(plan->chosen
                            ? json::compact(json::encode(*chosen)) == json::compact(json::encode(*plan->chosen))
                            : json::compact(json::encode(*chosen)) == json::compact(json::encode(content)));
  }
  KORVALEN_FUZZ_CHECK(plan->sameContent(*again) || written.find("NaN") != std::string::npos);
  return 0;
}
