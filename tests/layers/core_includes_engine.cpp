// Must not compile: the core may not see the engine.
#include "engine/process.hpp"
