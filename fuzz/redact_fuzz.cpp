// Redaction: no credential it should catch is left in what it returns. The oracle is the
// rule written out again: a JSON member named like a credential keeps only null or the
// "<set, N chars>" stand-in, and no credential parameter keeps eight or more value
// characters. Whatever else was there stays.
#include "core/diagnostics/redact.hpp"
#include "core/support/json.hpp"
#include "core/support/pattern.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  static const text::Pattern member(
      R"RE("[A-Za-z0-9_]*(?:apikey|token|secret|password)"\s*:\s*("(?:[^"\\]|\\.)*"|null))RE", true);
  static const text::Pattern standIn(R"RE(^(?:null|"<set, \d+ chars>")$)RE", true);
  static const text::Pattern parameter(R"RE((?:api[_-]?key|key|token|secret|access[_-]?token)=[A-Za-z0-9._\-]{8,})RE",
                                       true);
  const auto input = fuzz::text(data, size);
  const auto output = Redact::secrets(input);
  for (const auto& match : member.all(output)) {
    KORVALEN_FUZZ_CHECK(standIn.first(match.groups[1]).has_value());
  }
  KORVALEN_FUZZ_CHECK(parameter.all(output).empty());
  if (member.all(input).empty() && parameter.all(input).empty()) {
    KORVALEN_FUZZ_CHECK(output == input || !json::isValidUtf8(input));
  }
  return 0;
}
