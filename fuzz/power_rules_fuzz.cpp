// Power rules: applying a rule twice is applying it once, describing the result never fails,
// and a rule that does not apply says why.
#include "core/playback/power_rule_parser.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  PowerSettings power;
  const auto input = fuzz::text(data, size);
  std::size_t start = 0;
  while (start <= input.size()) {
    const auto end = std::min(input.find('\n', start), input.size());
    const auto applied = PowerRuleParser::apply(power, input.substr(start, end - start));
    if (applied) {
      const auto twice = PowerRuleParser::apply(*applied, input.substr(start, end - start));
      KORVALEN_FUZZ_CHECK(twice.has_value() &&
                          PowerRuleParser::describe(*twice) == PowerRuleParser::describe(*applied));
      power = *applied;
    } else {
      KORVALEN_FUZZ_CHECK(!applied.error().description().empty());
    }
    start = end + 1;
  }
  KORVALEN_FUZZ_CHECK(!PowerRuleParser::describe(power).empty());
  return 0;
}
