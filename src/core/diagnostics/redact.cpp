#include "core/diagnostics/redact.hpp"

#include "core/support/pattern.hpp"
#include "core/support/text.hpp"

#include <unicode/unistr.h>

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

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// `text` with each match replaced. Matches never overlap, so building forwards in one pass
// gives what replacing from the last match to the first would, without moving the rest of
// the text once per match.
template <class Replace>
std::string replaced(std::string_view input, const Pattern& pattern, Replace replacement) {
  const auto found = pattern.all(input);
  if (found.empty()) {
    return std::string(input);
  }
  const auto text = unicode(input);
  const auto name = pattern.group("name");
  const auto value = pattern.group("value");
  icu::UnicodeString out;
  int32_t copied = 0;
  for (const auto& match : found) {
    out.append(text, copied, match.start - copied);
    out.append(unicode(replacement(match.groups[name], match.groups[value])));
    copied = match.end;
  }
  out.append(text, copied, text.length() - copied);
  std::string result;
  out.toUTF8String(result);
  return result;
}

}  // namespace

std::string secrets(std::string_view input) {
  if (input.empty()) {
    return std::string(input);
  }
  auto text = replaced(input, jsonCredential(), [](const std::string& name, const std::string& value) {
    const std::string replacement = "\"" + name + "\": ";
    if (text::equalIgnoringCase(value, "null")) {
      return replacement + "null";
    }
    // The length as written between the quotes, in UTF-16 units.
    return replacement + "\"<set, " + std::to_string(text::utf16Length(value) - 2) + " chars>\"";
  });
  return replaced(text, queryCredential(),
                  [](const std::string& name, const std::string& /*value*/) { return name + "<redacted>"; });
}

}  // namespace korvalen::Redact
