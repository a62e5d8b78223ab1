// Apple Silicon encodes H.264 in hardware through VideoToolbox.
#include "engine/ping_pong_builder.hpp"

namespace korvalen::engine {

const std::vector<std::string>& PingPongBuilder::encoderChain() {
  static const std::vector<std::string> chain{"h264_videotoolbox"};
  return chain;
}

}  // namespace korvalen::engine
