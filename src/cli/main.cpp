#include "cli/cli.hpp"

#include <unistd.h>
#include <iostream>

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  korvalen::cli::Context context{std::cin, std::cout, std::cerr, korvalen::paths::processEnvironment(),
                                 korvalen::currentDate};
  context.interactive = ::isatty(STDERR_FILENO) == 1;
  return korvalen::cli::run(arguments, context);
}
