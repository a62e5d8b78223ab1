// JSON coding on nlohmann/json: one `Coding<T>` per type, strict and lenient object field
// readers that say which field failed, the element-lenient `Lossy<T>`, and the house output
// form (pretty-printed, keys sorted at every level).
#pragma once

#include "core/support/iso8601.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvalen::json {

// nlohmann's default object is a std::map, so every object is written with sorted keys.
using Json = nlohmann::json;

// What a file format allows beyond plain JSON.
struct Options {
  // Non-finite doubles as the strings "Infinity", "-Infinity" and "NaN" (both ways).
  bool nonFiniteStrings = false;
  // Lenient readers fail like strict ones: for checking a value before it is stored.
  bool strict = false;
  // Dates as whole microseconds since 1970 instead of text, so nothing is rounded away
  // when a record is coded only to be compared or merged.
  bool exactDates = false;
};

struct Error {
  std::string path;  // e.g. "screens.A.sharpen"; empty for the value itself
  std::string message;
  // "screens.A.sharpen: missing", or just the message for the value itself.
  [[nodiscard]] std::string describe() const;
  // The same error one level down, under `key` (or "[index]" for list elements).
  [[nodiscard]] Error under(std::string_view key) const;
};

template <class T>
using Result = std::expected<T, Error>;

// Specialise with `static Json encode(const T&, const Options&)` and
// `static Result<T> decode(const Json&, const Options&)`.
template <class T>
struct Coding;

template <class T>
Json encode(const T& value, const Options& options = {}) {
  return Coding<T>::encode(value, options);
}

template <class T>
[[nodiscard]] Result<T> decode(const Json& json, const Options& options = {}) {
  return Coding<T>::decode(json, options);
}

Error typeError(std::string_view expected, const Json& found);

template <>
struct Coding<bool> {
  static Json encode(bool value, const Options&) { return value; }
  [[nodiscard]] static Result<bool> decode(const Json& json, const Options&);
};

template <>
struct Coding<std::int64_t> {
  static Json encode(std::int64_t value, const Options&) { return value; }
  // Integers, and floats with an integral value in range (1.0 reads as 1).
  [[nodiscard]] static Result<std::int64_t> decode(const Json& json, const Options&);
};

template <>
struct Coding<double> {
  static Json encode(double value, const Options& options);
  [[nodiscard]] static Result<double> decode(const Json& json, const Options& options);
};

template <>
struct Coding<std::string> {
  static Json encode(const std::string& value, const Options&) { return value; }
  [[nodiscard]] static Result<std::string> decode(const Json& json, const Options&);
};

// Dates are ISO 8601 text: written in UTC with whole seconds, read with or without a fraction.
template <>
struct Coding<Date> {
  static Json encode(Date value, const Options&);
  [[nodiscard]] static Result<Date> decode(const Json& json, const Options&);
};

template <class T>
struct Coding<std::vector<T>> {
  static Json encode(const std::vector<T>& values, const Options& options) {
    Json out = Json::array();
    for (const auto& value : values) {
      out.push_back(Coding<T>::encode(value, options));
    }
    return out;
  }
  [[nodiscard]] static Result<std::vector<T>> decode(const Json& json, const Options& options) {
    if (!json.is_array()) {
      return std::unexpected(typeError("a list", json));
    }
    std::vector<T> out;
    out.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
      auto element = Coding<T>::decode(json[i], options);
      if (!element) {
        return std::unexpected(element.error().under(fmt::format("[{}]", i)));
      }
      out.push_back(std::move(*element));
    }
    return out;
  }
};

template <class T>
struct Coding<std::map<std::string, T>> {
  static Json encode(const std::map<std::string, T>& values, const Options& options) {
    Json out = Json::object();
    for (const auto& [key, value] : values) {
      out[key] = Coding<T>::encode(value, options);
    }
    return out;
  }
  [[nodiscard]] static Result<std::map<std::string, T>> decode(const Json& json, const Options& options) {
    if (!json.is_object()) {
      return std::unexpected(typeError("an object", json));
    }
    std::map<std::string, T> out;
    for (const auto& [key, value] : json.items()) {
      auto element = Coding<T>::decode(value, options);
      if (!element) {
        return std::unexpected(element.error().under(key));
      }
      out.emplace(key, std::move(*element));
    }
    return out;
  }
};

