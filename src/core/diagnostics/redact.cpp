#include "core/diagnostics/redact.hpp"

#include "core/support/pattern.hpp"
#include "core/support/text.hpp"

#include <string>

namespace korvalen::Redact {
namespace {

using text::Pattern;

const Pattern& jsonCredential() {
  static const Pattern pattern(
      R"RE("(?<name>[A-Za-z0-9_]*(?:apikey|token|secret|password))"\s*:\s*(?<value>"(?:[^"\\]|\\.)*"|null))RE", true);
  return pattern;
}

const Pattern& queryCredential() {
  static const Pattern pattern(
      R"RE((?<name>(?:api[_-]?key|key|token|secret|access[_-]?token)=)(?<value>[A-Za-z0-9._\-]{8,}))RE", true);
  return pattern;
}

}  // namespace

std::string secrets(std::string_view input) {
  if (input.empty()) {
    return std::string(input);
  }
  const auto& member = jsonCredential();
  const auto name = member.group("name");
  const auto value = member.group("value");
  auto redacted = member.replaced(input, [&](const Pattern::Match& match) {
    const std::string replacement = "\"" + match.groups[name] + "\": ";
    if (text::equalIgnoringCase(match.groups[value], "null")) {
      return replacement + "null";
    }
    // The length as written between the quotes, in UTF-16 units.
    return replacement + "\"<set, " + std::to_string(text::utf16Length(match.groups[value]) - 2) + " chars>\"";
  });
  const auto& query = queryCredential();
  const auto queryName = query.group("name");
  return query.replaced(redacted, [&](const Pattern::Match& match) { return match.groups[queryName] + "<redacted>"; });
}

}  // namespace korvalen::Redact
