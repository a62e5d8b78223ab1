// Carries an edit made to one copy of a record over to another copy: the top-level sections
// that changed between `from` and `to` replace those of `onto`; everything else keeps what
// `onto` holds. Works on any record that codes to a JSON object.
#pragma once

#include "core/support/json.hpp"

#include <optional>
#include <set>
#include <string>

namespace korvalen::SettingsDiff {

// Dates exactly and non-finite numbers as strings, so a merge loses nothing.
inline constexpr json::Options mergeOptions{.nonFiniteStrings = true, .exactDates = true};

// The record's top-level object, or absent.
template <class T>
std::optional<json::Json> fields(const T& value) {
  auto encoded = json::encode(value, mergeOptions);
  if (!encoded.is_object()) {
    return std::nullopt;
  }
  return encoded;
}

// A missing value counts as null; objects compare whatever their member order, numbers by
// their written text.
inline bool same(const json::Json* a, const json::Json* b) {
  const auto text = [](const json::Json* value) {
    return value == nullptr ? std::string("null") : json::compact(*value);
  };
  return text(a) == text(b);
}

// `onto` unchanged when anything fails to code.
template <class T>
T apply(const T& onto, const T& from, const T& to) {
  const auto ontoFields = fields(onto);
  const auto fromFields = fields(from);
  const auto toFields = fields(to);
  if (!ontoFields || !fromFields || !toFields) {
    return onto;
  }
  std::set<std::string> keys;
  for (const auto& [key, value] : fromFields->items()) {
    keys.insert(key);
  }
  for (const auto& [key, value] : toFields->items()) {
    keys.insert(key);
  }
  json::Json result = *ontoFields;
  for (const auto& key : keys) {
    const auto inFrom = fromFields->find(key);
    const auto inTo = toFields->find(key);
    const json::Json* before = inFrom == fromFields->end() ? nullptr : &*inFrom;
    const json::Json* after = inTo == toFields->end() ? nullptr : &*inTo;
    if (same(before, after)) {
      continue;
    }
    if (after == nullptr) {
      result.erase(key);
    } else {
      result[key] = *after;
    }
  }
  auto merged = json::decode<T>(result, mergeOptions);
  return merged ? std::move(*merged) : onto;
}

}  // namespace korvalen::SettingsDiff