// A value whose decoding never fails: when T cannot be read, `value` is absent.
template <class T>
struct Lossy {
  std::optional<T> value;
  bool operator==(const Lossy&) const = default;
};

template <class T>
struct Coding<Lossy<T>> {
  static Json encode(const Lossy<T>& lossy, const Options& options) {
    return lossy.value ? Coding<T>::encode(*lossy.value, options) : Json(nullptr);
  }
  [[nodiscard]] static Result<Lossy<T>> decode(const Json& json, const Options& options) {
    auto value = Coding<T>::decode(json, options);
    if (!value && options.strict) {
      return std::unexpected(value.error());
    }
    return Lossy<T>{value ? std::optional<T>(std::move(*value)) : std::nullopt};
  }
};

// Reads the fields of one object. Strict readers record the first failure, which `finish`
// returns; lenient readers never fail and keep the default.
class ObjectReader {
 public:
  ObjectReader(const Json& json, const Options& options);

  // Present and of the right type.
  template <class T>
  void required(std::string_view key, T& out) {
    const Json* value = find(key);
    if (value == nullptr) {
      fail(Error{std::string(key), "missing"});
      return;
    }
    read(key, *value, out);
  }

  // Present, a whole number, and within [low, high]: numbers from outside are range-checked
  // as they are decoded, never left to a precondition further on.
  void bounded(std::string_view key, std::int64_t& out, std::int64_t low, std::int64_t high) {
    const Json* value = find(key);
    if (value == nullptr) {
      fail(Error{std::string(key), "missing"});
      return;
    }
    std::int64_t decoded = 0;
    if (!read(key, *value, decoded)) {
      return;
    }
    if (decoded < low || decoded > high) {
      fail(Error{std::string(key), fmt::format("{} is out of range ({} to {})", decoded, low, high)});
      return;
    }
    out = decoded;
  }

  // Missing or null gives absent; anything else must decode.
  template <class T>
  void optional(std::string_view key, std::optional<T>& out) {
    const Json* value = find(key);
    if (value == nullptr || value->is_null()) {
      out.reset();
      return;
    }
    T decoded{};
    if (read(key, *value, decoded)) {
      out = std::move(decoded);
    }
  }

  // Missing or null keeps the default in `out`; anything else must decode.
  template <class T>
  void defaulted(std::string_view key, T& out) {
    const Json* value = find(key);
    if (value == nullptr || value->is_null()) {
      return;
    }
    read(key, *value, out);
  }

  // Takes the value when it decodes; otherwise keeps the default in `out`. Never fails
  // (unless the options ask for strictness).
  template <class T>
  void lenient(std::string_view key, T& out) {
    const Json* value = find(key);
    if (value == nullptr) {
      return;
    }
    if (options_.strict) {
      read(key, *value, out);
    } else if (auto decoded = Coding<T>::decode(*value, options_)) {
      out = std::move(*decoded);
    }
  }

  // An optional read leniently: a missing, null or unreadable value is absent.
  template <class T>
  void lenient(std::string_view key, std::optional<T>& out) {
    const Json* value = find(key);
    out.reset();
    if (value == nullptr || value->is_null()) {
      return;
    }
    T decoded{};
    if (options_.strict) {
      if (read(key, *value, decoded)) {
        out = std::move(decoded);
      }
    } else if (auto result = Coding<T>::decode(*value, options_)) {
      out = std::move(*result);
    }
  }

  [[nodiscard]] bool isObject() const { return json_.is_object(); }
  [[nodiscard]] const Options& options() const { return options_; }
  [[nodiscard]] std::expected<void, Error> finish() const;

  // `value` when every strict read succeeded, else the first failure.
  template <class T>
  [[nodiscard]] Result<T> finishWith(T value) const {
    if (error_) {
      return std::unexpected(*error_);
    }
    return value;
  }

