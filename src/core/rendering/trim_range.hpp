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
template <>
struct Coding<TrimRange> {
  static Json encode(const TrimRange& trim, const Options& options) {
    return ObjectWriter(options).put("start", trim.start).put("end", trim.end).take();
  }
  static Result<TrimRange> decode(const Json& json, const Options& options) {
    ObjectReader reader(json, options);
    TrimRange trim;
    reader.required("start", trim.start);
    reader.required("end", trim.end);
    return reader.finishWith(trim);
  }
};
}  // namespace json

}  // namespace korvalen
