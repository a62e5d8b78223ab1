// ffmpeg's probe and progress output: whatever it says, a clip's length is a number of
// seconds (never negative, never NaN), the rate lies in (0, 1000], the size has 2 to 5
// digits a side, and a ping-pong plan can be assessed from it.
#include "core/library/ping_pong.hpp"
#include "fuzz.hpp"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto input = fuzz::text(data, size);
  const auto probe = PingPong::parseProbe(input);
  if (probe.seconds) {
    KORVALEN_FUZZ_CHECK(*probe.seconds >= 0 && !std::isnan(*probe.seconds));
  }
  if (probe.fps) {
    KORVALEN_FUZZ_CHECK(*probe.fps > 0 && *probe.fps <= PingPong::maxFramesPerSecond);
  }
  if (probe.width) {
    KORVALEN_FUZZ_CHECK(*probe.width >= 0 && *probe.width <= 99999 && probe.height && *probe.height <= 99999);
  }
  const auto plan = PingPong::assess(probe.seconds.value_or(-1), probe.width.value_or(0), probe.height.value_or(0),
                                     probe.fps.value_or(0), 1 << 30, std::int64_t{1} << 40, 1 << 20, 0);
  if (plan.allowed && plan.sourceSeconds > 0) {
    KORVALEN_FUZZ_CHECK(plan.segmentCount() >= 1);
  }
  if (const auto seconds = PingPong::parseProgressSeconds(input)) {
    KORVALEN_FUZZ_CHECK(!std::isnan(*seconds));
  }
  return 0;
}
