// Debian's ffmpeg has no hardware H.264 encoder it can count on; x264 first, and MPEG-4
// part 2 where a build lacks x264.
#include "engine/ping_pong_builder.hpp"

namespace korvalen::engine {

const std::vector<std::string>& PingPongBuilder::encoderChain() {
  static const std::vector<std::string> chain{"libx264", "mpeg4"};
  return chain;
}

}  // namespace korvalen::engine
