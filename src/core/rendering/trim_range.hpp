// The played stretch of a video, in seconds. An infinite end means "to the end of the clip".
#pragma once

#include "core/support/json.hpp"

namespace korvalen {

struct TrimRange {
  double start = 0;
  double end = 0;
  bool operator==(const TrimRange&) const = default;
};

namespace json {
inline constexpr auto trimRangeFields = [](auto& coder, auto& trim) {
  coder.required("start", trim.start);
  coder.required("end", trim.end);
};
template <>
struct Coding<TrimRange> {
  static Json encode(const TrimRange& trim, const Options& options) {
    return encodeObject(trim, options, trimRangeFields);
  }
  [[nodiscard]] static Result<TrimRange> decode(const Json& json, const Options& options) {
    return decodeObject<TrimRange>(json, options, trimRangeFields);
  }
};
}  // namespace json

}  // namespace korvalen
