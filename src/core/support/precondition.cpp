#include "core/support/precondition.hpp"

#include <cstdio>
#include <cstdlib>

namespace korvalen {

void preconditionFailed(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "korvalen: precondition failed: %s (%s:%d)\n", condition, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace korvalen
