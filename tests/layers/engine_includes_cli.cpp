// Must not compile: the engine may not see the tools.
#include "cli/cli.hpp"
