// The default picture enhancement for videos: resampler, sharpness and threshold.
#pragma once

#include "core/support/json.hpp"

#include <string>
#include <string_view>

namespace korvalen {

enum class Resampler { standard, cubic, hqcubic, lanczos };

// "default", "cubic", "hqcubic", "lanczos".
std::string_view toString(Resampler resampler);
// Trimmed and lower-cased; "hq"/"highqualitycubic" are hqcubic, "fsr" is lanczos, anything
// unknown is the default.
Resampler parseResampler(std::string_view text);

struct Enhance {
  Resampler resampler = Resampler::standard;
  double sharpness = 0;
  double threshold = 0;
  bool operator==(const Enhance&) const = default;
};

struct EnhanceSettings {
  std::string resampler = "default";
  double sharpness = 0.0;
  double threshold = 0.0;

  [[nodiscard]] EnhanceSettings sanitised() const;
  // The enhancement with the repairs applied.
  [[nodiscard]] Enhance enhance() const;
  bool operator==(const EnhanceSettings&) const = default;
};

namespace json {
template <>
struct Coding<EnhanceSettings> {
  static Json encode(const EnhanceSettings& settings, const Options& options);
  [[nodiscard]] static Result<EnhanceSettings> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
