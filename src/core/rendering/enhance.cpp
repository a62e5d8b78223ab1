#include "core/rendering/enhance.hpp"

#include "core/support/numbers.hpp"
#include "core/support/text.hpp"

namespace korvalen {
namespace {

constexpr auto enhanceFields = [](auto& coder, auto& settings) {
  coder.lenient("resampler", settings.resampler);
  coder.lenient("sharpness", settings.sharpness);
  coder.lenient("threshold", settings.threshold);
};

}  // namespace

std::string_view toString(Resampler resampler) {
  switch (resampler) {
    case Resampler::standard:
      return "default";
    case Resampler::cubic:
      return "cubic";
    case Resampler::hqcubic:
      return "hqcubic";
    case Resampler::lanczos:
      return "lanczos";
  }
  return "default";
}

Resampler parseResampler(std::string_view text) {
  const auto word = text::lowercased(text::trimWhitespaceAndNewlines(text));
  if (word == "cubic") {
    return Resampler::cubic;
  }
  if (word == "hqcubic" || word == "highqualitycubic" || word == "hq") {
    return Resampler::hqcubic;
  }
  if (word == "lanczos" || word == "fsr") {
    return Resampler::lanczos;
  }
  return Resampler::standard;
}

EnhanceSettings EnhanceSettings::sanitised() const {
  const auto repaired = enhance();
  return EnhanceSettings{std::string(toString(repaired.resampler)), repaired.sharpness, repaired.threshold};
}

Enhance EnhanceSettings::enhance() const {
  return Enhance{parseResampler(resampler), numbers::clampedOr(sharpness, 0.0, 1.0, 0.0),
                 numbers::clampedOr(threshold, 0.0, 1.0, 0.0)};
}

namespace json {

KORVALEN_CODING_FROM_FIELDS(EnhanceSettings, enhanceFields)

}  // namespace json
}  // namespace korvalen
