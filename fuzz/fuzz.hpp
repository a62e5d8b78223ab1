// Shared pieces of the fuzz targets. Each target feeds one parser of outside input and then
// checks what must hold of its answer; a broken property stops the run like a crash, with
// the property and the input's size on standard error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#define KORVALEN_FUZZ_CHECK(condition)                                                            \
  do {                                                                                            \
    if (!(condition)) {                                                                           \
      std::fprintf(stderr, "fuzz property broken: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      std::abort();                                                                               \
    }                                                                                             \
  } while (false)

namespace korvalen::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Two inputs from one: split at the first NUL byte (or the middle when there is none).
inline std::pair<std::string_view, std::string_view> halves(std::string_view input) {
  auto at = input.find('\0');
  if (at == std::string_view::npos) {
    at = input.size() / 2;
    return {input.substr(0, at), input.substr(at)};
  }
  return {input.substr(0, at), input.substr(at + 1)};
}

}  // namespace korvalen::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
