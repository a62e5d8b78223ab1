#include "core/support/json.hpp"

#include <cmath>
#include <limits>

namespace korvalen::json {

std::string Error::describe() const {
  return path.empty() ? message : path + ": " + message;
}

Error Error::under(std::string_view key) const {
  std::string joined(key);
  if (!path.empty()) {
    joined += path.front() == '[' ? path : "." + path;
  }
  return Error{std::move(joined), message};
}

Error typeError(std::string_view expected, const Json& found) {
  return Error{"", std::string("expected ") + std::string(expected) + ", found " + found.type_name()};
}

Result<bool> Coding<bool>::decode(const Json& json, const Options&) {
  if (!json.is_boolean()) {
    return std::unexpected(typeError("true or false", json));
  }
  return json.get<bool>();
}

Result<std::int64_t> Coding<std::int64_t>::decode(const Json& json, const Options&) {
  if (json.is_number_integer() && !json.is_number_unsigned()) {
    return json.get<std::int64_t>();
  }
  if (json.is_number_unsigned()) {
    const auto value = json.get<std::uint64_t>();
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(value);
    }
    return std::unexpected(Error{"", "number out of range"});
  }
  if (json.is_number_float()) {
    const double value = json.get<double>();
    // 2^63 is the first double past the range; every double below it converts exactly.
    if (std::isfinite(value) && value == std::trunc(value) && value >= -9223372036854775808.0 &&
        value < 9223372036854775808.0) {
      return static_cast<std::int64_t>(value);
    }
    return std::unexpected(Error{"", "expected a whole number"});
  }
  return std::unexpected(typeError("a whole number", json));
}

Json Coding<double>::encode(double value, const Options& options) {
  if (std::isfinite(value)) {
    return value;
  }
  if (!options.nonFiniteStrings) {
    return nullptr;  // plain JSON has no form for it
  }
  if (std::isnan(value)) {
    return "NaN";
  }
  return value > 0 ? "Infinity" : "-Infinity";
}

Result<double> Coding<double>::decode(const Json& json, const Options& options) {
  if (json.is_number()) {
    return json.get<double>();
  }
  if (json.is_string() && options.nonFiniteStrings) {
    const auto& text = json.get_ref<const std::string&>();
    if (text == "Infinity") {
      return std::numeric_limits<double>::infinity();
    }
    if (text == "-Infinity") {
      return -std::numeric_limits<double>::infinity();
    }
    if (text == "NaN") {
      return std::numeric_limits<double>::quiet_NaN();
    }
  }
  return std::unexpected(typeError("a number", json));
}

Result<std::string> Coding<std::string>::decode(const Json& json, const Options&) {
  if (!json.is_string()) {
    return std::unexpected(typeError("text", json));
  }
  return json.get<std::string>();
}

Json Coding<Date>::encode(Date value, const Options& options) {
  if (options.exactDates) {
    return value.time_since_epoch().count();
  }
  return ISO8601::plain().format(value);
}

Result<Date> Coding<Date>::decode(const Json& json, const Options& options) {
  if (options.exactDates && json.is_number_integer()) {
    return Date{std::chrono::microseconds{json.get<std::int64_t>()}};
  }
  if (!json.is_string()) {
    return std::unexpected(typeError("a date", json));
  }
  const auto& text = json.get_ref<const std::string&>();
  if (auto date = ISO8601::parseEither(text)) {
    return *date;
  }
  return std::unexpected(Error{"", "not a date: " + text});
}

ObjectReader::ObjectReader(const Json& json, const Options& options) : json_(json), options_(options) {
  if (!json.is_object()) {
    error_ = typeError("an object", json);
  }
}

const Json* ObjectReader::find(std::string_view key) const {
  if (!json_.is_object()) {
    return nullptr;
  }
  const auto found = json_.find(key);
  return found == json_.end() ? nullptr : &*found;
}

void ObjectReader::fail(Error error) {
  if (!error_) {
    error_ = std::move(error);
  }
}

std::expected<void, Error> ObjectReader::finish() const {
  if (error_) {
    return std::unexpected(*error_);
  }
  return {};
}

std::expected<Json, std::string> parse(std::string_view text) {
  // nlohmann takes a NUL byte for the end of the text, so "1\0garbage" would read as 1; no
  // JSON text holds one, and a file with NULs in it is a damaged file.
  if (const auto nul = text.find('\0'); nul != std::string_view::npos) {
    return std::unexpected(fmt::format("syntax error at byte {}: a NUL byte, which JSON text cannot hold", nul + 1));
  }
  try {
    return Json::parse(text.begin(), text.end());
  } catch (const Json::exception& error) {
    // A syntax error, or a number beyond a double's range ("1e400"), on which nlohmann gives
    // up on the whole text. Its text starts with "[json.exception.parse_error.101] ...".
    std::string message = error.what();
    if (const auto close = message.find("] "); close != std::string::npos) {
      message.erase(0, close + 2);
    }
    return std::unexpected(message);
  }
}

bool isOutOfRangeNumber(std::string_view text) {
  // Only a lone number; the lexer would also throw for one inside a list or an object.
  if (text.empty() || (text.front() != '-' && (text.front() < '0' || text.front() > '9'))) {
    return false;
  }
  try {
    const auto parsed = Json::parse(text.begin(), text.end());
    return parsed.is_discarded();
  } catch (const Json::out_of_range&) {
    return true;
  } catch (const Json::exception&) {
    return false;
  }
}

std::string pretty(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string compact(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool isValidUtf8(std::string_view text) {
  // Well-formed UTF-8 by the Unicode standard's table 3-7: no overlong forms, no surrogates,
  // nothing past U+10FFFF.
  std::size_t i = 0;
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  while (i < text.size()) {
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead < 0x80) {
      ++i;
      continue;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      low = lead == 0xE0 ? 0xA0 : 0x80;
      high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      low = lead == 0xF0 ? 0x90 : 0x80;
      high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
      return false;
    }
    if (i + length > text.size() || byte(i + 1) < low || byte(i + 1) > high) {
      return false;
    }
    for (std::size_t k = 2; k < length; ++k) {
      if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) {
        return false;
      }
    }
    i += length;
  }
  return true;
}

std::optional<std::string> firstInvalidText(const Json& json) {
  if (json.is_string()) {
    return isValidUtf8(json.get_ref<const std::string&>()) ? std::nullopt : std::optional<std::string>("");
  }
  if (json.is_object()) {
    for (const auto& [key, value] : json.items()) {
      if (!isValidUtf8(key)) {
        return compact(Json(key));
      }
      if (auto below = firstInvalidText(value)) {
        return below->empty() ? key : Error{*below, ""}.under(key).path;
      }
    }
  }
  if (json.is_array()) {
    for (std::size_t i = 0; i < json.size(); ++i) {
      if (auto below = firstInvalidText(json[i])) {
        return Error{*below, ""}.under(fmt::format("[{}]", i)).path;
      }
    }
  }
  return std::nullopt;
}

}  // namespace korvalen::json
