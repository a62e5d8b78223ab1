// The engine library: what touches the operating system. It grows with child processes
// (ffmpeg) and the playback backends; for now it only names itself.
#pragma once

#include <string_view>

namespace korvalen::engine {

inline constexpr std::string_view name = "korvalen_engine";

}  // namespace korvalen::engine
