// The live wallpaper's control socket lines, both ways: any text reads without failing, and
// whatever reads writes back to a line that reads as the same request or reply.
#include "core/wallpaper/control_protocol.hpp"
#include "fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen::wallpaper;
  const auto text = korvalen::fuzz::text(data, size);
  if (const auto request = parseRequest(text)) {
    const auto line = encode(*request);
    KORVALEN_FUZZ_CHECK(line.find('\n') == std::string::npos);
    KORVALEN_FUZZ_CHECK(parseRequest(line) == *request);
  }
  if (const auto reply = parseReply(text)) {
    const auto line = encode(*reply);
    KORVALEN_FUZZ_CHECK(line.find('\n') == std::string::npos);
    const auto again = parseReply(line);
    KORVALEN_FUZZ_CHECK(again.has_value());
    KORVALEN_FUZZ_CHECK(again->ok == reply->ok && again->message == reply->message);
    KORVALEN_FUZZ_CHECK(again->monitors.size() == reply->monitors.size());
  }
  return 0;
}
