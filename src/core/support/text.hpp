// Unicode-correct text helpers. User text (paths, titles, rule words) is compared and
// trimmed the same way everywhere, by ICU rather than by ASCII tricks.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korvalen::text {

// Root-locale lower-casing (no Turkish dotless-i surprises). Invalid UTF-8 becomes U+FFFD.
std::string lowercased(std::string_view text);

// Equality under full case folding ("Straße" equals "STRASSE").
bool equalIgnoringCase(std::string_view a, std::string_view b);

// Trims spaces and tabs (space separators and U+0009) from both ends.
std::string trimSpacesAndTabs(std::string_view text);

// Trims white space and line breaks (every separator, U+0009 to U+000D and U+0085).
std::string trimWhitespaceAndNewlines(std::string_view text);

// A form for searching: accents and other combining marks removed, then case-folded, so
// "Café" and "CAFE" give the same key. Invalid UTF-8 becomes U+FFFD.
std::string searchKey(std::string_view text);

// `text` with every appearance of `from` (not empty) replaced by `to`, byte for byte.
std::string replacingAll(std::string_view text, std::string_view from, std::string_view to);

// Length in UTF-16 code units, the way user-visible counts are made.
std::size_t utf16Length(std::string_view text);

}  // namespace korvalen::text
