#include "core/support/pattern.hpp"

#include "core/support/precondition.hpp"

#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <limits>

namespace korvalen::text {
namespace {

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace

struct Pattern::Compiled {
  std::unique_ptr<const icu::RegexPattern> pattern;
};

Pattern::Pattern(std::string_view expression, bool ignoreCase) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  std::unique_ptr<const icu::RegexPattern> pattern(
      icu::RegexPattern::compile(unicode(expression), ignoreCase ? UREGEX_CASE_INSENSITIVE : 0, where, status));
  KORVALEN_PRECONDITION(U_SUCCESS(status) && pattern != nullptr);
  compiled_ = std::make_unique<const Compiled>(Compiled{std::move(pattern)});
}

Pattern::~Pattern() = default;

std::vector<Pattern::Match> Pattern::find(std::string_view input, std::size_t limit) const {
  const auto text = unicode(input);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(compiled_->pattern->matcher(text, status));
  KORVALEN_PRECONDITION(U_SUCCESS(status));
  std::vector<Match> found;
  while (found.size() < limit && matcher->find(status) && U_SUCCESS(status)) {
    Match match;
    match.start = matcher->start(status);
    match.end = matcher->end(status);
    for (int32_t i = 0; i <= matcher->groupCount(); ++i) {
      match.groups.push_back(utf8(matcher->group(i, status)));
    }
    found.push_back(std::move(match));
  }
  return found;
}

std::vector<Pattern::Match> Pattern::all(std::string_view text) const {
  return find(text, std::numeric_limits<std::size_t>::max());
}

std::optional<Pattern::Match> Pattern::first(std::string_view text) const {
  auto found = find(text, 1);
  return found.empty() ? std::nullopt : std::optional<Match>(std::move(found.front()));
}

std::string Pattern::replaced(std::string_view input,
                              const std::function<std::string(const Match&)>& replacement) const {
  const auto found = all(input);
  if (found.empty()) {
    return std::string(input);
  }
  const auto text = unicode(input);
  icu::UnicodeString out;
  int32_t copied = 0;
  for (const auto& match : found) {
    out.append(text, copied, match.start - copied);
    out.append(unicode(replacement(match)));
    copied = match.end;
  }
  out.append(text, copied, text.length() - copied);
  return utf8(out);
}

std::size_t Pattern::group(std::string_view name) const {
  UErrorCode status = U_ZERO_ERROR;
  const auto number = compiled_->pattern->groupNumberFromName(name.data(), static_cast<int32_t>(name.size()), status);
  KORVALEN_PRECONDITION(U_SUCCESS(status) && number >= 0);
  return static_cast<std::size_t>(number);
}

std::string asciiDigits(std::string_view input) {
  const auto text = unicode(input);
  icu::UnicodeString out;
  for (int32_t i = 0; i < text.length();) {
    const UChar32 c = text.char32At(i);
    const int32_t digit = u_charType(c) == U_DECIMAL_DIGIT_NUMBER ? u_charDigitValue(c) : -1;
    if (digit >= 0) {
      out.append(static_cast<UChar32>(0x30 + digit));
    } else {
      out.append(c);
    }
    i += U16_LENGTH(c);
  }
  return utf8(out);
}

}  // namespace korvalen::text
