// Policy state files: whatever decodes (conditions, per-monitor activity, or screens and
// windows to classify) is safe to classify and decide on, every covered fraction lies in
// 0...1, and there is one decision per monitor.
#include "core/playback/activity_classifier.hpp"
#include "core/playback/playback_policy.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto parsed = json::parse(fuzz::text(data, size));
  if (!parsed || !parsed->is_object()) {
    return 0;
  }
  auto state = json::decode<SystemState>(*parsed);
  if (!state) {
    return 0;
  }
  std::vector<MonitorInfo> screens;
  std::vector<WindowSnapshot> windows;
  json::ObjectReader in(*parsed, {});
  in.defaulted("screens", screens);
  in.defaulted("windows", windows);
  if (in.finish() && !screens.empty()) {
    state->monitors = ActivityClassifier::classify(screens, windows, parsed->value("exclusiveFullscreen", false));
    KORVALEN_FUZZ_CHECK(state->monitors.size() == screens.size());
    for (const auto& activity : state->monitors) {
      KORVALEN_FUZZ_CHECK(activity.coveredFraction >= 0 && activity.coveredFraction <= 1);
    }
  }
  const auto decision = PlaybackPolicy::evaluate(PowerSettings{}, *state);
  KORVALEN_FUZZ_CHECK(decision.monitors.size() == state->monitors.size());
  return 0;
}
