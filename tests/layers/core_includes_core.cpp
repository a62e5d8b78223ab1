// Must compile: the control for the two above, so they fail for the layering alone.
#include "core/support/json.hpp"
