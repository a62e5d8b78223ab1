// The engine: what touches the operating system (child processes, playback backends).
#include "engine/engine.hpp"
