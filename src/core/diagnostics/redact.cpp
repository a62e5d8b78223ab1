#include "core/diagnostics/redact.hpp"

#include "core/support/precondition.hpp"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>
#include <vector>

namespace korvalen::Redact {
namespace {

// Compiled once; a pattern that does not compile is a programming error.
std::unique_ptr<const icu::RegexPattern> compile(const char* pattern) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  std::unique_ptr<const icu::RegexPattern> compiled(
      icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(pattern), UREGEX_CASE_INSENSITIVE, where, status));
  KORVALEN_PRECONDITION(U_SUCCESS(status) && compiled != nullptr);
  return compiled;
}

const icu::RegexPattern& jsonCredential() {
  static const auto pattern =
      compile(R"RE("(?<name>[A-Za-z0-9_]*(?:apikey|token|secret|password))"\s*:\s*(?<value>"(?:[^"\\]|\\.)*"|null))RE");
  return *pattern;
}

const icu::RegexPattern& queryCredential() {
  static const auto pattern =
      compile(R"RE((?<name>(?:api[_-]?key|key|token|secret|access[_-]?token)=)(?<value>[A-Za-z0-9._\-]{8,}))RE");
  return *pattern;
}

struct Match {
  int32_t start = 0;
  int32_t end = 0;
  icu::UnicodeString name;
  icu::UnicodeString value;
};

// Every match, in order; positions are UTF-16 offsets.
std::vector<Match> matches(const icu::RegexPattern& pattern, const icu::UnicodeString& text) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(pattern.matcher(text, status));
  KORVALEN_PRECONDITION(U_SUCCESS(status));
  std::vector<Match> found;
  while (matcher->find(status) && U_SUCCESS(status)) {
    Match match;
    match.start = matcher->start(status);
    match.end = matcher->end(status);
    match.name = matcher->group(matcher->pattern().groupNumberFromName("name", status), status);
    match.value = matcher->group(matcher->pattern().groupNumberFromName("value", status), status);
    found.push_back(match);
  }
  return found;
}

// Rebuilds `text` with each match replaced. Matches never overlap, so building forwards in
// one pass gives what replacing from the last match to the first would, without moving the
// rest of the text once per match.
template <class Replace>
icu::UnicodeString replaced(const icu::UnicodeString& text, const std::vector<Match>& found, Replace replacement) {
  icu::UnicodeString out;
  int32_t copied = 0;
  for (const auto& match : found) {
    out.append(text, copied, match.start - copied);
    out.append(replacement(match));
    copied = match.end;
  }
  out.append(text, copied, text.length() - copied);
  return out;
}

}  // namespace

std::string secrets(std::string_view input) {
  if (input.empty()) {
    return std::string(input);
  }
  auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(input.data(), static_cast<int32_t>(input.size())));
  text = replaced(text, matches(jsonCredential(), text), [](const Match& match) {
    icu::UnicodeString replacement = icu::UnicodeString(u"\"") + match.name + u"\": ";
    if (match.value.caseCompare(icu::UnicodeString(u"null"), U_FOLD_CASE_DEFAULT) == 0) {
      return replacement + u"null";
    }
    // The length as written between the quotes, in UTF-16 units.
    const auto length = std::to_string(match.value.length() - 2);
    return replacement + u"\"<set, " + icu::UnicodeString::fromUTF8(length) + u" chars>\"";
  });
  text = replaced(text, matches(queryCredential(), text),
                  [](const Match& match) { return match.name + icu::UnicodeString(u"<redacted>"); });
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace korvalen::Redact
