// Enumerations written as words: one table per enumeration gives both directions.
#pragma once

#include "core/support/json.hpp"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace korvalen {

template <class Enum, std::size_t N>
using EnumWords = std::array<std::pair<Enum, std::string_view>, N>;

template <class Enum, std::size_t N>
constexpr std::string_view wordFor(const EnumWords<Enum, N>& words, Enum value) {
  for (const auto& [candidate, word] : words) {
    if (candidate == value) {
      return word;
    }
  }
  return words.front().second;
}

// Exact, case-sensitive.
template <class Enum, std::size_t N>
constexpr std::optional<Enum> valueFor(const EnumWords<Enum, N>& words, std::string_view text) {
  for (const auto& [value, word] : words) {
    if (word == text) {
      return value;
    }
  }
  return std::nullopt;
}

namespace json {
// Decodes a word with `parse`; an unknown word fails with "unknown WHAT "word"".
template <class Enum, class Parse>
[[nodiscard]] Result<Enum> decodeWord(const Json& json, Parse parse, std::string_view what) {
  if (!json.is_string()) {
    return std::unexpected(typeError(what, json));
  }
  const auto& text = json.get_ref<const std::string&>();
  if (std::optional<Enum> value = parse(text)) {
    return *value;
  }
  return std::unexpected(Error{"", std::string("unknown ") + std::string(what) + " \"" + text + "\""});
}
}  // namespace json

}  // namespace korvalen