 private:
  [[nodiscard]] const Json* find(std::string_view key) const;
  void fail(Error error);

  template <class T>
  bool read(std::string_view key, const Json& value, T& out) {
    auto decoded = Coding<T>::decode(value, options_);
    if (!decoded) {
      fail(decoded.error().under(key));
      return false;
    }
    out = std::move(*decoded);
    return true;
  }

  const Json& json_;
  Options options_;
  std::optional<Error> error_;
};

// Builds one object; absent optionals are left out, never written as null.
class ObjectWriter {
 public:
  explicit ObjectWriter(const Options& options) : options_(options) {}

  // The reader's field kinds, so one field list can drive both directions.
  template <class T>
  void required(std::string_view key, const T& value) {
    put(key, value);
  }
  template <class T>
  void defaulted(std::string_view key, const T& value) {
    put(key, value);
  }
  void bounded(std::string_view key, std::int64_t value, std::int64_t /*low*/, std::int64_t /*high*/) {
    put(key, value);
  }
  template <class T>
  void lenient(std::string_view key, const T& value) {
    put(key, value);
  }
  template <class T>
  void lenient(std::string_view key, const std::optional<T>& value) {
    putIfPresent(key, value);
  }
  template <class T>
  void optional(std::string_view key, const std::optional<T>& value) {
    putIfPresent(key, value);
  }

  template <class T>
  ObjectWriter& put(std::string_view key, const T& value) {
    out_[std::string(key)] = Coding<T>::encode(value, options_);
    return *this;
  }

  template <class T>
  ObjectWriter& putIfPresent(std::string_view key, const std::optional<T>& value) {
    if (value) {
      put(key, *value);
    }
    return *this;
  }

  [[nodiscard]] Json take() { return std::move(out_); }

 private:
  Options options_;
  Json out_ = Json::object();
};

// Codes a record as an object from one list of its fields: `fields(coder, record)` calls
// `required`, `optional`, `defaulted` or `lenient` for each field, and the same list then
// serves the writer (with a const record) and the reader, so the two cannot drift apart.
template <class T, class Fields>
Json encodeObject(const T& value, const Options& options, const Fields& fields) {
  ObjectWriter out(options);
  fields(out, value);
  return out.take();
}

template <class T, class Fields>
[[nodiscard]] Result<T> decodeObject(const Json& json, const Options& options, const Fields& fields) {
  ObjectReader in(json, options);
  T value{};
  fields(in, value);
  return in.finishWith(std::move(value));
}

// Defines `Coding<Type>`'s encode and decode from one field list; used inside namespace
// korvalen::json of a source file.
#define KORVALEN_CODING_FROM_FIELDS(Type, fields)                               \
  Json Coding<Type>::encode(const Type& value, const Options& options) {        \
    return encodeObject(value, options, fields);                                \
  }                                                                             \
  Result<Type> Coding<Type>::decode(const Json& json, const Options& options) { \
    return decodeObject<Type>(json, options, fields);                           \
  }

// Parses text as JSON without throwing; the error is one line. A number beyond the range of
// a double spoils the whole text, as a syntax error does (see docs/architecture.md).
[[nodiscard]] std::expected<Json, std::string> parse(std::string_view text);

// Whether `text` is a JSON number too large for a double ("1e400").
[[nodiscard]] bool isOutOfRangeNumber(std::string_view text);

// The house output form: 2-space indentation, sorted keys, a final line feed.
[[nodiscard]] std::string pretty(const Json& json);

// One line, for messages. Never throws: text that is not UTF-8 shows U+FFFD.
[[nodiscard]] std::string compact(const Json& json);

// The path ("screens.A.path", "" for the value itself) of the first text or key that is not
// valid UTF-8; absent when all is well. Writers check first, so nothing is written mangled.
[[nodiscard]] std::optional<std::string> firstInvalidText(const Json& json);

// Whether `text` is valid UTF-8.
[[nodiscard]] bool isValidUtf8(std::string_view text);

}  // namespace korvalen::json
