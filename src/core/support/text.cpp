#include "core/support/text.hpp"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstdint>

namespace korvalen::text {
namespace {

icu::UnicodeString fromUtf8(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUtf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

bool isSpaceOrTab(UChar32 c) {
  return c == 0x09 || u_charType(c) == U_SPACE_SEPARATOR;
}

bool isWhitespaceOrNewline(UChar32 c) {
  if ((c >= 0x09 && c <= 0x0D) || c == 0x85) {
    return true;
  }
  const auto type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

// ICU's UTF-8 stepping macros are written with C casts.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wconversion"
template <class Predicate>
std::string trim(std::string_view text, Predicate drop) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t start = 0;
  while (start < length) {
    int32_t next = start;
    UChar32 c = 0;
    U8_NEXT(bytes, next, length, c);
    if (c < 0 || !drop(c)) {
      break;
    }
    start = next;
  }
  int32_t end = length;
  while (end > start) {
    int32_t previous = end;
    UChar32 c = 0;
    U8_PREV(bytes, start, previous, c);
    if (c < 0 || !drop(c)) {
      break;
    }
    end = previous;
  }
  return std::string(text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
}
#pragma GCC diagnostic pop

}  // namespace

std::string lowercased(std::string_view text) {
  auto unicode = fromUtf8(text);
  unicode.toLower(icu::Locale::getRoot());
  return toUtf8(unicode);
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return fromUtf8(a).caseCompare(fromUtf8(b), U_FOLD_CASE_DEFAULT) == 0;
}

std::string trimSpacesAndTabs(std::string_view text) {
  return trim(text, isSpaceOrTab);
}

std::string trimWhitespaceAndNewlines(std::string_view text) {
  return trim(text, isWhitespaceOrNewline);
}

std::string searchKey(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  const auto* decomposing = icu::Normalizer2::getNFDInstance(status);
  icu::UnicodeString decomposed;
  if (U_SUCCESS(status)) {
    decomposed = decomposing->normalize(fromUtf8(text), status);
  }
  if (U_FAILURE(status)) {
    decomposed = fromUtf8(text);
  }
  icu::UnicodeString kept;
  for (int32_t at = 0; at < decomposed.length();) {
    const UChar32 c = decomposed.char32At(at);
    if (u_charType(c) != U_NON_SPACING_MARK) {
      kept.append(c);
    }
    at = decomposed.moveIndex32(at, 1);
  }
  kept.foldCase(U_FOLD_CASE_DEFAULT);
  return toUtf8(kept);
}

std::size_t utf16Length(std::string_view text) {
  return static_cast<std::size_t>(fromUtf8(text).length());
}

std::string replacingAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  out.reserve(text.size());
  for (auto at = text.find(from); !from.empty() && at != std::string_view::npos; at = text.find(from)) {
    out.append(text.substr(0, at)).append(to);
    text.remove_prefix(at + from.size());
  }
  out.append(text);
  return out;
}

}  // namespace korvalen::text
