// Preconditions: conditions that only a programming error can break. When one fails the
// process prints the condition and where it was checked, then stops; there is nothing a
// caller could sensibly do to recover.
#pragma once

namespace korvalen {

[[noreturn]] void preconditionFailed(const char* condition, const char* file, int line);

}  // namespace korvalen

#define KORVALEN_PRECONDITION(condition)                              \
  do {                                                                \
    if (!(condition)) {                                               \
      ::korvalen::preconditionFailed(#condition, __FILE__, __LINE__); \
    }                                                                 \
  } while (false)
